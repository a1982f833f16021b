#include "board/core/unit.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <ctime>

#include "board/core/errors.h"
#include "board/core/report.h"
#include "board/core/state_file.h"
#include "board/core/trace.h"

namespace qel::board {

namespace {

constexpr int64_t kMostChips = 16;
constexpr uint32_t kMostPathBytes = 4096;
constexpr uint32_t kNodeMode = S_IFCHR | 0660;

// The one file of the host's own that a process sees: its name is the process's, not the chip's.
constexpr std::string_view kOwnNameFile = "/proc/self/comm";

const RequestSpec *find_spec(const Node &node, uint32_t code) {
    for (const RequestSpec &spec : node.device_class->requests) {
        if (spec.code == code) return &spec;
    }
    return nullptr;
}

// A flat record has its size whoever sent it; a model may rely on that.
bool has_right_size(const RequestSpec *spec, const Buffer &in) {
    return spec != nullptr ? spec->pack != nullptr || in.size() == spec->in_bytes : in.empty();
}

void flip_bits(const std::vector<uint32_t> &bits, Buffer &data) {
    for (const uint32_t bit : bits) {
        if (bit / 8 < data.size()) data[bit / 8] ^= static_cast<uint8_t>(1u << bit % 8);
    }
}

void put_u32(Buffer &out, uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<uint8_t>(value >> shift));
}

// What becomes of an operation on a path that is a device node.
int64_t node_answer(PathOp operation) {
    if (operation == PathOp::kStat) return kNodeMode;
    if (operation == PathOp::kList) return -ENOTDIR;
    return operation == PathOp::kMakeDir ? -EEXIST : -EPERM;
}

bool writes_data(Op op) { return op == Op::kWrite; }

}  // namespace

Unit::Unit(const Description &description, const std::string &dir, uint32_t time_scale)
    : name_(description.required_text("name")),
      summary_(description.text("summary", "")),
      dir_(dir),
      time_scale_(std::max(time_scale, 1u)) {
    const auto tables = description.tables("chip");
    if (tables.empty()) description.fail("chip", "is missing: a board has at least one [[chip]]");
    if (tables.size() > kMostChips) description.fail("chip", "there are more than 16");
    chip_count_ = static_cast<uint32_t>(tables.size());
    for (const Description &table : tables) {
        const auto number = static_cast<uint32_t>(chips_.size());
        chips_.push_back(
            std::make_unique<Chip>(*this, number, table, dir_ + "/chip" + std::to_string(number)));
    }
    description.reject_unknown();
    for (const auto &chip : chips_) {
        for (const auto &[path, node] : chip->nodes()) load_device(*chip, *chip->find_node(path));
        chip->power_on();
    }
}

// ---- processes and handles ----

uint32_t Unit::add_client(uint32_t chip, uint32_t pid, const std::string &process) {
    clients_[next_client_] = {chip, pid, process};
    return next_client_++;
}

void Unit::rename_client(uint32_t client, uint32_t pid) {
    const auto found = clients_.find(client);
    if (found != clients_.end()) found->second.pid = pid;
}

void Unit::remove_client(uint32_t client) {
    std::vector<uint32_t> held;
    for (const auto &[id, open] : opens_) {
        if (open.handle.client == client) held.push_back(id);
    }
    for (const uint32_t id : held) close_handle(id);
    clients_.erase(client);
}

void Unit::close_handle(uint32_t handle) {
    const auto found = opens_.find(handle);
    if (found == opens_.end()) return;
    found->second.node->device->close(found->second.handle);
    opens_.erase(found);
    changed();
}

bool Unit::has_token(uint32_t handle) const {
    const auto found = opens_.find(handle);
    return found != opens_.end() && found->second.token;
}

Chip *Unit::chip(uint32_t number) { return number < chips_.size() ? chips_[number].get() : nullptr; }

// ---- one request ----

