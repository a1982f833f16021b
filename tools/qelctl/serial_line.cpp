#include "tools/qelctl/serial_line.h"

#include <algorithm>
#include <charconv>
#include <string_view>

#include "tools/qelctl/deadline.h"
#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/interrupt.h"

namespace qelctl {

namespace {

constexpr size_t kLinePieceBytes = 4096;
constexpr uint32_t kUsbBaud = 115200;
constexpr uint32_t kUnknownBaud = 9600;
constexpr unsigned kBitsPerByte = 10;  // with start and stop bit
constexpr uint32_t kMostBaud = 4000000;
constexpr const char *kParityLetters = "NOE";  // in the order of the codes

constexpr const char *kLineHint =
    "The line takes nothing: is the far end there, does it read, does it hold the line?\n"
    "OSA_LOG=info shows more; --timeout SECONDS changes the limit.\n";

struct PortKindName {
    uint32_t kind;
    const char *name;
};
constexpr PortKindName kPortKindNames[] = {
    {QEL_COM_KIND_SCM, "secondary controller"},
    {QEL_COM_KIND_SPI_PTZ, "SPI bridge"},
    {QEL_COM_KIND_UART, "driver UART"},
    {QEL_COM_KIND_MCU, "microcontroller"},
    {QEL_COM_KIND_MCU_SECOND, "microcontroller"},
    {QEL_COM_KIND_VIRTUAL, "microcontroller channel"},
    {QEL_COM_KIND_USB, "USB adapter"},
};

// Their bytes pass the microcontroller, and only some of them have a rate at all: not set unless asked.
bool is_set_only_on_request(uint32_t kind) {
    return kind == QEL_COM_KIND_MCU || kind == QEL_COM_KIND_MCU_SECOND || kind == QEL_COM_KIND_VIRTUAL;
}

[[noreturn]] void port_says_no(unsigned port, const char *what) {
    throw Failure(ExitCode::kFailed,
                  "port " + std::to_string(port) + " " + what + "; the library's log says why.");
}

// A tty would take any other rate without a word, and stay at the one it had.
void check_rate(const ComMapItem &item, uint32_t baud) {
    if (item.kind == QEL_COM_KIND_UART) return;
    std::string usual;
    for (const uint32_t rate : kUsualRates) {
        if (rate == baud) return;
        usual += " " + std::to_string(rate);
    }
    throw Failure(ExitCode::kUsage, "port " + std::to_string(item.port) + " does not have a rate of " +
                                        std::to_string(baud) + "; it has" + usual + ".");
}

std::string settings_text(const ComAttribute &attribute) {
    return std::to_string(attribute.baud) + "-" + std::to_string(attribute.dataBits) +
           kParityLetters[attribute.parity] + (attribute.stopBits == QEL_COM_TWO_STOP_BITS ? "2" : "1");
}

std::string settings_problem(const std::string &text) {
    try {
        line_settings(text);
        return {};
    } catch (const Failure &failure) {
        return failure.what();
    }
}

}  // namespace

void line_ended() {
    throw Failure(ExitCode::kFailed, "the line ended, as when its plug is pulled; OSA_LOG=info shows more.");
}

std::vector<ComMapItem> read_port_map(const Library &library) {
    ComMap map{};
    if (CALL(library, QEL_comGetMapInfo)(&map) != 0)
        throw Failure(ExitCode::kFailed, "the driver tells no port map; the library's log says why.");
    std::vector<ComMapItem> items;
    for (const ComMapItem &item : map.items) {
        if (item.port == QEL_COM_END_OF_MAP) break;
        items.push_back(item);
    }
    return items;
}

ComMapItem find_port(const Library &library, unsigned port) {
    std::string others;
    for (const ComMapItem &item : read_port_map(library)) {
        if (item.port == port) return item;
        others += (others.empty() ? "" : ", ") + std::to_string(item.port);
    }
    throw Failure(ExitCode::kFailed, "there is no port " + std::to_string(port) +
                                         "; there are: " + (others.empty() ? "none" : others) + ".");
}

const char *port_kind_name(uint32_t kind) {
    for (const PortKindName &known : kPortKindNames) {
        if (known.kind == kind) return known.name;
    }
    return "tty";
}

void LineChoice::add_to(CLI::App &verb) {
    verb.add_option("port", port, "Logical number of the port")
        ->required()
        ->check(CLI::Range(0U, QEL_COM_MAX_PORTS - 1U).description(""));
    verb.add_option("--line", settings,
                    "Rate, data bits, parity (N, O, E) and stop bits; 9600-8N1 unless given, 115200-8N1 on\n"
                    "USB adapters. What the microcontroller carries is only set when this is given")
        ->type_name("RATE-8N1")
        ->check(CLI::Validator(settings_problem, ""));
    verb.add_option("--mode", mode, "Switch the port over first")->check(CLI::IsMember({"rs232", "rs485"}));
}

ComAttribute line_settings(const std::string &text) {
    unsigned baud = 0;
    const char *const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, baud);
    const std::string_view frame(rest, static_cast<size_t>(end - rest));
    const bool whole = error == std::errc() && frame.size() == 4 && frame[0] == '-';
    const size_t data_bits = whole ? std::string_view("5678").find(frame[1]) : std::string::npos;
    const size_t parity = whole ? std::string_view(kParityLetters).find(frame[2]) : std::string::npos;
    const size_t stop_bits = whole ? std::string_view("12").find(frame[3]) : std::string::npos;
    if (baud == 0 || baud > kMostBaud || data_bits == std::string::npos || parity == std::string::npos ||
        stop_bits == std::string::npos) {
        throw Failure(ExitCode::kUsage, "a line is set as in 9600-8N1 or 19200-7E2, not " + text + ".");
    }
    ComAttribute attribute{};
    attribute.baud = baud;
    attribute.dataBits = static_cast<uint8_t>(5 + data_bits);
    attribute.parity = static_cast<uint8_t>(parity);
    attribute.stopBits = stop_bits == 1 ? QEL_COM_TWO_STOP_BITS : QEL_COM_ONE_STOP_BIT;
    return attribute;
}

