// log.cpp - lines to the standard error stream, filtered by OSA_LOG.
//
// A call that is filtered out costs a load and a comparison. A line is written with one write(), so
// that lines of several threads and processes do not mix.
#include "platform/osa/log.h"

#include <pthread.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/include/osa.h"

namespace qel::osa {
namespace {

enum Level { kError = 0, kWarning = 1, kInformation = 2, kVerbose = 5 };

// What the user of a command wants to see without asking: what went wrong.
constexpr int kDefaultLevel = kWarning;
constexpr int kEverything = INT_MAX;
constexpr size_t kStackLineBytes = 1024;

// Until the settings are read and while a sink is set every call looks closer.
std::atomic<int> shown_up_to{kEverything};
std::atomic<int> chosen_level{kDefaultLevel};
std::atomic<bool> coloured{false};
std::atomic<bool> line_open{false};  // the last text shown had no line end

struct Sink {
    OSA_LogSink call;
    void *context;
};
// Held shared while a sink runs, so that nobody is inside once OSA_logSetSink has returned.
pthread_rwlock_t sink_lock = PTHREAD_RWLOCK_INITIALIZER;
Sink sink{};
thread_local bool inside_sink = false;

struct NamedLevel {
    const char *name;
    int level;
};
constexpr NamedLevel kLevelNames[] = {
    {"error", kError}, {"warn", kWarning}, {"info", kInformation}, {"debug", kVerbose}};

void write_all(const char *text, size_t bytes) {
    while (bytes > 0) {
        const ssize_t put = write(STDERR_FILENO, text, bytes);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return;  // nobody left to tell
        text += put;
        bytes -= static_cast<size_t>(put);
    }
}

int level_from(const char *wanted) {
    if (wanted == nullptr || wanted[0] == '\0') return kDefaultLevel;
    for (const NamedLevel &known : kLevelNames) {
        if (strcmp(wanted, known.name) == 0) return known.level;
    }
    char text[160];
    snprintf(text, sizeof text,
             "OSA_LOG=%.40s is unknown; use error, warn, info or debug. Showing warnings.\n", wanted);
    write_all(text, strlen(text));
    return kDefaultLevel;
}

bool wants_colour() {
    const char *const refused = getenv("NO_COLOR");
    const char *const terminal = getenv("TERM");
    return (refused == nullptr || refused[0] == '\0') && isatty(STDERR_FILENO) == 1 &&
           (terminal == nullptr || strcmp(terminal, "dumb") != 0);
}

void apply_settings() {
    coloured.store(wants_colour(), std::memory_order_relaxed);
    chosen_level.store(level_from(getenv("OSA_LOG")), std::memory_order_relaxed);
    pthread_rwlock_rdlock(&sink_lock);
    if (sink.call == nullptr) shown_up_to.store(chosen_level.load(std::memory_order_relaxed));
    pthread_rwlock_unlock(&sink_lock);
}

// The level decides; the attribute only lifts a module's own information out of the rest.
const char *colour_of(int level, int attribute) {
    constexpr int kOrdinaryInformation = 2;
    switch (level) {
        case kError:
            return "\033[31m";
        case kWarning:
            return "\033[33m";
        case kInformation:
            return attribute == kOrdinaryInformation ? "" : "\033[36m";
        default:
            return "\033[2m";
    }
}

// Errors, warnings and information stand on lines of their own, whatever line ends they carry.
// Verbose dumps may come in pieces and stay as they are.
void show(int level, int attribute, const char *text, size_t bytes) {
    const bool whole_line = level < kVerbose;
    if (whole_line) {
        while (bytes > 0 && (text[bytes - 1] == '\n' || text[bytes - 1] == '\r')) --bytes;
    }
    const char *const colour = coloured.load(std::memory_order_relaxed) ? colour_of(level, attribute) : "";
    const bool ends_line = whole_line || (bytes > 0 && text[bytes - 1] == '\n');
    const bool finish_other = line_open.exchange(!ends_line, std::memory_order_relaxed) && whole_line;
    char line[kStackLineBytes + 32];
    const int length =
        snprintf(line, sizeof line, "%s%s%.*s%s%s", finish_other ? "\n" : "", colour, static_cast<int>(bytes),
                 text, colour[0] != '\0' ? "\033[0m" : "", whole_line ? "\n" : "");
    if (length >= 0 && static_cast<size_t>(length) < sizeof line) {
        write_all(line, static_cast<size_t>(length));
        return;
    }
    write_all(text, bytes);
    if (whole_line) write_all("\n", 1);
}

// True when a sink took the line.
bool give_to_sink(int level, int attribute, const char *text) {
    if (inside_sink) return false;
    pthread_rwlock_rdlock(&sink_lock);
    const Sink to = sink;
    if (to.call != nullptr) {
        inside_sink = true;
        to.call(to.context, level, attribute, text);
        inside_sink = false;
    }
    pthread_rwlock_unlock(&sink_lock);
    return to.call != nullptr;
}

void deliver(int level, int attribute, const char *text, size_t bytes) {
    if (give_to_sink(level, attribute, text)) return;
    read_log_settings();
    if (level <= chosen_level.load(std::memory_order_relaxed)) show(level, attribute, text, bytes);
}

// Apart from the entry, which stays as small as a filtered-out call deserves.
[[gnu::noinline, gnu::cold, gnu::format(printf, 3, 0)]] int format_and_deliver(int level, int attribute,
                                                                               const char *format,
                                                                               va_list arguments) {
    if (format == nullptr) return OSA_EFAIL;
    const int saved_errno = errno;  // callers report it after they have logged
    char text[kStackLineBytes];
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(text, sizeof text, format, arguments);
    char *longer = nullptr;
    if (length >= static_cast<int>(sizeof text)) {
        longer = static_cast<char *>(malloc(static_cast<size_t>(length) + 1));
        if (longer != nullptr) vsnprintf(longer, static_cast<size_t>(length) + 1, format, again);
    }
    va_end(again);
    if (length < 0) return OSA_EFAIL;
    const char *const whole = longer != nullptr ? longer : text;
    deliver(level, attribute, whole, strlen(whole));
    free(longer);
    errno = saved_errno;
    return 0;
}

}  // namespace

void read_log_settings() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, apply_settings);
}

}  // namespace qel::osa

extern "C" {

int OSA_logWrite(int level, int attribute, const char *format, ...) {
    if (level > qel::osa::shown_up_to.load(std::memory_order_relaxed)) return 0;
    va_list arguments;
    va_start(arguments, format);
    const int status = qel::osa::format_and_deliver(level, attribute, format, arguments);
    va_end(arguments);
    return status;
}

void OSA_logSetSink(OSA_LogSink new_sink, void *context) {
    using namespace qel::osa;
    read_log_settings();
    pthread_rwlock_wrlock(&sink_lock);
    sink = {new_sink, context};
    shown_up_to.store(new_sink != nullptr ? kEverything : chosen_level.load(std::memory_order_relaxed));
    pthread_rwlock_unlock(&sink_lock);
}

}  // extern "C"
