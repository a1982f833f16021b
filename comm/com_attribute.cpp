#include "comm/com_attribute.h"

#include <cstring>
#include <iterator>

#include "frame/log.h"

namespace qel::comm {

namespace {

constexpr unsigned kSettle_ms = 30;

struct Speed {
    uint32_t baud;
    speed_t code;
};

constexpr Speed kSpeeds[] = {
    {1200, B1200},   {2400, B2400},   {4800, B4800},   {9600, B9600},
    {19200, B19200}, {38400, B38400}, {57600, B57600}, {115200, B115200},
};

constexpr tcflag_t kDataBits[] = {CS5, CS6, CS7, CS8};
constexpr uint8_t kFewestDataBits = 5;

struct Parity {
    uint8_t code;
    tcflag_t input;
    tcflag_t control;
};

constexpr Parity kParities[] = {
    {QEL_COM_PARITY_NONE, 0, 0},
    {QEL_COM_PARITY_ODD, INPCK, PARENB | PARODD},
    {QEL_COM_PARITY_EVEN, INPCK, PARENB},
};

// Without parity PARODD means nothing and stays.
constexpr tcflag_t parity_mask(const Parity &parity) {
    return parity.control == 0 ? PARENB : PARENB | PARODD;
}

void set_parity(const Parity &parity, termios &settings) {
    settings.c_iflag = (settings.c_iflag & ~tcflag_t{INPCK}) | parity.input;
    settings.c_cflag = (settings.c_cflag & ~parity_mask(parity)) | parity.control;
}

// By the letters that adapters are set with.
const Parity *usb_parity(int letter) {
    switch (letter) {
        case 'n':
        case 'N':
        case 's':
        case 'S':
            return &kParities[0];
        case 'o':
        case 'O':
            return &kParities[1];
        case 'e':
        case 'E':
            return &kParities[2];
        default:
            return nullptr;
    }
}

void apply_parity(const char *function, uint8_t code, termios &settings) {
    for (const Parity &parity : kParities) {
        if (parity.code == code) return set_parity(parity, settings);
    }
    QEL_WARN_AS(function, "unsupported parity %d\n", code);
}

uint8_t parity_of(const char *function, const termios &settings) {
    for (const Parity &parity : kParities) {
        if ((settings.c_iflag & INPCK) == parity.input &&
            (settings.c_cflag & parity_mask(parity)) == parity.control)
            return parity.code;
    }
    QEL_WARN_AS(function, "Unknown  parity\n");
    return 0;
}

uint8_t data_bits_of(const char *function, const termios &settings) {
    for (size_t i = 0; i < std::size(kDataBits); ++i) {
        if ((settings.c_cflag & CSIZE) == kDataBits[i]) return static_cast<uint8_t>(kFewestDataBits + i);
    }
    QEL_WARN_AS(function, "unknown data bits %x\n", settings.c_cflag & CSIZE);
    return 0;
}

}  // namespace

bool speed_code(uint32_t baud, speed_t &code) {
    for (const Speed &speed : kSpeeds) {
        if (speed.baud != baud) continue;
        code = speed.code;
        return true;
    }
    return false;
}

uint32_t baud_of(speed_t code) {
    for (const Speed &speed : kSpeeds) {
        if (speed.code == code) return speed.baud;
    }
    return 0;
}

uint64_t transmission_us(const termios &settings, size_t bytes) {
    const uint32_t baud = baud_of(cfgetospeed(&settings));
    if (baud == 0) return 0;
    unsigned bits = 1 + 1 + kFewestDataBits;  // start, stop, data
    for (size_t i = 0; i < std::size(kDataBits); ++i) {
        if ((settings.c_cflag & CSIZE) == kDataBits[i]) bits += static_cast<unsigned>(i);
    }
    if ((settings.c_cflag & PARENB) != 0) ++bits;
    if ((settings.c_cflag & CSTOPB) != 0) ++bits;
    return uint64_t{bytes} * bits * 1000000 / baud;
}

void apply_attribute(const char *function, const ComAttribute &attribute, termios &settings) {
    speed_t code = 0;
    if (speed_code(attribute.baud, code)) {
        cfsetispeed(&settings, code);
        cfsetospeed(&settings, code);
    } else {
        QEL_WARN_AS(function, "unsupported baudrate %d\n", static_cast<int>(attribute.baud));
    }

    apply_parity(function, attribute.parity, settings);

    settings.c_cflag &= ~tcflag_t{CSIZE};
    const unsigned bits = attribute.dataBits - unsigned{kFewestDataBits};
    if (bits < std::size(kDataBits)) {
        settings.c_cflag |= kDataBits[bits];
    } else {
        QEL_WARN_AS(function, "unsupported data bits %d\n", attribute.dataBits);
    }

    settings.c_cflag &= ~tcflag_t{CSTOPB};
    if (attribute.stopBits == QEL_COM_TWO_STOP_BITS) {
        settings.c_cflag |= CSTOPB;
    } else if (attribute.stopBits != QEL_COM_ONE_STOP_BIT) {
        QEL_WARN_AS(function, "unsupported stop bits %d\n", attribute.stopBits);
    }
}

ComAttribute attribute_of(const char *function, const termios &settings) {
    ComAttribute attribute{};
    attribute.baud = baud_of(cfgetospeed(&settings));
    if (attribute.baud == 0)
        QEL_WARN_AS(function, "Unknown baudrate %d\n", static_cast<int>(cfgetospeed(&settings)));
    attribute.parity = parity_of(function, settings);
    attribute.dataBits = data_bits_of(function, settings);
    attribute.stopBits = (settings.c_cflag & CSTOPB) != 0 ? QEL_COM_TWO_STOP_BITS : QEL_COM_ONE_STOP_BIT;
    return attribute;
}

// The size bits go, too: 5 data bits until somebody sets others.
int make_line_raw(const char *function, int fd, termios &saved) {
    termios settings{};
    if (os::term_get(fd, &settings) < 0) {
        QEL_ERROR_AS(function, "tcgetattr  error!! \n");
        return OSA_EFAIL;
    }
    saved = settings;
    settings.c_iflag &= ~tcflag_t{BRKINT | INPCK | ISTRIP | ICRNL | IXON};
    settings.c_oflag &= ~tcflag_t{OPOST};
    settings.c_cflag &= ~tcflag_t{CSIZE | PARENB};
    settings.c_lflag &= ~tcflag_t{ISIG | ICANON | ECHO | IEXTEN};
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    os::term_flush(fd, TCIOFLUSH);
    const int set = os::term_set(fd, TCSANOW, settings);
    if (set == 0) return 0;
    QEL_ERROR_AS(function, "tcsetattr failed, errno=%d\n", -set);
    return OSA_EFAIL;
}

void settle_line() { OSA_sleepMs(kSettle_ms); }

int apply_line_attribute(const char *function, int fd, const ComAttribute &attribute) {
    termios settings{};
    const int got = os::term_get(fd, &settings);
    if (got < 0) {
        QEL_ERROR_AS(function, "tcgetattr  error!! \n");
        return OSA_EFAIL;
    }
    apply_attribute(function, attribute, settings);
    os::term_flush(fd, TCIOFLUSH);
    const int set = os::term_set(fd, TCSANOW, settings);
    if (set < 0) {
        os::print_err("tcsetattr: %s\n", strerror(-set));
        return OSA_EFAIL;
    }
    return 0;
}

}  // namespace qel::comm