SerialLine::SerialLine(const Library &library, const LineChoice &choice)
    : item_(find_port(library, choice.port)) {
    const CommPortDesc desc = {choice.port};
    now_doing("waiting for the serial line", kLineHint);
    if (CALL(library, createCommPort)(&desc, &port_) != 0) port_says_no(choice.port, "cannot be made");
    try {
        open_and_set(choice);
    } catch (...) {
        port_->release(port_);
        throw;
    }
}

SerialLine::~SerialLine() { port_->release(port_); }

void SerialLine::open_and_set(const LineChoice &choice) {
    if (!choice.mode.empty()) {
        if (port_->setComType == nullptr || port_->setComType(port_, choice.mode == "rs485" ? 1 : 0) != 0)
            throw Failure(ExitCode::kFailed, "port " + std::to_string(number()) +
                                                 " cannot be switched over; `qelctl serial list` shows the "
                                                 "ports that can.");
    }
    if (port_->open(port_) != 0) port_says_no(number(), "cannot be opened");
    if (!choice.settings.empty()) {
        set(line_settings(choice.settings));
    } else if (!is_set_only_on_request(item_.kind)) {
        ComAttribute usual = line_settings("9600-8N1");
        if (item_.kind == QEL_COM_KIND_USB) usual.baud = kUsbBaud;
        set(usual);
    }
}

std::string SerialLine::description() const {
    return "port " + std::to_string(number()) + (attribute_ ? ", " + settings_text(*attribute_) : "");
}

void SerialLine::set(const ComAttribute &attribute) {
    check_rate(item_, attribute.baud);
    if (port_->setAttribute(port_, &attribute) != 0) port_says_no(number(), "cannot be set");
    attribute_ = attribute;
}

bool SerialLine::read(std::vector<uint8_t> &bytes) const {
    bytes.resize(kLinePieceBytes);
    const int count = port_->read(port_, bytes.data(), kLinePieceBytes);
    bytes.resize(static_cast<size_t>(std::clamp(count, 0, static_cast<int>(kLinePieceBytes))));
    return count >= 0;
}

void SerialLine::read_or_fail(std::vector<uint8_t> &bytes) const {
    restart_deadline();
    if (!read(bytes)) line_ended();
}

void SerialLine::discard_input() const { port_->purge(port_, QEL_COM_DISCARD_INPUT); }

size_t SerialLine::write(const uint8_t *bytes, size_t count) const {
    const uint32_t baud = attribute_ ? attribute_->baud : kUnknownBaud;
    const size_t piece = std::clamp<size_t>(baud / kBitsPerByte, 1, kLinePieceBytes);
    size_t done = 0;
    while (done < count && !Interrupt::happened()) {
        restart_deadline();
        const int written =
            port_->write(port_, bytes + done, static_cast<uint32_t>(std::min(piece, count - done)));
        if (written <= 0) break;
        done += static_cast<size_t>(written);
    }
    return std::min(done, count);
}

void SerialLine::write_all(const std::vector<uint8_t> &bytes) const {
    const size_t done = write(bytes.data(), bytes.size());
    if (done == bytes.size()) return;
    const bool interrupted = Interrupt::happened();
    throw Failure(interrupted ? ExitCode::kInterrupted : ExitCode::kFailed,
                  "port " + std::to_string(number()) + " took " + std::to_string(done) + " of " +
                      std::to_string(bytes.size()) + " bytes" +
                      (interrupted ? ", then a signal came." : "; the library's log says why."));
}

}  // namespace qelctl
