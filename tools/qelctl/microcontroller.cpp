// The board's microcontroller: front panel, clock, power outputs, card readers, keys.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>
#include <vector>

#include "qel/mcu.h"
#include "qel/product.h"
#include "tools/qelctl/byte_text.h"
#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/live.h"
#include "tools/qelctl/output.h"
#include "tools/qelctl/table.h"
#include "tools/qelctl/verb.h"

namespace qelctl {

namespace {

using nlohmann::ordered_json;

constexpr int kCardReaderCategory = 3;
constexpr unsigned kPowerOutputs = 32;
constexpr unsigned kVersionModules = 256;

struct McuChoice {
    unsigned module = 0;
    std::string text;
    std::string moment = "now";
    std::optional<unsigned> output;
    std::string state;
    std::string hex;
    unsigned reader = 0;
    LiveChoice live;
    bool json = false;
};

[[noreturn]] void mcu_says_no(const char *what) {
    throw Failure(ExitCode::kFailed,
                  std::string("the microcontroller ") + what + "; the library's log says why.");
}

// The device object, and the driver's handle for what the object has no operation for.
class Microcontroller {
public:
    explicit Microcontroller(const Library &library) : library_(library) {
        if (CALL(library, QEL_productGetCfgNum)() > 0 &&
            CALL(library, QEL_productGetHwidInfoByChip)(0, QEL_PROPERTY_CATEGORY) == kCardReaderCategory) {
            throw Failure(ExitCode::kFailed,
                          "this board's microcontroller is a card reader on a USB adapter, which only takes\n"
                          "and gives bytes: use `qelctl serial` on its port.");
        }
        const uint32_t id = 0;
        if (CALL(library, createMcuDevice)(&id, &device_) != 0) mcu_says_no("cannot be opened");
        if (CALL(library, QEL_mcuCreate)(&handle_) != 0) {
            device_->release(device_);
            mcu_says_no("cannot be opened");
        }
    }
    ~Microcontroller() {
        CALL(library_, QEL_mcuDelete)(handle_);
        device_->release(device_);
    }
    Microcontroller(const Microcontroller &) = delete;
    Microcontroller &operator=(const Microcontroller &) = delete;

    MCU_Device *device() const { return device_; }