int Unit::find_target(const Request &request, Target &target) {
    if (request.op == Op::kOpen || request.op == Op::kPath) {
        if (request.chip >= chips_.size()) return -ENODEV;
        if (request.path.size() >= kMostPathBytes) return -ENAMETOOLONG;
        target.chip = chips_[request.chip].get();
        target.path = request.path;
        if (request.path.rfind('/', 0) != 0) return 0;
        target.path = normal_path(request.path);
        target.node = target.chip->find_node(target.path);
        return 0;
    }
    const auto found = opens_.find(request.handle);
    if (found == opens_.end()) return -EBADF;
    target.open = &found->second;
    target.node = found->second.node;
    target.chip = found->second.chip;
    if (request.op == Op::kTerm) target.request_name = terminal_call_name(request.code);
    if (request.op != Op::kIoctl) return 0;
    target.spec = find_spec(*target.node, request.code);
    if (target.spec != nullptr) target.request_name = target.spec->name;
    return has_right_size(target.spec, request.in) ? 0 : -EFAULT;
}

std::string_view Unit::path_of(const Target &target) const {
    return target.node != nullptr ? std::string_view(target.node->path) : std::string_view(target.path);
}

// Decides, once per request, what goes wrong with it.
void Unit::arrive(Request &request, const Target &target) {
    Waiting &waiting = request.waiting;
    waiting.started_ms = now_us() / 1000;
    if (faults_.empty() || target.chip == nullptr) return;
    const RequestView view{target.chip->number(), path_of(target), operation_name(request.op, request.code),
                           target.request_name, request.code};
    for (Fault &fault : faults_) {
        if (!matches(fault, view) || !fault.strikes()) continue;
        if (fault.action == FaultAction::kFail) waiting.error = static_cast<int>(fault.argument);
        if (fault.action == FaultAction::kDelay) waiting.hold_until_ms = waiting.started_ms + fault.argument;
        if (fault.action == FaultAction::kShort) waiting.short_bytes = fault.argument;
        if (fault.action == FaultAction::kFlip)
            waiting.flips.insert(waiting.flips.end(), fault.flips.begin(), fault.flips.end());
    }
    if (!writes_data(request.op)) return;
    flip_bits(waiting.flips, request.in);
    if (waiting.short_bytes >= 0 && static_cast<size_t>(waiting.short_bytes) < request.in.size())
        request.in.resize(static_cast<size_t>(waiting.short_bytes));
}

bool Unit::execute(Request &request, Reply &reply, int64_t &deadline_ms) {
    deadline_ms = -1;
    if (powerless_) {
        reply.killed = true;
        reply.value = -EIO;
        return true;
    }
    Target target;
    const int found = find_target(request, target);
    if (found != 0) {
        reply.value = found;
        finish(request, reply, target);
        return true;
    }
    if (request.waiting.started_ms < 0) arrive(request, target);
    const Waiting &waiting = request.waiting;
    if (waiting.hold_until_ms >= 0 && now_us() / 1000 < waiting.hold_until_ms) {
        deadline_ms = waiting.hold_until_ms;
        return false;
    }
    if (waiting.error != 0) {
        if (request.op == Op::kClose) close_handle(request.handle);  // a failed close closes too
        reply.value = -waiting.error;
    } else if (!run(request, reply, target, deadline_ms)) {
        return false;
    }
    finish(request, reply, target);
    return true;
}

bool Unit::run(Request &request, Reply &reply, const Target &target, int64_t &deadline_ms) {
    switch (request.op) {
        case Op::kOpen:
            open_path(request, reply, target);
            return true;
        case Op::kPath:
            do_path(request, reply, target);
            return true;
        case Op::kClose:
            close_handle(request.handle);
            return true;
        default:
            return run_on_device(request, reply, *target.open, deadline_ms);
    }
}

