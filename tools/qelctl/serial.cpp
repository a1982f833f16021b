// Serial ports: which there are, and sending to one.
#include "qel/serial.h"

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "tools/qelctl/byte_rows.h"
#include "tools/qelctl/byte_text.h"
#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/host_file.h"
#include "tools/qelctl/interrupt.h"
#include "tools/qelctl/live.h"
#include "tools/qelctl/output.h"
#include "tools/qelctl/serial_line.h"
#include "tools/qelctl/serial_verbs.h"
#include "tools/qelctl/table.h"
#include "tools/qelctl/verb.h"

namespace qelctl {

namespace {

using nlohmann::ordered_json;

constexpr uint64_t kMostSentBytes = 16 << 20;
constexpr unsigned kLongestWait_ms = 60 * 60 * 1000;

// ---- list ----

// What a port is wired as. The map says it of most; products have exceptions, which the port knows.
std::string line_type_name(const Library &library, const ComMapItem &item) {
    const CommPortDesc desc = {item.port};
    CommPort *port = nullptr;
    if (CALL(library, createCommPort)(&desc, &port) != 0) return "not there";
    ComCaps caps{};
    const bool known = port->getcaps(port, &caps) == 0;
    port->release(port);
    if (!known) return "unknown";
    if (caps.lineType == QEL_COM_LINE_RS485) return "RS-485";
    return caps.lineType == QEL_COM_LINE_SWITCHABLE ? "switchable" : "RS-232";
}

// How a port that can be switched over stands now.
std::optional<std::string> line_mode(const Library &library, const ComMapItem &item) {
    uint32_t rs485 = 0;
    if (item.statusLine == QEL_COM_NO_LINE) return std::nullopt;
    if (CALL(library, QEL_Get485Status)(item.port, &rs485) != 0) return std::nullopt;
    return rs485 != 0 ? "RS-485" : "RS-232";
}

ordered_json number_or_null(bool there, uint32_t number) {
    return there ? ordered_json(number) : ordered_json();
}

std::string number_or_dash(bool there, uint32_t number) { return there ? std::to_string(number) : "-"; }

void list_ports(const Library &library, bool json) {
    ordered_json list = ordered_json::array();
    Table table({"port", "kind", "usage", "line", "now", "direction", "status", "given tty"});
    for (const ComMapItem &item : read_port_map(library)) {
        const std::string type = line_type_name(library, item);
        const std::optional<std::string> mode = line_mode(library, item);
        const bool has_direction = item.directionLine != QEL_COM_NO_LINE;
        const bool has_status = item.statusLine != QEL_COM_NO_LINE;
        ordered_json entry;
        entry["port"] = item.port;
        entry["kind"] = item.kind;
        entry["kind_name"] = port_kind_name(item.kind);
        entry["usage"] = item.usage;
        entry["line"] = type;
        entry["mode"] = mode ? ordered_json(*mode) : ordered_json();
        entry["direction_line"] = number_or_null(has_direction, item.directionLine);
        entry["status_line"] = number_or_null(has_status, item.statusLine);
        entry["given_tty"] = number_or_null(item.ttyGiven == 1, item.ttyNumber);
        list.push_back(entry);
        table.add({std::to_string(item.port), port_kind_name(item.kind), std::to_string(item.usage), type,
                   mode.value_or("-"), number_or_dash(has_direction, item.directionLine),
                   number_or_dash(has_status, item.statusLine),
                   number_or_dash(item.ttyGiven == 1, item.ttyNumber)});
    }
    const int there = CALL(library, getCommPortCount)();
    if (json) {
        ordered_json document;
        document["ports_there"] = there;
        document["ports"] = list;
        print_json(document);
    } else {
        print(list.empty() ? "no ports\n" : table.text(wants_colour()));
    }
}

// ---- send ----

struct SendChoice {
    LineChoice line;
    RowChoice rows;
    std::string text;
    std::string hex;
    std::string file;
    unsigned wait_ms = 0;
    bool json = false;
};

std::vector<uint8_t> bytes_to_send(const SendChoice &choice) {
    if (!choice.file.empty()) return read_host_file(choice.file, kMostSentBytes);
    std::vector<uint8_t> bytes = bytes_from_text(choice.text);
    const std::vector<uint8_t> more = bytes_from_hex(choice.hex);
    bytes.insert(bytes.end(), more.begin(), more.end());
    return bytes;
}

// What comes until the line has been quiet for a read, at the longest for the time that was asked for.
std::vector<uint8_t> hear_answer(const SerialLine &line, unsigned wait_ms) {
    const int64_t end_ms = milliseconds_since_1970() + wait_ms;
    std::vector<uint8_t> answer;
    std::vector<uint8_t> piece;
    do {
        line.read_or_fail(piece);
        answer.insert(answer.end(), piece.begin(), piece.end());
    } while (milliseconds_since_1970() < end_ms && (answer.empty() || !piece.empty()) &&
             !Interrupt::happened());
    return answer;
}

void send_to_port(const Library &library, const SendChoice &choice) {
    const std::vector<uint8_t> bytes = bytes_to_send(choice);
    if (bytes.empty()) throw Failure(ExitCode::kUsage, "what shall be sent? Give TEXT, --hex or --file.");
    const Interrupt interrupt;
    const SerialLine line(library, choice.line);
    if (choice.wait_ms != 0) line.discard_input();
    line.write_all(bytes);
    std::vector<uint8_t> answer;
    if (choice.wait_ms != 0) answer = hear_answer(line, choice.wait_ms);
    if (choice.json) {
        ordered_json document;
        document["port"] = line.number();
        document["sent_bytes"] = bytes.size();
        const bool waited = choice.wait_ms != 0;
        document["answer"] = waited ? ordered_json(hex_text(answer.data(), answer.size())) : ordered_json();
        document["answer_text"] =
            waited ? ordered_json(visible_text(answer.data(), answer.size())) : ordered_json();
        print_json(document);
    } else {
        ByteRows rows(choice.rows, milliseconds_since_1970());
        std::string text = rows.add(0, answer);
        text += rows.rest();
        print(text);
    }
    if (Interrupt::happened())
        throw Failure(ExitCode::kInterrupted, "all was sent, then a signal ended the wait for an answer.");
    if (choice.wait_ms != 0 && answer.empty()) throw Failure(ExitCode::kFailed, "no answer came.");
}

void add_serial_send(CLI::App &serial, Session &session) {
    CLI::App *verb = serial.add_subcommand("send", "Write to a port, and print what answers");
    const auto choice = std::make_shared<SendChoice>();
    choice->rows.time = "none";
    choice->line.add_to(*verb);
    CLI::Option *text =
        verb->add_option("text", choice->text, "Characters; \\r \\n \\t \\0 \\e \\\\ and \\xHH are bytes");
    CLI::Option *hex =
        verb->add_option("--hex", choice->hex, "Bytes in hexadecimal, behind the text")->type_name("BYTES");
    verb->add_option("--file", choice->file, "Send this file instead; - is standard input")
        ->type_name("FILE")
        ->excludes(text)
        ->excludes(hex);
    verb->add_option("--wait", choice->wait_ms,
                     "Wait so many milliseconds for an answer; half a second without a byte ends it")
        ->type_name("MS")
        ->check(CLI::Range(1U, kLongestWait_ms).description(""));
    CLI::Option *form =
        verb->add_option("--form", choice->rows.form, "How to print the answer; hex unless given")
            ->check(CLI::IsMember({"hex", "text"}));
    verb->add_flag("--json", choice->json, "Print JSON (described by qelctl.schema.json)")->excludes(form);
    verb->footer(
        "Examples:\n"
        "  qelctl serial send 1 'hello\\r\\n'\n"
        "  qelctl serial send 2 --hex 'ff 01 00 08 00 20 29' --line 2400-8N1\n"
        "  qelctl serial send 2 --hex 01020304 --wait 1000\n"
        "  qelctl serial send 2 --wait 1000 -- '-v\\r'");
    verb->callback([&session, choice] { send_to_port(session.library(), *choice); });
}

}  // namespace

void add_serial(CLI::App &app, Session &session) {
    CLI::App *verb = app.add_subcommand("serial", "Serial ports: list, write, watch");
    verb->require_subcommand(1);
    CLI::App *list = verb->add_subcommand("list", "List the ports and what is behind them");
    const auto json = std::make_shared<bool>(false);
    list->add_flag("--json", *json, "Print JSON (described by qelctl.schema.json)");
    list->footer("Examples:\n  qelctl serial list");
    list->callback([&session, json] { list_ports(session.library(), *json); });
    add_serial_send(*verb, session);
    add_serial_monitor(*verb, session);
    add_serial_bridge(*verb, session);
    add_serial_loopback_test(*verb, session);
    verb->footer(
        "Examples:\n"
        "  qelctl serial list\n"
        "  qelctl serial monitor 1 --line 115200-8N1");
}

}  // namespace qelctl
