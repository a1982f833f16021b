#include "board/core/board.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <climits>
#include <cstdlib>
#include <random>
#include <stdexcept>

#include "board/core/impl.h"
#include "board/core/local_link.h"
#include "board/core/report.h"
#include "board/core/show_svg.h"
#include "board/core/world.h"

namespace qel::board {

namespace {

// Keeps the System V keys of boards apart that run at the same time.
uint32_t random_salt() {
    std::random_device source;
    uint32_t salt = 0;
    while (salt == 0) salt = source();
    return salt;
}

}  // namespace

Board::Impl::Impl(const std::string &description, const Options &options)
    : workplace(options.dir),
      ipc_salt(random_salt()),
      unit(Description::parse(description), workplace.content_dir(), options.time_scale),
      pump(mutex, unit) {
    unit.on_ready = [this](uint32_t handle) QEL_REQUIRES(mutex) {
        const auto local = local_descriptors.find(handle);
        if (local != local_descriptors.end()) {
            put_token(local->second);
        } else if (on_ready) {
            on_ready(handle);
        }
    };
    unit.on_changed = [this]() QEL_REQUIRES(mutex) {
        wake_waiting();
        if (on_changed) on_changed();
    };
    unit.on_work = [this] { pump.wake(); };
}

Board::Impl::~Impl() = default;

void Board::Impl::wake_waiting() {
    generation.fetch_add(1, std::memory_order_release);
    ::syscall(SYS_futex, reinterpret_cast<uint32_t *>(&generation), FUTEX_WAKE_PRIVATE, INT_MAX, nullptr,
              nullptr, 0);
}

void Board::Impl::stop_for_misuse() {
    const Lock lock(mutex);
    const size_t count = unit.take_misuses().size();
    if (!was_entered || count == 0) return;
    fprintf(stderr, "MISUSE  %s: %zu of them, and the test did not ask for any\n", unit.name().c_str(),
            count);
    std::abort();
}

Board::Board(const std::string &description, const Options &options)
    : impl_(std::make_unique<Impl>(description, options)) {}

Board::~Board() {
    leave();
    impl_->stop_for_misuse();
    if (!impl_->workplace.keeps_content()) return;
    try {
        save();
    } catch (const std::exception &error) {
        fprintf(stderr, "libqelboard: the board's state is lost: %s\n", error.what());
    }
}

const std::string &Board::name() const {
    const Lock lock(impl_->mutex);
    return impl_->unit.name();  // never changes
}

uint32_t Board::chip_count() const {
    const Lock lock(impl_->mutex);
    return impl_->unit.chip_count();
}

Chip &Board::chip(uint32_t number) {
    const Lock lock(impl_->mutex);
    Chip *found = impl_->unit.chip(number);
    if (found == nullptr) throw std::out_of_range("the board has no chip " + std::to_string(number));
    return *found;
}

Welcome Board::welcome(uint32_t chip) const {
    const Lock lock(impl_->mutex);
    Chip *found = impl_->unit.chip(chip);
    if (found == nullptr) throw std::out_of_range("the board has no chip " + std::to_string(chip));
    return {.chip = chip,
            .time_scale = impl_->unit.time_scale(),
            .ipc_salt = impl_->ipc_salt,
            .run_dir = impl_->workplace.run_dir(),
            .root_dir = found->tree().root_dir(),
            .name = impl_->unit.name()};
}

void Board::enter(const Entry &entry) {
    if (LocalLink::on_a_board()) throw std::logic_error("this process is on a board already");
    const Welcome here = welcome(entry.chip);
    if (!entry.as.empty()) impl_->old_process_name = take_process_name(entry.as);
    join_world(std::make_unique<LocalLink>(*impl_, here, process_name()));
    impl_->entered = impl_->was_entered = true;
}

void Board::leave() {
    if (!impl_->entered) return;
    leave_world();
    impl_->entered = false;
    if (!impl_->old_process_name.empty()) take_process_name(impl_->old_process_name);
    impl_->old_process_name.clear();
}

uint32_t Board::add_client(uint32_t chip, uint32_t pid, const std::string &process_name) {
    const Lock lock(impl_->mutex);
    return impl_->unit.add_client(chip, pid, process_name);
}

void Board::remove_client(uint32_t client) {
    const Lock lock(impl_->mutex);
    impl_->unit.remove_client(client);
}

bool Board::execute(Request &request, Reply &reply, int64_t &deadline_ms) {
    const Lock lock(impl_->mutex);
    return impl_->unit.execute(request, reply, deadline_ms);
}

void Board::withdraw(const Request &request) {
    const Lock lock(impl_->mutex);
    impl_->unit.withdraw(request);
}

void Board::on_change(std::function<void(uint32_t handle)> ready, std::function<void()> changed) {
    const Lock lock(impl_->mutex);
    impl_->on_ready = std::move(ready);
    impl_->on_changed = std::move(changed);
}

int64_t Board::now_ms() const {
    const Lock lock(impl_->mutex);
    return impl_->unit.now_us() / 1000;
}

void Board::add_fault(std::string_view text) {
    const Lock lock(impl_->mutex);
    impl_->unit.add_fault(text);
}

void Board::clear_faults() {
    const Lock lock(impl_->mutex);
    impl_->unit.clear_faults();
}

void Board::trace_to(std::FILE *file) {
    const Lock lock(impl_->mutex);
    impl_->unit.trace_to(file);
}

Answer Board::poke(uint32_t chip, std::string_view node, const std::vector<std::string> &words) {
    const Lock lock(impl_->mutex);
    return impl_->unit.poke(chip, node, words);
}

void Board::report_misuse(const std::string &text) {
    const Lock lock(impl_->mutex);
    impl_->unit.misuse(text);
}

std::vector<std::string> Board::take_misuses() {
    const Lock lock(impl_->mutex);
    return impl_->unit.take_misuses();
}

std::vector<std::string> Board::take_events() {
    const Lock lock(impl_->mutex);
    return impl_->unit.take_events();
}

bool Board::has_power() const {
    const Lock lock(impl_->mutex);
    return impl_->unit.has_power();
}

void Board::power_on() {
    const Lock lock(impl_->mutex);
    if (!impl_->unit.has_power()) impl_->workplace.forget_memory();
    impl_->unit.power_on();
}

void Board::save() {
    const Lock lock(impl_->mutex);
    impl_->unit.save();
}

std::string Board::show(bool json) const {
    const Lock lock(impl_->mutex);
    Report report;
    impl_->unit.show(report);
    return json ? report.as_json() : report.as_text();
}

std::string Board::show_svg() const {
    const Lock lock(impl_->mutex);
    Report report;
    impl_->unit.show(report);
    return draw_svg("Board \"" + impl_->unit.name() + "\"", report);
}

}  // namespace qel::board
