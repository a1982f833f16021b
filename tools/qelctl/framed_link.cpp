// The length-framed link to a companion controller: commands, replies, and what it says unasked.
#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>
#include <vector>

#include "qel/commlen.h"
#include "tools/qelctl/byte_text.h"
#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/live.h"
#include "tools/qelctl/output.h"
#include "tools/qelctl/verb.h"

namespace qelctl {

namespace {

// A reader gets one frame at the most, and no reader no frame: so some wait while others take theirs away.
constexpr unsigned kReadersPerCode = 4;

struct LinkChoice {
    unsigned command = 0;
    std::string hex;
    bool waits = false;
    std::optional<unsigned> reply;
    std::vector<unsigned> codes;
    LiveChoice live;
    bool json = false;
};

struct LinkFrame {
    int64_t time_ms = 0;
    CommLenMsg message = {};
};

CommLen *open_link(const Library &library) {
    CommLen *link = nullptr;
    if (CALL(library, QEL_commlenCreate)(&link) == 0) return link;
    throw Failure(ExitCode::kFailed,
                  "this board has no length-framed link that can be opened; the library's log says why.");
}

CommLenMsg make_message(unsigned command, const std::vector<uint8_t> &payload) {
    if (payload.size() > QEL_COMMLEN_PAYLOAD_MAX)
        throw Failure(ExitCode::kUsage, "a frame carries at most 253 bytes.");
    CommLenMsg message = {};
    message.command = static_cast<uint8_t>(command);
    message.length = static_cast<uint8_t>(payload.size());
    std::copy(payload.begin(), payload.end(), message.payload);
    return message;
}

nlohmann::ordered_json frame_json(const CommLenMsg &message) {
    const size_t bytes = std::min<size_t>(message.length, QEL_COMMLEN_PAYLOAD_MAX);
    nlohmann::ordered_json document;
    document["command"] = message.command;
    document["payload"] = hex_text(message.payload, bytes);
    document["text"] = visible_text(message.payload, bytes);
    return document;
}

std::string frame_text(const CommLenMsg &message) {
    const size_t bytes = std::min<size_t>(message.length, QEL_COMMLEN_PAYLOAD_MAX);
    std::string text = hex_pairs(&message.command, 1) + ":";
    if (bytes != 0) text += " " + hex_pairs(message.payload, bytes);
    return text + "  |" + dotted_text(message.payload, bytes) + "|\n";
}

void print_frame(const CommLenMsg &message, bool json) {
    if (json) {
        print_json(frame_json(message));
    } else {
        print(frame_text(message));
    }
}

void send_frame(const Library &library, const LinkChoice &choice) {
    const CommLenMsg request = make_message(choice.command, bytes_from_hex(choice.hex));
    CommLen *link = open_link(library);
    if (!choice.waits && !choice.reply) {
        if (CALL(library, QEL_commlenWrite)(link, &request) != 0)
            throw Failure(ExitCode::kFailed, "the frame did not go out; the library's log says why.");
        if (choice.json) print_frame(request, true);
        return;
    }
    CommLenMsg reply = make_message(choice.reply.value_or(choice.command), {});
    if (CALL(library, QEL_commlenExchange)(link, &request, &reply) != 0)
        throw Failure(ExitCode::kFailed, "no good reply came in two seconds; the library's log says more.");
    print_frame(reply, choice.json);
}

void read_frame(const Library &library, const LinkChoice &choice) {
    CommLen *link = open_link(library);
    CommLenMsg message = make_message(choice.command, {});
    if (CALL(library, QEL_commlenRead)(link, &message) != 0)
        throw Failure(ExitCode::kFailed, "no such frame came in two seconds.");
    print_frame(message, choice.json);
}

// Reads frames on threads from its making to its end, which comes two seconds after it is wanted.
class LinkReaders {
public:
    LinkReaders(const Library &library, const std::vector<unsigned> &codes) : library_(library) {
        link_ = open_link(library);
        for (const unsigned code : codes) {
            for (unsigned i = 0; i < kReadersPerCode; ++i)
                threads_.emplace_back([this, code] { read_frames(code); });
        }
    }
    ~LinkReaders() {
        feed_.end();
        for (std::thread &thread : threads_) thread.join();
    }
    LinkReaders(const LinkReaders &) = delete;
    LinkReaders &operator=(const LinkReaders &) = delete;