Answer Unit::ask_device(const Request &request, Open &open) {
    Device &device = *open.node->device;
    Handle &handle = open.handle;
    const Waiting &waiting = request.waiting;
    switch (request.op) {
        case Op::kRead: {
            uint32_t bytes = request.out_bytes;
            if (waiting.short_bytes >= 0)
                bytes = static_cast<uint32_t>(std::min<int64_t>(bytes, waiting.short_bytes));
            return device.read(handle, bytes);
        }
        case Op::kWrite:
            return device.write(handle, request.in);
        case Op::kSeek:
            return device.seek(handle, request.offset, static_cast<int>(request.code));
        case Op::kIoctl:
            return device.ioctl(handle, request.code, request.in);
        case Op::kMap:
            return device.map(handle, request.offset, request.out_bytes);
        case Op::kTerm:
            return device.term(handle, static_cast<TermOp>(request.code), request.in);
        default:
            return Answer::fail(ENOSYS);
    }
}

bool Unit::run_on_device(Request &request, Reply &reply, Open &open, int64_t &deadline_ms) {
    Waiting &waiting = request.waiting;
    open.handle.nonblocking = request.nonblocking;
    open.handle.started_ms = waiting.started_ms;
    open.handle.expired = waiting.deadline_ms >= 0 && now_us() / 1000 >= waiting.deadline_ms;
    Answer answer = ask_device(request, open);
    if (answer.again && request.nonblocking) answer = Answer::fail(EAGAIN);
    if (answer.again && open.handle.expired) answer = Answer::fail(ETIMEDOUT);
    if (answer.again) {
        waiting.deadline_ms = deadline_ms = answer.deadline_ms;
        return false;
    }
    reply.value = answer.value;
    reply.fd = answer.fd;
    reply.killed = answer.ends;
    reply.out = std::move(answer.data);
    if (writes_data(request.op)) return true;
    flip_bits(waiting.flips, reply.out);
    if (waiting.short_bytes >= 0 && static_cast<size_t>(waiting.short_bytes) < reply.out.size())
        reply.out.resize(static_cast<size_t>(waiting.short_bytes));
    return true;
}

void Unit::finish(const Request &request, Reply &reply, const Target &target) {
    if (target.open != nullptr && request.op != Op::kClose && target.open->token &&
        !target.node->device->readable(target.open->handle)) {
        target.open->token = false;
        reply.drained = true;
    }
    if (cutting_) {
        cut_power();
        reply.killed = true;
    }
    if (trace_ != nullptr) trace(request, reply, target);
}

void Unit::withdraw(const Request &request) {
    Target target;
    if (trace_ == nullptr || find_target(request, target) != 0) return;
    Reply reply;
    reply.value = -EINTR;
    trace(request, reply, target);
}

// ---- paths ----

void Unit::open_path(const Request &request, Reply &reply, const Target &target) {
    if (target.node == nullptr) {
        map_to_host(request, reply, target);
        return;
    }
    Open open{.handle = {}, .chip = target.chip, .node = target.node};
    open.handle.id = next_handle_++;
    open.handle.client = request.client;
    open.handle.flags = request.code;
    open.handle.nonblocking = (request.code & O_NONBLOCK) != 0;
    open.handle.started_ms = request.waiting.started_ms;
    const int result = target.node->device->open(open.handle);
    if (result < 0) {
        reply.value = result;
        return;
    }
    reply.handle = open.handle.id;
    reply.class_index = target.node->class_index;
    reply.path = target.node->device->tty_path();
    reply.opened = reply.path.empty() ? Opened::kDevice : Opened::kTty;
    opens_.emplace(reply.handle, std::move(open));
    changed();  // it may be readable from the start
}

void Unit::map_to_host(const Request &request, Reply &reply, const Target &target) {
    reply.opened = Opened::kHostFile;
    if (target.path == kOwnNameFile) {
        reply.path = kOwnNameFile;
        return;
    }
    const auto path_operation = static_cast<PathOp>(request.code);
    const bool names_entry =
        request.op == Op::kPath && (path_operation == PathOp::kRemove || path_operation == PathOp::kRename);
    reply.value = target.chip->tree().resolve(request.path, !names_entry, reply.path);
}

