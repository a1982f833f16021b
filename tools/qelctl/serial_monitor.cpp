// What arrives at a port, as it arrives.
#include <cstdio>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>
#include <vector>

#include "tools/qelctl/byte_rows.h"
#include "tools/qelctl/byte_text.h"
#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/live.h"
#include "tools/qelctl/output.h"
#include "tools/qelctl/serial_line.h"
#include "tools/qelctl/serial_verbs.h"

namespace qelctl {

namespace {

struct MonitorChoice {
    LineChoice line;
    RowChoice rows;
    LiveChoice live;
    unsigned gap_ms = 20;
    bool json = false;
};

struct SerialPiece {
    int64_t time_ms = 0;
    std::vector<uint8_t> bytes;
};

// Reads the port on a thread from its making to its end, which comes half a second after it is wanted.
class SerialListener {
public:
    explicit SerialListener(const SerialLine &line) : thread_([this, &line] { listen(line); }) {}
    ~SerialListener() {
        stop();
        thread_.join();
    }
    SerialListener(const SerialListener &) = delete;
    SerialListener &operator=(const SerialListener &) = delete;

    // Nothing more is read; what was can still be taken.
    void stop() { feed_.end(); }
    std::optional<SerialPiece> take(unsigned longest_ms) {
        return feed_.take(std::chrono::milliseconds(longest_ms));
    }
    bool ended() const { return feed_.ended(); }

private:
    void listen(const SerialLine &line) {
        SerialPiece piece;
        while (!feed_.ended() && line.read(piece.bytes)) {
            piece.time_ms = milliseconds_since_1970();
            if (!piece.bytes.empty()) feed_.put(piece);
        }
        feed_.end();
    }

    LiveFeed<SerialPiece> feed_;
    std::thread thread_;
};

// How what comes is printed. A pause ends what it has begun.
class MonitorPrinter {
public:
    explicit MonitorPrinter(const MonitorChoice &choice)
        : choice_(choice), rows_(choice.rows, milliseconds_since_1970()) {}

    void add(const SerialPiece &piece) {
        total_bytes_ += piece.bytes.size();
        if (choice_.json) {
            if (burst_.bytes.empty()) burst_.time_ms = piece.time_ms;
            burst_.bytes.insert(burst_.bytes.end(), piece.bytes.begin(), piece.bytes.end());
            if (burst_.bytes.size() >= kMostBurstBytes) quiet();
        } else if (choice_.rows.form == "raw") {
            print({piece.bytes.begin(), piece.bytes.end()});
        } else {
            print(rows_.add(piece.time_ms, piece.bytes));
        }
    }

    void quiet() {
        if (!choice_.json) {
            print(rows_.rest());
            return;
        }
        if (burst_.bytes.empty()) return;
        nlohmann::ordered_json line;
        line["time_ms"] = burst_.time_ms;
        line["port"] = choice_.line.port;
        line["bytes"] = hex_text(burst_.bytes.data(), burst_.bytes.size());
        line["text"] = visible_text(burst_.bytes.data(), burst_.bytes.size());
        print_json_line(line);
        burst_.bytes.clear();
    }

    uint64_t total_bytes() const { return total_bytes_; }

private:
    static constexpr size_t kMostBurstBytes = 4096;

    const MonitorChoice &choice_;
    ByteRows rows_;
    SerialPiece burst_;
    uint64_t total_bytes_ = 0;
};

void monitor_port(const Library &library, const MonitorChoice &choice) {
    LiveRun run(choice.live);
    MonitorPrinter printer(choice);
    const SerialLine line(library, choice.line);
    SerialListener listener(line);
    say_listening_to(line.description());
    bool line_gone = false;
    int64_t last_ms = 0;
    const auto add = [&](const SerialPiece &piece) {
        if (piece.time_ms - last_ms >= choice.gap_ms) printer.quiet();
        last_ms = piece.time_ms;
        printer.add(piece);
        run.counted(piece.bytes.size());
    };
    while (run.goes_on() && !line_gone) {
        const std::optional<SerialPiece> piece = listener.take(choice.gap_ms);
        line_gone = !piece && listener.ended();
        if (piece) {
            add(*piece);
        } else {
            printer.quiet();
        }
    }
    // What had come by then.
    listener.stop();
    while (!run.has_counted_enough()) {
        const std::optional<SerialPiece> piece = listener.take(0);
        if (!piece) break;
        add(*piece);
    }
    printer.quiet();
    fprintf(stderr, "qelctl: %llu bytes\n", static_cast<unsigned long long>(printer.total_bytes()));
    if (line_gone) line_ended();
}

}  // namespace

void add_serial_monitor(CLI::App &serial, Session &session) {
    CLI::App *verb = serial.add_subcommand("monitor", "Print what arrives at a port, until Ctrl-C");
    const auto choice = std::make_shared<MonitorChoice>();
    choice->line.add_to(*verb);
    CLI::Option *form =
        verb->add_option(
                "--form", choice->rows.form,
                "Rows of 16 bytes in hexadecimal, lines of text with what is no text as \\xHH, or the\n"
                "bytes as they are; hex unless given")
            ->check(CLI::IsMember({"hex", "text", "raw"}));
    CLI::Option *time =
        verb->add_option("--time", choice->rows.time,
                         "In front of each row when its first byte came: by the clock, in seconds since the\n"
                         "start, or not at all; clock unless given")
            ->check(CLI::IsMember({"clock", "since", "none"}));
    verb->add_option("--gap", choice->gap_ms, "A pause of so many milliseconds ends a row; 20 unless given")
        ->type_name("MS")
        ->check(CLI::Range(1U, 10000U).description(""));
    choice->live.add_to(*verb, "bytes");
    verb->add_flag("--json", choice->json,
                   "Print one line of JSON for each group of bytes (described by qelctl.schema.json)")
        ->excludes(form)
        ->excludes(time);
    verb->footer(
        "Examples:\n"
        "  qelctl serial monitor 1\n"
        "  qelctl serial monitor 2 --line 19200-8E1 --mode rs485 --time since\n"
        "  qelctl serial monitor 1 --form raw --for 10 > received");
    verb->callback([&session, choice] { monitor_port(session.library(), *choice); });
}

}  // namespace qelctl