    void send(uint32_t type, const void *data, size_t bytes, uint32_t extra, const char *failure) const {
        const McuSendData record = {type, data, static_cast<uint32_t>(bytes), extra};
        if (device_->send(device_, &record) != 0) mcu_says_no(failure);
    }
    // How many bytes it filled in.
    uint32_t receive(uint32_t type, void *data, size_t bytes, const char *failure) const {
        McuRecvData record = {type, data, static_cast<uint32_t>(bytes)};
        if (device_->recvData(device_, &record) != 0 || record.len > bytes) mcu_says_no(failure);
        return record.len;
    }
    uint32_t word(uint32_t command, const char *failure) const {
        uint32_t value = 0;
        if (CALL(library_, QEL_McuGetInfo)(handle_, command, &value) < 0) mcu_says_no(failure);
        return value;
    }
    bool network_link() const {
        uint32_t up = 0;
        if (CALL(library_, QEL_mcuGetNetLinkState)(handle_, &up) < 0)
            mcu_says_no("does not tell its network link");
        return up != 0;
    }

private:
    const Library &library_;
    MCU_Device *device_ = nullptr;
    McuHandle handle_ = nullptr;
};

std::string mcu_line(const char *name, const std::string &value) {
    return named_value(name, 22, value, wants_colour());
}

// Keys and outputs come as words of one bit each.
std::vector<unsigned> numbers_of_bits(uint32_t word) {
    std::vector<unsigned> numbers;
    for (unsigned bit = 0; bit < 32; ++bit) {
        if ((word >> bit & 1) != 0) numbers.push_back(bit);
    }
    return numbers;
}

std::string numbers_text(const std::vector<unsigned> &numbers) {
    std::string text;
    for (const unsigned number : numbers) text += (text.empty() ? "" : " ") + std::to_string(number);
    return text.empty() ? "none" : text;
}

// ---- version, display, clock ----

void show_mcu_version(const Microcontroller &mcu, const McuChoice &choice) {
    char version[QEL_MCU_VERSION_BUFFER_BYTES] = {};
    version[QEL_MCU_VERSION_SELECTOR] = static_cast<char>(choice.module);
    if (mcu.device()->getVersion(mcu.device(), version) != 0) mcu_says_no("has no version of that module");
    const std::string text(version, strnlen(version, sizeof version));
    if (!choice.json) {
        print(printable(text) + "\n");
        return;
    }
    ordered_json document;
    document["module"] = choice.module;
    document["version"] = text;
    print_json(document);
}

void write_to_display(const Microcontroller &mcu, const McuChoice &choice) {
    const std::vector<uint8_t> bytes = bytes_from_text(choice.text);
    if (bytes.empty()) throw Failure(ExitCode::kUsage, "an empty text does not change the display.");
    if (bytes.size() > QEC_MCU_LCD_BYTES_MAX)
        throw Failure(ExitCode::kUsage, "the display takes at most 1024 bytes.");
    mcu.send(QEL_MCU_SEND_LCD, bytes.data(), bytes.size(), 0, "does not show the text");
    if (!choice.json) return;
    ordered_json document;
    document["lcd"] = choice.text;
    print_json(document);
}

struct tm moment_to_set(const std::string &text) {
    struct tm parts = {};
    if (text == "now") {
        const time_t now = time(nullptr);
        localtime_r(&now, &parts);
        return parts;
    }
    const char *end = strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
    struct tm same = parts;
    timegm(&same);  // moves a day that there is not into the next month
    if (end == nullptr || *end != '\0' || same.tm_mday != parts.tm_mday)
        throw Failure(ExitCode::kUsage, "a time is now, or as in \"2026-03-01 12:30:00\", not " + text + ".");
    return parts;
}

void set_mcu_time(const Microcontroller &mcu, const McuChoice &choice) {
    const struct tm parts = moment_to_set(choice.moment);
    const auto number = [](int value) { return static_cast<uint32_t>(value); };
    const struct qec_mcu_time record = {
        number(parts.tm_year + 1900), number(parts.tm_mon + 1), number(parts.tm_mday), number(parts.tm_wday),
        number(parts.tm_hour),        number(parts.tm_min),     number(parts.tm_sec)};
    mcu.send(QEL_MCU_SEND_TIME, &record, sizeof record, 0, "does not take the time");
    if (!choice.json) return;
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    ordered_json document;
    document["time"] = text;
    print_json(document);
}

// ---- power ----

struct qec_mcu_power_state power_state(const Microcontroller &mcu, uint32_t selector) {
    struct qec_mcu_power_state state = {};
    state.selector = selector;
    mcu.receive(QEL_MCU_RECV_POWER, &state, sizeof state, "does not tell its power");
    return state;
}

void show_or_switch_power(const Microcontroller &mcu, const McuChoice &choice) {
    if (choice.output) {
        const struct qec_mcu_power_switch record = {*choice.output, choice.state == "on" ? 1U : 0U};
        mcu.send(QEL_MCU_SEND_POWER, &record, sizeof record, 0, "does not switch that output");
    }
    const std::vector<unsigned> on = numbers_of_bits(power_state(mcu, 0).words[0]);
    const struct qec_mcu_power_state supply = power_state(mcu, 1);
    const struct qec_mcu_power_state battery = power_state(mcu, 2);
    if (choice.json) {
        ordered_json document;
        document["outputs_on"] = on;
        document["supply_mv"] = supply.words[0];
        document["supply_ma"] = supply.words[1];
        document["battery_mv"] = battery.words[0];
        document["battery_percent"] = battery.words[1];
        document["battery_charging"] = battery.words[2] != 0;
        print_json(document);
        return;
    }
    print(mcu_line("outputs on", numbers_text(on)) +
          mcu_line("supply",
                   std::to_string(supply.words[0]) + " mV, " + std::to_string(supply.words[1]) + " mA") +
          mcu_line("battery", std::to_string(battery.words[0]) + " mV, " + std::to_string(battery.words[1]) +
                                  " %" + (battery.words[2] != 0 ? ", charging" : "")));
}

// ---- card readers, keys, state ----

void talk_to_card_reader(const Microcontroller &mcu, const McuChoice &choice) {
    const std::vector<uint8_t> bytes = bytes_from_hex(choice.hex);
    if (bytes.size() > QEC_MCU_RFID_BYTES_MAX)
        throw Failure(ExitCode::kUsage, "a card reader takes at most 256 bytes.");
    if (!bytes.empty())
        mcu.send(QEL_MCU_SEND_RFID, bytes.data(), bytes.size(), choice.reader, "does not pass that on");
    std::vector<uint8_t> waiting(QEC_MCU_RFID_BYTES_MAX);
    waiting.resize(mcu.receive(QEL_MCU_RECV_RFID, waiting.data(), waiting.size(), "cannot read the reader"));
    if (!choice.json) {
        print(waiting.empty() ? "nothing waits\n" : hex_pairs(waiting.data(), waiting.size()) + "\n");
        return;
    }
    ordered_json document;
    document["sent_bytes"] = bytes.size();
    document["received"] = hex_text(waiting.data(), waiting.size());
    print_json(document);
}

void show_keys(const Microcontroller &mcu, const McuChoice &choice) {
    const std::vector<unsigned> pressed =
        numbers_of_bits(mcu.word(QEL_MCU_CMD_KEY_STATE, "does not tell its keys"));
    uint8_t last = 0;
    mcu.receive(QEL_MCU_RECV_KEY, &last, sizeof last, "does not tell its last key");
    if (choice.json) {
        ordered_json document;
        document["pressed"] = pressed;
        document["last"] = last == 0 ? ordered_json() : ordered_json(last);
        print_json(document);
        return;
    }
    print(mcu_line("pressed", numbers_text(pressed)) +
          mcu_line("last", last == 0 ? "none" : std::to_string(last)));
}

void show_mcu_state(const Microcontroller &mcu, const McuChoice &choice) {
    int present = 0;
    McuCaps caps{};
    if (mcu.device()->getState(mcu.device(), &present) != 0) mcu_says_no("does not tell its state");
    if (mcu.device()->getcaps(mcu.device(), &caps) != 0) mcu_says_no("does not tell what it can do");
    const bool panel = mcu.word(QEL_MCU_CMD_FACEBOARD_STATE, "does not tell of its front panel") == 1;
    const bool address_key = mcu.word(QEL_MCU_CMD_REST_IP, "does not tell of its address button") == 1;
    const bool link = mcu.network_link();
    if (choice.json) {
        ordered_json document;
        document["present"] = present == 1;
        document["caps_word"] = caps.words[1];
        document["front_panel"] = panel;
        document["network_link"] = link;
        document["address_button"] = address_key;
        print_json(document);
        return;
    }
    print(mcu_line("present", present == 1 ? "yes" : "no") +
          mcu_line("capability word", std::to_string(caps.words[1])) +
          mcu_line("front panel", panel ? "there" : "not there") +
          mcu_line("network link", link ? "up" : "down") +
          mcu_line("address button", address_key ? "held at the start" : "not held"));
}

// ---- events ----

struct McuHappening {
    int64_t time_ms = 0;
    struct qec_mcu_event event = {};
};

uint32_t event_word(const struct qec_mcu_event &event, size_t at) {
    uint32_t word = 0;
    memcpy(&word, event.data + at, sizeof word);
    return word;
}

// What kind of event it is and what its record says; as bytes where it is none that is known.
ordered_json event_json(const McuHappening &happening) {
    const struct qec_mcu_event &event = happening.event;
    const size_t bytes = std::min<size_t>(event.bytes, sizeof event.data);
    ordered_json line;
    line["time_ms"] = happening.time_ms;
    if (event.type == QEC_MCU_EVENT_KEY && bytes >= 2) {
        line["event"] = "key";
        line["number"] = event.data[0];
        line["on"] = event.data[1] != 0;
    } else if (event.type == QEC_MCU_EVENT_POWER && bytes >= 8) {
        line["event"] = "power";
        line["number"] = event_word(event, 0);
        line["on"] = event_word(event, 4) != 0;
    } else if (event.type == QEC_MCU_EVENT_ALARM && bytes >= 4) {
        line["event"] = "alarm";
        line["number"] = event_word(event, 0);
    } else if (event.type == QEC_MCU_EVENT_CARD) {
        const char *text = reinterpret_cast<const char *>(event.data);
        line["event"] = "card";
        line["card"] = std::string(text, strnlen(text, bytes));
    } else {
        line["event"] = "other";
        line["number"] = event.type;
        line["bytes"] = hex_text(event.data, bytes);
    }
    return line;
}

std::string event_text(const McuHappening &happening) {
    const ordered_json line = event_json(happening);
    std::string text = clock_text(happening.time_ms) + "  " + line["event"].get<std::string>();
    if (line.contains("number")) text += " " + std::to_string(line["number"].get<uint32_t>());
    if (line.contains("card")) text += " " + printable(line["card"].get<std::string>());
    if (line.contains("on")) text += line["on"].get<bool>() ? " on" : " off";
    if (line.contains("bytes")) text += " " + line["bytes"].get<std::string>();
    return text + "\n";
}

// A thread waits for events, which has no end: QEL_McuCloseThr would end it for the board's application,
// too. The process ends with the thread still in there, so without unloading the library under it.
void watch_mcu(Session &session, const McuChoice &choice) {
    LiveRun run(choice.live);
    const auto feed = std::make_shared<LiveFeed<McuHappening>>();
    const auto mcu = std::make_shared<Microcontroller>(session.library());
    on_exit([](int code, void *) { _exit(code); }, nullptr);
    std::thread([feed, mcu] {
        McuHappening next;
        while (mcu->device()->recv(mcu->device(), &next.event) == 0) {
            next.time_ms = milliseconds_since_1970();
            feed->put(next);
        }
        feed->end();
    }).detach();
    say_listening_to("the microcontroller");
    while (run.goes_on()) {
        const std::optional<McuHappening> happening = feed->take();
        if (!happening && feed->ended()) mcu_says_no("tells no more events");
        if (!happening) continue;
        if (choice.json) {
            print_json_line(event_json(*happening));
        } else {
            print(event_text(*happening));
        }
        run.counted();
    }
}

using McuChoicePtr = std::shared_ptr<McuChoice>;
using McuWork = void (*)(const Microcontroller &, const McuChoice &);

CLI::App *add_mcu_verb(CLI::App &parent, Session &session, const char *name, const char *description,
                       const McuChoicePtr &choice, McuWork work) {
    CLI::App *verb = parent.add_subcommand(name, description);
    verb->add_flag("--json", choice->json, "Print JSON (described by qelctl.schema.json)");
    verb->footer(std::string("Examples:\n  qelctl mcu ") + name);
    if (work != nullptr)
        verb->callback([&session, choice, work] { work(Microcontroller(session.library()), *choice); });
    return verb;
}

void add_mcu_front(CLI::App &mcu, Session &session, const McuChoicePtr &choice) {
    CLI::App *version =
        add_mcu_verb(mcu, session, "version", "Print the version of its firmware", choice, show_mcu_version);
    version->add_option("--module", choice->module, "Of this module, 0 = the microcontroller itself")
        ->type_name("N")
        ->check(CLI::Range(0U, kVersionModules - 1U).description(""));
    version->footer("Examples:\n  qelctl mcu version\n  qelctl mcu version --module 1");

    CLI::App *lcd = add_mcu_verb(mcu, session, "lcd", "Show a text on the display", choice, write_to_display);
    lcd->add_option("text", choice->text, "Characters; \\r \\n \\t \\0 \\e \\\\ and \\xHH are bytes")
        ->required();
    lcd->footer("Examples:\n  qelctl mcu lcd 'door open'");

    CLI::App *clock = add_mcu_verb(mcu, session, "time", "Set its clock", choice, set_mcu_time);
    clock->add_option("moment", choice->moment,
                      "now, in local time, or \"2026-03-01 12:30:00\"; now unless given");
    clock->footer("Examples:\n  qelctl mcu time\n  qelctl mcu time '2026-03-01 12:30:00'");

    CLI::App *power =
        add_mcu_verb(mcu, session, "power", "Print supply, battery and outputs; switch an output", choice,
                     show_or_switch_power);
    CLI::Option *output = power->add_option("output", choice->output, "Switch this output first")
                              ->check(CLI::Range(0U, kPowerOutputs - 1U).description(""));
    CLI::Option *state = power->add_option("state", choice->state, "to this state")
                             ->check(CLI::IsMember({"on", "off"}))
                             ->needs(output);
    output->needs(state);
    power->footer("Examples:\n  qelctl mcu power\n  qelctl mcu power 3 on");
}

void add_mcu_input(CLI::App &mcu, Session &session, const McuChoicePtr &choice) {
    CLI::App *rfid = add_mcu_verb(mcu, session, "rfid", "Print what waits in the card reader, after sending",
                                  choice, talk_to_card_reader);
    CLI::Option *send = rfid->add_option("--send", choice->hex, "Send it these bytes first, in hexadecimal")
                            ->type_name("BYTES");
    rfid->add_option("--reader", choice->reader, "to this reader; 0 unless given")
        ->needs(send)
        ->type_name("N")
        ->check(CLI::Range(0U, 1U).description(""));
    rfid->footer("Examples:\n  qelctl mcu rfid\n  qelctl mcu rfid --send '02 30 03' --reader 1");
    add_mcu_verb(mcu, session, "key", "Print which keys are pressed and which was the last", choice,
                 show_keys);
    CLI::App *events = add_mcu_verb(mcu, session, "events",
                                    "Print keys, cards, power and alarms, until Ctrl-C", choice, nullptr);
    choice->live.add_to(*events, "events");
    events->footer("Examples:\n  qelctl mcu events\n  qelctl mcu events --json --for 60");
    events->callback([&session, choice] { watch_mcu(session, *choice); });
    add_mcu_verb(mcu, session, "state", "Print what there is and what it can do", choice, show_mcu_state);
}

}  // namespace

void add_microcontroller(CLI::App &app, Session &session) {
    CLI::App *verb = app.add_subcommand("mcu", "The microcontroller: display, clock, power, cards, keys");
    verb->require_subcommand(1);
    const auto choice = std::make_shared<McuChoice>();
    add_mcu_front(*verb, session, choice);
    add_mcu_input(*verb, session, choice);
    verb->footer(
        "Examples:\n"
        "  qelctl mcu version\n"
        "  qelctl mcu events");
}

}  // namespace qelctl