void Unit::do_path(const Request &request, Reply &reply, const Target &target) {
    const auto operation = static_cast<PathOp>(request.code);
    switch (operation) {
        case PathOp::kUnmount:
        case PathOp::kRun:
        case PathOp::kReboot:
            return ask_machine(request, reply, target);
        case PathOp::kStat:
        case PathOp::kList:
        case PathOp::kMakeDir:
        case PathOp::kRemove:
        case PathOp::kRename:
            break;
        default:
            reply.value = -ENOSYS;
            return;
    }
    if (target.node != nullptr) {
        reply.value = node_answer(operation);
        return;
    }
    map_to_host(request, reply, target);
    if (operation == PathOp::kList) list_nodes(reply, target);
    if (operation == PathOp::kRename && reply.value == 0) map_new_name(request, reply, target);
}

void Unit::map_new_name(const Request &request, Reply &reply, const Target &target) {
    const std::string to(request.in.begin(), request.in.end());
    if (target.chip->find_node(normal_path(to)) != nullptr) {
        reply.value = -EPERM;
        return;
    }
    std::string host;
    reply.value = target.chip->tree().resolve(to, false, host);
    reply.out.assign(host.begin(), host.end());
}

void Unit::list_nodes(Reply &reply, const Target &target) const {
    const std::string folder = target.path == "/" ? "/" : target.path + "/";
    std::string last;
    for (const auto &[path, node] : target.chip->nodes()) {
        if (path.rfind(folder, 0) != 0) continue;
        const size_t slash = path.find('/', folder.size());
        const std::string entry = path.substr(folder.size(), slash - folder.size());
        if (entry == last || entry.size() > UINT8_MAX) continue;
        last = entry;
        put_u32(reply.out, slash == std::string::npos ? kNodeMode : S_IFDIR | 0755);
        reply.out.push_back(static_cast<uint8_t>(entry.size()));
        reply.out.insert(reply.out.end(), entry.begin(), entry.end());
    }
}

void Unit::ask_machine(const Request &request, Reply &reply, const Target &target) {
    const Chip::Machine &machine = target.chip->machine();
    switch (static_cast<PathOp>(request.code)) {
        case PathOp::kUnmount:
            target.chip->record_event("umount " + request.path);
            reply.value = -machine.unmount_error;
            return;
        case PathOp::kRun:
            target.chip->record_event("run " + request.path);
            reply.value = machine.run_status;
            return;
        default: {
            char code[16];
            snprintf(code, sizeof(code), "0x%x", static_cast<unsigned>(request.offset));
            target.chip->record_event(std::string("reboot ") + code);
            reply.value = -machine.reboot_error;
            reply.killed = machine.reboot_ends;
            return;
        }
    }
}

// ---- what models ask of the board ----

int64_t Unit::now_us() const {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000) * time_scale_;
}

void Unit::changed() {
    for (auto &[id, open] : opens_) {
        if (open.token || !open.node->device->readable(open.handle)) continue;
        open.token = true;
        if (on_ready) on_ready(id);
    }
    if (on_changed) on_changed();
}

void Unit::misuse(const std::string &text) {
    fprintf(stderr, "MISUSE  %s: %s\n", name_.c_str(), text.c_str());
    misuses_.push_back(text);
}

void Unit::event(const std::string &text) { events_.push_back(text); }

size_t Unit::medium_write(const Node &node, size_t bytes) {
    if (cutting_ || powerless_) return 0;
    size_t reached = bytes;
    for (Fault &fault : faults_) {
        if (fault.action != FaultAction::kPowerCut || !glob_match(fault.node, node.path)) continue;
        if (fault.chip && chip(*fault.chip) != &node.device->chip()) continue;
        if (!fault.strikes()) continue;
        cutting_ = true;
        if (fault.argument >= 0) reached = std::min(reached, static_cast<size_t>(fault.argument));
    }
    return reached;
}

