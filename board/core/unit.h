// unit.h - everything of a board that its lock guards: chips, processes, open devices, faults.
//
// Not thread-safe; Board holds the lock.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "board/core/chip.h"
#include "board/core/fault.h"
#include "board/core/request.h"

namespace qel::board {

class Unit final : public ChipHost {
public:
    // Builds the chips below `dir` and loads what they kept there.
    Unit(const Description &description, const std::string &dir, uint32_t time_scale);

    const std::string &name() const { return name_; }
    const std::string &summary() const { return summary_; }
    uint32_t time_scale() const override { return time_scale_; }

    uint32_t add_client(uint32_t chip, uint32_t pid, const std::string &process);
    void rename_client(uint32_t client, uint32_t pid);
    void remove_client(uint32_t client);
    bool execute(Request &request, Reply &reply, int64_t &deadline_ms);
    void withdraw(const Request &request);
    // Whether a readiness token lies on the descriptors of this handle.
    bool has_token(uint32_t handle) const;

    void add_fault(std::string_view text) { faults_.push_back(parse_fault(text)); }
    void clear_faults() { faults_.clear(); }
    void trace_to(std::FILE *file) { trace_ = file; }
    Answer poke(uint32_t number, std::string_view node, const std::vector<std::string> &words);
    std::vector<std::string> take_misuses();
    std::vector<std::string> take_events();
    bool has_power() const { return !powerless_; }
    void power_on();
    void save() const;
    void show(Report &report) const;

    // Who is told of changes; see Board::on_change.
    std::function<void(uint32_t handle)> on_ready;
    std::function<void()> on_changed;
    // Who calls run_runners is told that there is something to do.
    std::function<void()> on_work;

    // ChipHost
    uint32_t chip_count() const override { return chip_count_; }
    Chip *chip(uint32_t number) override;
    int64_t now_us() const override;
    void changed() override;
    void misuse(const std::string &text) override;
    void event(const std::string &text) override;
    size_t medium_write(const Node &node, size_t bytes) override;
    bool has_faults() const override { return !faults_.empty(); }
    LineFault line_fault(uint32_t chip, const std::string &line, bool to_host) override;
    void trace_line(uint32_t chip, const std::string &line, bool to_host, Bytes bytes) override;
    void add_runner(Runner &runner) override { runners_.push_back(&runner); }
    void wake_runners() override {
        if (on_work) on_work();
    }

    // Lets every runner do what is due; answers what they wait for next (see runner.h).
    RunnerWaits run_runners();

private:
    struct Client {
        uint32_t chip;
        uint32_t pid;
        std::string process;
    };
    struct Open {
        Handle handle;
        Chip *chip;
        Node *node;
        bool token = false;
    };
    // What a request is about.
    struct Target {
        Chip *chip = nullptr;
        Node *node = nullptr;               // nullptr: a file, or nothing
        Open *open = nullptr;               // of requests on a handle
        std::string path;                   // of requests on a path: normal
        const RequestSpec *spec = nullptr;  // of an ioctl that the device's class knows
        const char *request_name = "";      // of such an ioctl, or of a terminal call
    };

    int find_target(const Request &request, Target &target);
    std::string_view path_of(const Target &target) const;
    void arrive(Request &request, const Target &target);
    bool run(Request &request, Reply &reply, const Target &target, int64_t &deadline_ms);
    bool run_on_device(Request &request, Reply &reply, Open &open, int64_t &deadline_ms);
    Answer ask_device(const Request &request, Open &open);
    void open_path(const Request &request, Reply &reply, const Target &target);
    void do_path(const Request &request, Reply &reply, const Target &target);
    void map_to_host(const Request &request, Reply &reply, const Target &target);
    void map_new_name(const Request &request, Reply &reply, const Target &target);
    void list_nodes(Reply &reply, const Target &target) const;
    void ask_machine(const Request &request, Reply &reply, const Target &target);
    void close_handle(uint32_t handle);
    void finish(const Request &request, Reply &reply, const Target &target);
    void cut_power();
    void load_device(Chip &chip, Node &node) const;
    std::string state_file(const Chip &chip, const Node &node) const;
    void put_trace(const std::string &line) const;
    void trace(const Request &request, const Reply &reply, const Target &target) const;

    std::string name_;
    std::string summary_;
    std::string dir_;
    uint32_t time_scale_;
    uint32_t chip_count_ = 0;  // known before the chips are built
    std::vector<std::unique_ptr<Chip>> chips_;
    std::unordered_map<uint32_t, Client> clients_;
    std::unordered_map<uint32_t, Open> opens_;
    uint32_t next_client_ = 1;
    uint32_t next_handle_ = 1;
    std::vector<Fault> faults_;
    std::FILE *trace_ = nullptr;
    std::vector<std::string> misuses_;
    std::vector<std::string> events_;
    std::vector<Runner *> runners_;
    bool cutting_ = false;  // the request now served ends with a power cut
    bool powerless_ = false;
};

}  // namespace qel::board