using namespace qel;
using namespace qel::comm;

extern "C" {

int QEL_setTtyUsbSpeed(int fd, int baud) {
    speed_t code = 0;
    termios settings{};
    if (baud <= 0 || !speed_code(static_cast<uint32_t>(baud), code)) {
        QEL_WARN("unsupported baudrate %d\n", baud);
        return OSA_EFAIL;
    }
    if (os::term_get(fd, &settings) < 0) return OSA_EFAIL;  // the caller knows for what
    os::term_flush(fd, TCIOFLUSH);
    cfsetispeed(&settings, code);
    cfsetospeed(&settings, code);
    return os::term_set(fd, TCSANOW, settings) < 0 ? OSA_EFAIL : 0;
}

int QEL_setTtyUsbParity(int fd, int dataBits, int stopBits, int parity) {
    const Parity *wanted = usb_parity(parity);
    const int bits = dataBits - kFewestDataBits;
    if (wanted == nullptr || bits < 0 || bits >= static_cast<int>(std::size(kDataBits)) || stopBits < 1 ||
        stopBits > 2) {
        QEL_WARN("unsupported format: data bits %d, stop bits %d, parity %d\n", dataBits, stopBits, parity);
        return OSA_EFAIL;
    }
    termios settings{};
    if (os::term_get(fd, &settings) < 0) return OSA_EFAIL;
    set_parity(*wanted, settings);
    settings.c_cflag = (settings.c_cflag & ~tcflag_t{CSIZE}) | kDataBits[bits];
    settings.c_cflag = stopBits == 2 ? settings.c_cflag | CSTOPB : settings.c_cflag & ~tcflag_t{CSTOPB};
    os::term_flush(fd, TCIFLUSH);
    return os::term_set(fd, TCSANOW, settings) < 0 ? OSA_EFAIL : 0;
}

}  // extern "C"
