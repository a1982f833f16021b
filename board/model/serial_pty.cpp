#include "board/model/serial_pty.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <utility>

namespace qel::board {

std::unique_ptr<Pty> Pty::make(Held held, bool raw) {
    std::unique_ptr<Pty> pty(new Pty);
    if (!pty->open(held, raw)) return nullptr;
    return pty;
}

bool Pty::open(Held held, bool raw) {
    master_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    std::array<char, 64> name{};
    if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0 ||
        ::ptsname_r(master_, name.data(), name.size()) != 0)
        return false;
    path_ = name.data();
    const int flags = ::fcntl(master_, F_GETFL);
    slave_ = ::open(path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave_ < 0 || flags < 0 || ::fcntl(master_, F_SETFL, flags | O_NONBLOCK) != 0) return false;
    termios settings{};
    if (::tcgetattr(slave_, &settings) != 0) return false;
    if (raw) cfmakeraw(&settings);
    cfsetspeed(&settings, B9600);
    if (::tcsetattr(slave_, TCSANOW, &settings) != 0) return false;
    if (held == Held::kClosed) ::close(std::exchange(slave_, -1));
    return true;
}

Pty::~Pty() {
    if (slave_ >= 0) ::close(slave_);
    if (master_ >= 0) ::close(master_);
}

size_t Pty::read(uint8_t *bytes, size_t most) const {
    const ssize_t got = ::read(master_, bytes, most);
    return got > 0 ? static_cast<size_t>(got) : 0;
}

size_t Pty::write(const uint8_t *bytes, size_t count) const {
    const ssize_t put = ::write(master_, bytes, count);
    return put > 0 ? static_cast<size_t>(put) : 0;
}

bool Pty::has_input() const {
    int count = 0;
    return ::ioctl(master_, FIONREAD, &count) == 0 && count > 0;
}

bool Pty::is_open_elsewhere() const {
    pollfd entry{.fd = master_, .events = 0, .revents = 0};
    return ::poll(&entry, 1, 0) == 0;
}

void Pty::forget_unread() const {
    const int fd = slave_ >= 0 ? slave_ : ::open(path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return;
    ::tcflush(fd, TCIFLUSH);
    if (fd != slave_) ::close(fd);
}

uint32_t Pty::baud() const {
    termios settings{};
    return ::tcgetattr(master_, &settings) == 0 ? baud_of_code(cfgetospeed(&settings)) : 0;
}

void Pty::show_format(const SerialFormat &format) const {
    termios settings{};
    if (::tcgetattr(master_, &settings) != 0) return;
    if (const uint32_t code = code_of_baud(format.baud); code != 0) cfsetspeed(&settings, code);
    settings.c_cflag &= ~static_cast<tcflag_t>(CSTOPB | PARODD);
    if (format.stop_bits == 2) settings.c_cflag |= CSTOPB;
    if (format.parity == SerialParity::kOdd) settings.c_cflag |= PARODD;
    ::tcsetattr(master_, TCSANOW, &settings);
}

}  // namespace qel::board
