#include "tools/upssim/PseudoTerminal.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <chrono>

namespace upssim {

namespace {

struct SpeedEntry {
    speed_t speed;
    int baud;
};

const SpeedEntry kSpeeds[] = {
    {B0, 0},       {B50, 50},     {B75, 75},     {B110, 110},     {B134, 134},
    {B150, 150},   {B200, 200},   {B300, 300},   {B600, 600},     {B1200, 1200},
    {B1800, 1800}, {B2400, 2400}, {B4800, 4800}, {B9600, 9600},   {B19200, 19200},
    {B38400, 38400}, {B57600, 57600}, {B115200, 115200}, {B230400, 230400}};

}  // namespace

PseudoTerminal::~PseudoTerminal() { close(); }

int PseudoTerminal::speedToBaud(speed_t speed) {
    for (const SpeedEntry& e : kSpeeds)
        if (e.speed == speed) return e.baud;
    return 0;
}

speed_t PseudoTerminal::baudToSpeed(int baud) {
    for (const SpeedEntry& e : kSpeeds)
        if (e.baud == baud) return e.speed;
    return B0;
}

bool PseudoTerminal::open(std::string* error) {
    close();
    int m = posix_openpt(O_RDWR | O_NOCTTY);
    if (m < 0) {
        *error = std::string("posix_openpt: ") + strerror(errno);
        return false;
    }
    char name[256];
    if (grantpt(m) != 0 || unlockpt(m) != 0 || ptsname_r(m, name, sizeof name) != 0) {
        *error = std::string("cannot prepare the pseudo-terminal: ") + strerror(errno);
        ::close(m);
        return false;
    }
    int s = ::open(name, O_RDWR | O_NOCTTY);
    if (s < 0) {
        *error = std::string("cannot open ") + name + ": " + strerror(errno);
        ::close(m);
        return false;
    }
    // Raw from the start: no echo or line editing before the daemon sets
    // its own mode. The speed is left as the system made it.
    struct termios t;
    if (tcgetattr(s, &t) == 0) {
        cfmakeraw(&t);
        t.c_cflag |= CLOCAL | CREAD;
        tcsetattr(s, TCSANOW, &t);
    }
    int flags = fcntl(m, F_GETFL);
    if (flags < 0 || fcntl(m, F_SETFL, flags | O_NONBLOCK) != 0) {
        *error = std::string("fcntl: ") + strerror(errno);
        ::close(s);
        ::close(m);
        return false;
    }
    fcntl(m, F_SETFD, FD_CLOEXEC);
    fcntl(s, F_SETFD, FD_CLOEXEC);
    master_ = m;
    slave_ = s;
    slavePath_ = name;
    return true;
}

void PseudoTerminal::close() {
    if (slave_ >= 0) ::close(slave_);
    if (master_ >= 0) ::close(master_);
    slave_ = master_ = -1;
}

int PseudoTerminal::lineSpeed() const {
    if (slave_ < 0) return 0;
    struct termios t;
    if (tcgetattr(slave_, &t) != 0) return 0;
    int out = speedToBaud(cfgetospeed(&t));
    if (out == 0) return 0;
    // An input speed of 0 means "same as output".
    int in = speedToBaud(cfgetispeed(&t));
    if (in != 0 && in != out) return 0;  // split speeds: no UPS can follow that
    return out;
}

bool PseudoTerminal::writeAll(const unsigned char* bytes, size_t count, int timeoutMs) {
    using Clock = std::chrono::steady_clock;
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    size_t done = 0;
    while (done < count) {
        ssize_t n = ::write(master_, bytes + done, count - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return false;
        long left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return false;
        struct pollfd p = {master_, POLLOUT, 0};
        poll(&p, 1, static_cast<int>(left));
    }
    return true;
}

}  // namespace upssim