LineFault Unit::line_fault(uint32_t chip, const std::string &line, bool to_host) {
    LineFault fault;
    for (Fault &known : faults_) strike_byte(known, chip, line, to_host, fault);
    return fault;
}

void Unit::trace_line(uint32_t chip, const std::string &line, bool to_host, Bytes bytes) {
    if (trace_ != nullptr && !bytes.empty())
        put_trace(
            trace_of_line({.time_us = now_us(), .chip = chip, .line = line, .to_host = to_host}, bytes));
}

RunnerWaits Unit::run_runners() {
    RunnerWaits waits;
    if (powerless_) return waits;
    for (Runner *runner : runners_) runner->run(waits);
    return waits;
}

// ---- the tester's face ----

Answer Unit::poke(uint32_t number, std::string_view node, const std::vector<std::string> &words) {
    Device *device = number < chips_.size() ? chips_[number]->find(node) : nullptr;
    if (device == nullptr) return Answer::fail(ENODEV);
    Answer answer = device->poke(words);
    changed();
    return answer;
}

std::vector<std::string> Unit::take_misuses() { return std::exchange(misuses_, {}); }

std::vector<std::string> Unit::take_events() { return std::exchange(events_, {}); }

// What the media hold at this moment is what a later start finds.
void Unit::cut_power() {
    cutting_ = false;
    powerless_ = true;
    save();
    changed();
}

void Unit::power_on() {
    std::vector<uint32_t> all;
    for (const auto &[id, open] : opens_) all.push_back(id);
    for (const uint32_t id : all) close_handle(id);
    powerless_ = false;
    for (const auto &chip : chips_) chip->power_on();
    wake_runners();
}

std::string Unit::state_file(const Chip &chip, const Node &node) const {
    std::string name = node.path.substr(1);
    std::replace(name.begin(), name.end(), '/', '@');
    return dir_ + "/chip" + std::to_string(chip.number()) + "/state/" + name;
}

void Unit::save() const {
    for (const auto &chip : chips_) {
        for (const auto &[path, node] : chip->nodes()) {
            Buffer content;
            node.device->save(content);
            if (!content.empty()) write_state(state_file(*chip, node), node.device_class->key, content);
        }
    }
}

void Unit::load_device(Chip &chip, Node &node) const {
    Buffer content;
    if (read_state(state_file(chip, node), node.device_class->key, content)) node.device->load(content);
}

void Unit::trace(const Request &request, const Reply &reply, const Target &target) const {
    const auto client = clients_.find(request.client);
    const bool known = client != clients_.end();
    const TraceEntry entry{.time_us = now_us(),
                           .chip = target.chip != nullptr ? target.chip->number() : request.chip,
                           .pid = known ? client->second.pid : 0,
                           .process = known ? std::string_view(client->second.process) : "",
                           .node = path_of(target),
                           .operation = operation_name(request.op, request.code),
                           .request_name = target.request_name};
    put_trace(trace_of_request(entry, request, reply));
}

void Unit::put_trace(const std::string &line) const {
    std::fwrite(line.data(), 1, line.size(), trace_);
    std::fputc('\n', trace_);
    std::fflush(trace_);
}

void Unit::show(Report &report) const {
    report.value("board", name_);
    if (!summary_.empty()) report.value("summary", summary_);
    report.value("directory", dir_);
    report.value("time scale", int64_t{time_scale_});
    for (const auto &chip : chips_) {
        report.begin_section("chip " + std::to_string(chip->number()));
        report.table("nodes", {"node", "kind", "open"});
        for (const auto &[path, node] : chip->nodes()) {
            const auto here = [&node = node](const auto &entry) { return entry.second.node == &node; };
            report.row({path, std::string(node.device_class->summary),
                        static_cast<int64_t>(std::count_if(opens_.begin(), opens_.end(), here))});
        }
        for (const auto &[path, node] : chip->nodes()) {
            report.begin_section(path);
            node.device->show(report);
            report.end_section();
        }
        report.end_section();
    }
}

}  // namespace qel::board
