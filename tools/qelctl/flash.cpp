// What the flash of this chip is: partitions, geometry, blocks, and what an upgrade image says of them.
#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/flash_data.h"
#include "tools/qelctl/flash_table.h"
#include "tools/qelctl/host_file.h"
#include "tools/qelctl/output.h"
#include "tools/qelctl/table.h"
#include "tools/qelctl/verb.h"

namespace qelctl {

namespace {

using nlohmann::ordered_json;

constexpr uint64_t kMostImageBytes = uint64_t{1} << 30;

struct FlashChoice {
    std::string image;
    bool status = false;
    bool json = false;
};

std::string offset_text(uint64_t value) {
    char text[24];
    snprintf(text, sizeof text, "0x%08llx", static_cast<unsigned long long>(value));
    return text;
}

std::string name_of(const FlashPartition &partition) {
    return {partition.name, strnlen(partition.name, sizeof partition.name)};
}

ordered_json offset_or_null(bool there, uint64_t offset) {
    return there ? ordered_json(offset) : ordered_json();
}

void show_partitions(const Library &library, bool json) {
    const std::vector<FlashPartition> partitions = read_partitions(library);
    ordered_json list = ordered_json::array();
    Table table({"index", "name", "offset", "size", "backup at"});
    for (const FlashPartition &partition : partitions) {
        const std::string index = std::to_string(list.size());
        ordered_json entry;
        entry["index"] = list.size();
        entry["name"] = name_of(partition);
        entry["offset"] = partition.offset;
        entry["size_bytes"] = partition.size;
        entry["backup_offset"] = offset_or_null(has_backup(partition), partition.backupOffset);
        list.push_back(entry);
        table.add({index, printable(name_of(partition)), offset_text(partition.offset),
                   offset_text(partition.size),
                   has_backup(partition) ? offset_text(partition.backupOffset) : "-"});
    }
    if (json) {
        ordered_json document;
        document["partitions"] = list;
        print_json(document);
    } else {
        print(partitions.empty() ? "no partitions\n" : table.text(wants_colour()));
    }
}

// How worn the flash is, as far as a service of the device tells.
std::optional<uint32_t> program_erase_status(const Library &library) {
    uint32_t status = 0;
    if (CALL(library, QEL_getFlashPEStatus)(&status) == 0) return status;
    throw Failure(ExitCode::kFailed, "no service of this device tells the program/erase status.");
}

void show_flash_info(const Library &library, const FlashChoice &choice) {
    const FlashInfo info = read_flash_info(library);
    const size_t partitions = read_partitions(library).size();
    uint32_t fpga_start = 0;
    const bool has_fpga = CALL(library, QEL_getFpgaStartAddress)(&fpga_start) == 0;
    std::optional<uint32_t> status;
    if (choice.status) status = program_erase_status(library);
    if (choice.json) {
        ordered_json document;
        document["type"] = info.type;
        document["type_name"] = flash_type_name(info.type);
        document["page_bytes"] = info.pageBytes;
        document["erase_bytes"] = info.eraseBytes;
        document["partition_bytes"] = info.partitionBytes;
        document["partitions"] = partitions;
        document["fpga_start"] = offset_or_null(has_fpga, fpga_start);
        document["program_erase_status"] = offset_or_null(status.has_value(), status.value_or(0));
        print_json(document);
        return;
    }
    const auto line = [](const char *name, const std::string &value) {
        return named_value(name, 22, value, wants_colour());
    };
    print(line("type", flash_type_name(info.type)) + line("page", std::to_string(info.pageBytes) + " bytes") +
          line("erase block", std::to_string(info.eraseBytes) + " bytes") +
          line("partitions", std::to_string(partitions)) +
          line("FPGA area from", has_fpga ? offset_text(fpga_start) : "-") +
          (status ? line("program/erase status", std::to_string(*status)) : ""));
}

// ---- the description of an upgrade image ----

struct ImageDescription {
    uint32_t version = 0;
    std::vector<PartitionDescription> records;
};

ImageDescription read_description(const Library &library, const std::string &path) {
    const std::vector<uint8_t> image = read_host_file(path, kMostImageBytes);
    std::vector<char> text(QEL_DESCRIPTION_BYTES);
    ImageDescription found;
    if (CALL(library, Flash_getPartFile)(image.data(), static_cast<uint32_t>(image.size()), text.data(),
                                         &found.version) != 0) {
        throw Failure(ExitCode::kFailed, path +
                                             " holds no partition description: it is no cramfs image with a\n"
                                             "partitionV3.txt, partitionV2.txt or partition.txt.");
    }
    found.records.resize(QEL_MAX_DESCRIPTIONS);
    uint32_t count = QEL_MAX_DESCRIPTIONS;
    if (CALL(library, PART_parsePartinfo)(text.data(), found.version, found.records.data(), &count) != 0)
        throw Failure(ExitCode::kFailed, "the description in " + path +
                                             " has a line that is wrong; the library's log says which.");
    found.records.resize(count);
    return found;
}

// How a description's partition compares with the one this device has.
const char *compare_with_device(const PartitionDescription &record,
                                const std::vector<FlashPartition> &partitions) {
    for (const FlashPartition &partition : partitions) {
        if (strncmp(partition.name, record.name, sizeof partition.name) != 0) continue;
        return partition.offset == record.offset && partition.size == record.size ? "same" : "differs";
    }
    return "new";
}

constexpr const char *kFileSystems[] = {"", "cramfs", "squashfs", "ubi", "jffs2", "ext4"};

std::string file_system_name(uint32_t type) {
    return type < std::size(kFileSystems) ? kFileSystems[type] : "?";
}

void check_description(const Library &library, const FlashChoice &choice) {
    const ImageDescription description = read_description(library, choice.image);
    const std::vector<FlashPartition> partitions = read_partitions(library);
    ordered_json list = ordered_json::array();
    Table table({"name", "cs", "offset", "size", "access", "file system", "backup at", "on this device"});
    for (const PartitionDescription &record : description.records) {
        const std::string name(record.name, strnlen(record.name, sizeof record.name));
        const bool backup = record.backupOffset != QEL_NO_BACKUP;
        const char *access = record.maskFlags == 0 ? "RW" : "R";
        const char *here = compare_with_device(record, partitions);
        ordered_json entry;
        entry["name"] = name;
        entry["cs"] = record.cs;
        entry["offset"] = record.offset;
        entry["size_bytes"] = record.size;
        entry["access"] = access;
        entry["file_system"] = file_system_name(record.fsType);
        entry["backup_offset"] = offset_or_null(backup, record.backupOffset);
        entry["on_device"] = here;
        list.push_back(entry);
        table.add({printable(name), std::to_string(record.cs), offset_text(record.offset),
                   offset_text(record.size), access, file_system_name(record.fsType),
                   backup ? offset_text(record.backupOffset) : "-", here});
    }
    if (choice.json) {
        ordered_json document;
        document["version"] = description.version;
        document["description"] = list;
        print_json(document);
        return;
    }
    print("version " + std::to_string(description.version) + ", " +
          std::to_string(description.records.size()) + " partitions\n" + table.text(wants_colour()));
}

CLI::App *add_flash_look(CLI::App &parent, const char *name, const char *description,
                         const std::shared_ptr<FlashChoice> &choice, const std::function<void()> &work) {
    CLI::App *verb = parent.add_subcommand(name, description);
    verb->add_flag("--json", choice->json, "Print JSON (described by qelctl.schema.json)");
    verb->footer(std::string("Examples:\n  qelctl flash ") + name);
    verb->callback(work);
    return verb;
}

}  // namespace

void add_flash(CLI::App &app, Session &session) {
    CLI::App *verb = app.add_subcommand("flash", "Flash: partitions, blocks, reading and writing");
    verb->require_subcommand(1);
    const auto choice = std::make_shared<FlashChoice>();
    add_flash_look(*verb, "parts", "List the partitions", choice,
                   [&session, choice] { show_partitions(session.library(), choice->json); });
    add_flash_look(*verb, "info", "Print type and geometry", choice, [&session, choice] {
        show_flash_info(session.library(), *choice);
    })->add_flag("--status", choice->status, "Also ask the service that knows the program/erase status");
    add_flash_data(*verb, session);
    CLI::App *check = add_flash_look(
        *verb, "check-description", "Parse the partition description of an upgrade image; nothing is written",
        choice, [&session, choice] { check_description(session.library(), *choice); });
    check->add_option("image", choice->image, "The image, a cramfs; - is standard input")
        ->required()
        ->type_name("FILE");
    check->footer("Examples:\n  qelctl flash check-description upgrade.img");
    verb->footer(
        "Examples:\n"
        "  qelctl flash parts\n"
        "  qelctl flash blocks");
}

}  // namespace qelctl