    std::optional<LinkFrame> take() { return feed_.take(); }

private:
    void read_frames(unsigned code) {
        while (!feed_.ended()) {
            LinkFrame frame;
            frame.message = make_message(code, {});
            if (CALL(library_, QEL_commlenRead)(link_, &frame.message) != 0) continue;
            frame.time_ms = milliseconds_since_1970();
            feed_.put(frame);
        }
    }

    const Library &library_;
    CommLen *link_ = nullptr;
    LiveFeed<LinkFrame> feed_;
    std::vector<std::thread> threads_;
};

void watch_link(Session &session, const LinkChoice &choice) {
    LiveRun run(choice.live);
    LinkReaders readers(session.library(), choice.codes);
    say_listening_to("the link");
    while (run.goes_on()) {
        const std::optional<LinkFrame> frame = readers.take();
        if (!frame) continue;
        if (choice.json) {
            nlohmann::ordered_json line;
            line["time_ms"] = frame->time_ms;
            line.update(frame_json(frame->message));
            print_json_line(line);
        } else {
            print(clock_text(frame->time_ms) + "  " + frame_text(frame->message));
        }
        run.counted();
    }
}

using LinkChoicePtr = std::shared_ptr<LinkChoice>;

CLI::App *add_link_verb(CLI::App &parent, const char *name, const char *description,
                        const LinkChoicePtr &choice, const std::function<void()> &work) {
    CLI::App *verb = parent.add_subcommand(name, description);
    verb->add_flag("--json", choice->json, "Print JSON (described by qelctl.schema.json)");
    verb->callback(work);
    return verb;
}

}  // namespace

void add_framed_link(CLI::App &app, Session &session) {
    CLI::App *verb =
        app.add_subcommand("link", "The length-framed link to the controller of IR-cut and iris");
    verb->require_subcommand(1);
    const auto choice = std::make_shared<LinkChoice>();
    const auto is_code = [] { return CLI::Range(0U, 255U).description(""); };

    CLI::App *send = add_link_verb(*verb, "send", "Send a frame, and wait for a reply if told to", choice,
                                   [&session, choice] { send_frame(session.library(), *choice); });
    send->add_option("command", choice->command, "Command code, 0 to 255 or 0x00 to 0xff")
        ->required()
        ->check(is_code());
    send->add_option("payload", choice->hex, "In hexadecimal; none unless given");
    send->add_flag("--wait", choice->waits, "Wait for the frame with the same code, and print it");
    send->add_option("--reply", choice->reply, "Wait for this code instead")
        ->type_name("CODE")
        ->check(is_code());
    send->footer(
        "Examples:\n"
        "  qelctl link send 2 01\n"
        "  qelctl link send 1 --wait");

    CLI::App *read = add_link_verb(*verb, "read", "Wait two seconds for a frame that nobody asked for",
                                   choice, [&session, choice] { read_frame(session.library(), *choice); });
    read->add_option("command", choice->command, "Command code")->required()->check(is_code());
    read->footer("Examples:\n  qelctl link read 0x20");

    CLI::App *watch = add_link_verb(*verb, "watch", "Print the frames with these codes, until Ctrl-C", choice,
                                    [&session, choice] { watch_link(session, *choice); });
    watch->add_option("codes", choice->codes, "Command codes, at most 16")
        ->required()
        ->expected(1, QEL_COMMLEN_CODES_MAX)
        ->check(is_code());
    choice->live.add_to(*watch, "frames");
    watch->footer("Examples:\n  qelctl link watch 2 3\n  qelctl link watch 0x20 --json --count 1");
    verb->footer(
        "Examples:\n"
        "  qelctl link send 1 --wait\n"
        "  qelctl link watch 2 3");
}

}  // namespace qelctl
