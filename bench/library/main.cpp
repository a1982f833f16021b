// bench-library - what the library costs a process on a board: loading, look-ups, a log call that the
// filter drops, memory. Prints rows as bench/CMakeLists.txt describes; figures vary with the machine,
// the ratios should not.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "bench/library/world.h"
#include "board/core/board.h"
#include "platform/include/osa.h"
#include "qel/product.h"

namespace {

constexpr const char *kLibrary = QEL_LIB_DIR "/libqel.so.1";
constexpr const char *kEmpty = QEL_LIB_DIR "/libbench_empty.so";

void *loaded_library() {
    static void *const handle = [] {
        void *loaded = dlopen(kLibrary, RTLD_NOW);
        if (loaded == nullptr) {
            fprintf(stderr, "%s\n", dlerror());
            exit(1);
        }
        return loaded;
    }();
    return handle;
}

template <typename Function>
Function *exported(const char *name) {
    auto *function = reinterpret_cast<Function *>(dlsym(loaded_library(), name));
    if (function == nullptr) {
        fprintf(stderr, "%s\n", dlerror());
        exit(1);
    }
    return function;
}

void load(benchmark::State &state, const char *path) {
    for (auto _ : state) {
        void *handle = dlopen(path, RTLD_NOW);
        if (handle == nullptr) state.SkipWithError(dlerror());
        state.PauseTiming();
        if (handle != nullptr) dlclose(handle);
        state.ResumeTiming();
    }
}

void load_requests(benchmark::State &state) {
    for (auto _ : state) {
        qel::bench::take_requests();
        void *handle = dlopen(kLibrary, RTLD_NOW);
        const qel::bench::Requests requests = qel::bench::take_requests();
        if (handle == nullptr || requests.count == 0) state.SkipWithError("no requests to the board");
        state.SetIterationTime(requests.seconds);
        if (handle != nullptr) dlclose(handle);
    }
}

void look_up_property(benchmark::State &state) {
    auto *get = exported<decltype(QEL_productGetHwidInfo)>("QEL_productGetHwidInfo");
    for (auto _ : state) benchmark::DoNotOptimize(get(QEL_PROPERTY_BOARD_TYPE));
}

void look_up_channel(benchmark::State &state) {
    auto *get = exported<decltype(QEL_chnMapGetInfo)>("QEL_chnMapGetInfo");
    unsigned char info[QEL_CHANNEL_INFO_BYTES];
    for (auto _ : state) benchmark::DoNotOptimize(get(0, info));
}

void mutex_pair(benchmark::State &state) {
    OSA_MutexHandle mutex = nullptr;
    if (OSA_mutexCreate(&mutex) != 0) state.SkipWithError("no mutex");
    for (auto _ : state) {
        OSA_mutexLock(mutex);
        OSA_mutexUnlock(mutex);
    }
    OSA_mutexDelete(&mutex);
}

void filtered_log(benchmark::State &state) {
    for (auto _ : state) OSA_logWrite(5, 0, "%s %d\n", "filtered", 1);
}

void formatted_line(benchmark::State &state) {
    char line[64];
    for (auto _ : state) {
        snprintf(line, sizeof line, "%s %d\n", "filtered", 1);
        benchmark::DoNotOptimize(line);
    }
}

// Keeps the medians in place of printing them.
class Medians : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            if (run.error_occurred) {
                fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
                failed_ = true;
            }
            if (run.aggregate_name == "median")
                nanoseconds_[run.run_name.function_name] = run.GetAdjustedRealTime();
        }
    }
    bool failed() const { return failed_; }
    double of(const std::string &name) const { return nanoseconds_.at(name); }

private:
    std::map<std::string, double> nanoseconds_;
    bool failed_ = false;
};

void print_row(const Medians &medians, const std::string &what, const std::string &against) {
    const double cost = medians.of(what);
    const double base = medians.of(against);
    const bool small = cost < 1000;
    const double unit = small ? 1 : 1000;
    printf("| %s | %.1f %s | %s | %.1f %s | %.2f |\n", what.c_str(), cost / unit, small ? "ns" : "us",
           against.c_str(), base / unit, small ? "ns" : "us", cost / base);
}

constexpr const char *kLoad = "load of libqel.so on a board";
constexpr const char *kLoadRequests = "its device requests alone";
constexpr const char *kLoadEmpty = "load of an empty library";
constexpr const char *kProperty = "property look-up";
constexpr const char *kChannel = "channel look-up";
constexpr const char *kMutex = "mutex locked and unlocked";
constexpr const char *kFiltered = "log call that is filtered out";
constexpr const char *kFormatted = "its line formatted";

constexpr int kLoads = 200;

// Private bytes (in KiB) that loading `path` adds to a process on a board; -1 if it fails.
long added_private_kib(const std::string &path) {
    const std::string command =
        QEL_BIN_DIR "/qelboard run dome --as vesta -- " QEL_BIN_DIR "/added-memory " + path;
    FILE *output = popen(command.c_str(), "r");
    if (output == nullptr) return -1;
    long kib = -1;
    // What the library prints comes first.
    for (char line[256]; fgets(line, sizeof line, output) != nullptr;) sscanf(line, "added %ld", &kib);
    return pclose(output) == 0 ? kib : -1;
}

void register_all() {
    const auto add = [](const char *name, auto function, auto... arguments) {
        return benchmark::RegisterBenchmark(name, function, arguments...)
            ->Repetitions(7)
            ->ReportAggregatesOnly(true);
    };
    add(kLoad, load, kLibrary)->Iterations(kLoads);
    add(kLoadRequests, load_requests)->UseManualTime()->Iterations(kLoads);
    add(kLoadEmpty, load, kEmpty)->Iterations(kLoads);
    add(kProperty, look_up_property);
    add(kChannel, look_up_channel);
    add(kMutex, mutex_pair);
    add(kFiltered, filtered_log);
    add(kFormatted, formatted_line);
}

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    const long added_kib = added_private_kib(kLibrary);
    const long empty_kib = added_private_kib(kEmpty);
    qel::board::Board board(qel::board::find_board("dome"));
    board.enter({.chip = 0, .as = "vesta"});

    register_all();
    Medians medians;
    benchmark::RunSpecifiedBenchmarks(&medians);
    if (medians.failed() || added_kib < 0 || empty_kib <= 0) return 1;

    print_row(medians, kLoad, kLoadRequests);
    print_row(medians, kLoad, kLoadEmpty);
    print_row(medians, kProperty, kMutex);
    print_row(medians, kChannel, kMutex);
    print_row(medians, kFiltered, kFormatted);
    printf("| private memory of a process that loads it | %ld KiB | an empty library | %ld KiB | %.1f |\n",
           added_kib, empty_kib, static_cast<double>(added_kib) / static_cast<double>(empty_kib));
    return 0;
}
