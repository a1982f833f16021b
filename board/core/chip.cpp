#include "board/core/chip.h"

#include <filesystem>
#include <stdexcept>

#include "board/core/errors.h"

namespace qel::board {

namespace {

// Folders that every chip has; those in memory are empty whenever the power comes.
const char *const kFolders[] = {"/mnt/mtd/Config", "/mnt/pd", "/mnt/custom"};
const char *const kMemoryFolders[] = {"/tmp", "/var/tmp"};

constexpr uint32_t kMostRunStatus = 255;

}  // namespace

Chip::Chip(ChipHost &host, uint32_t number, const Description &description, const std::string &dir)
    : host_(host), number_(number), description_(description), dir_(dir), tree_(dir + "/root") {
    build_machine(description);
    build_tree(description);
    const auto classes = device_classes();
    for (size_t i = 0; i < classes.size(); ++i) {
        building_ = classes[i];
        building_index_ = static_cast<uint16_t>(i);
        for (const Description &table : description.tables(building_->key)) build(table);
    }
    building_ = nullptr;
}

void Chip::build(const Description &table) {
    try {
        building_->build(*this, table);
    } catch (const std::invalid_argument &error) {
        table.fail("", error.what());
    }
}

void Chip::build_machine(const Description &description) {
    for (const Description &table : description.tables("machine")) {
        machine_.unmount_error = table.error_number("unmount", 0);
        machine_.run_status = static_cast<int>(table.number("run_status", 0, kMostRunStatus, 0));
        machine_.reboot_ends = table.text("reboot", "OK") == "ends";
        if (!machine_.reboot_ends) machine_.reboot_error = table.error_number("reboot", 0);
    }
}

void Chip::build_tree(const Description &description) {
    const bool fresh = !std::filesystem::exists(tree_.root_dir());
    tree_.make_dir("/");
    for (const char *folder : kFolders) tree_.make_dir(folder);
    for (const std::string &folder : description.texts("folders")) {
        if (folder.rfind('/', 0) != 0) description.fail("folders", "every element must begin with \"/\"");
        tree_.make_dir(folder);
    }
    for (const Description &files : description.tables("files")) {
        for (const std::string &path : files.keys()) {
            if (path.rfind('/', 0) != 0) files.fail(path, "must be a path that begins with \"/\"");
            files_[normal_path(path)] = files.text(path, "");
        }
    }
    // What the software deleted stays deleted when a kept board starts again.
    if (fresh) make_files("/");
}

void Chip::make_files(std::string_view folder) {
    for (const auto &[path, text] : files_) {
        if (path.rfind(folder, 0) == 0)
            tree_.make_file(path, {reinterpret_cast<const uint8_t *>(text.data()), text.size()});
    }
}

void Chip::power_on() {
    for (const std::string folder : kMemoryFolders) {
        std::string host;
        if (tree_.resolve(folder, true, host) == 0) std::filesystem::remove_all(host);
        tree_.make_dir(folder);
        make_files(folder + "/");
    }
    for (const auto &[path, node] : nodes_) node.device->power_on();
}

void Chip::add(const std::string &path, std::unique_ptr<Device> device) {
    if (building_ == nullptr) throw std::logic_error("Chip::add outside of DeviceClass::build");
    if (path != normal_path(path) || path == "/" || nodes_.count(path) != 0)
        throw std::invalid_argument("node \"" + path + "\" is no absolute path or exists already");
    device->node_ = path;
    tree_.make_dir(path.substr(0, path.rfind('/') + 1));
    nodes_.emplace(path, Node{path, std::move(device), building_, building_index_});
}

Device *Chip::find(std::string_view path) const {
    const auto found = nodes_.find(path);
    return found != nodes_.end() ? found->second.device.get() : nullptr;
}

Node *Chip::find_node(std::string_view path) {
    const auto found = nodes_.find(path);
    return found != nodes_.end() ? &found->second : nullptr;
}

void Chip::report_misuse(const Device &device, const std::string &text) {
    host_.misuse("chip " + std::to_string(number_) + ": " + device.node() + ": " + text);
}

void Chip::record_event(const std::string &text) {
    host_.event("chip " + std::to_string(number_) + ": " + text);
}

LineFault Chip::line_fault(const Device &device, bool to_host) {
    const Node *node = find_node(device.node());
    return node != nullptr ? host_.line_fault(*node, to_host) : LineFault{};
}

size_t Chip::medium_write(const Device &device, size_t bytes) {
    const Node *node = find_node(device.node());
    return node != nullptr ? host_.medium_write(*node, bytes) : bytes;
}

}  // namespace qel::board
