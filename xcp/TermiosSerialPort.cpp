#include "xcp/TermiosSerialPort.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {
struct SpeedEntry {
    int rate;
    speed_t speed;
};

const SpeedEntry kSpeeds[] = {
    {50, B50},     {75, B75},     {110, B110},   {134, B134},     {150, B150},
    {200, B200},   {300, B300},   {600, B600},   {1200, B1200},   {1800, B1800},
    {2400, B2400}, {4800, B4800}, {9600, B9600}, {19200, B19200}, {38400, B38400},
};
} // namespace

TermiosSerialPort::TermiosSerialPort() : mFd(-1), mLineTrouble(false) { memset(&mSettings, 0, sizeof mSettings); }

TermiosSerialPort::~TermiosSerialPort() { close(); }

speed_t TermiosSerialPort::speedFor(int rate)
{
    for (const SpeedEntry& e : kSpeeds)
        if (e.rate == rate)
            return e.speed;
    return B0;
}

int TermiosSerialPort::rateFor(speed_t speed)
{
    for (const SpeedEntry& e : kSpeeds)
        if (e.speed == speed)
            return e.rate;
    return 0;
}

int TermiosSerialPort::open(const std::string& path)
{
    close();
    mLineTrouble = false;
    // Close-on-exec: the commands the daemon runs must not inherit the line.
    mFd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    return mFd;
}

void TermiosSerialPort::close()
{
    if (mFd >= 0)
        ::close(mFd);
    mFd = -1;
    mLineTrouble = false;
}

bool TermiosSerialPort::makeRaw()
{
    if (mFd < 0 || tcgetattr(mFd, &mSettings) != 0)
        return false;
    // Raw 8N1 without flow control; VMIN = VTIME = 0 so that a read
    // returns at once with whatever has arrived.
    mSettings.c_iflag = IGNBRK | IGNPAR;
    mSettings.c_oflag = 0;
    mSettings.c_cflag = CS8 | CREAD | CLOCAL;
    mSettings.c_lflag = 0;
    memset(mSettings.c_cc, 0, sizeof mSettings.c_cc);
    return tcsetattr(mFd, TCSANOW, &mSettings) == 0;
}

bool TermiosSerialPort::setSpeed(int rate)
{
    speed_t speed = speedFor(rate);
    cfsetispeed(&mSettings, speed);
    cfsetospeed(&mSettings, speed);
    if (mFd < 0)
        return false;
    return tcsetattr(mFd, TCSANOW, &mSettings) == 0;
}

int TermiosSerialPort::getSpeed() const { return rateFor(cfgetospeed(&mSettings)); }

int TermiosSerialPort::read(unsigned char* buf, int max)
{
    if (mFd < 0 || max <= 0)
        return mFd < 0 ? -1 : 0;
    ssize_t n;
    do
        n = ::read(mFd, buf, static_cast<size_t>(max));
    while (n < 0 && errno == EINTR);
    if (n == 0 && mLineTrouble)
        n = -1;
    mLineTrouble = false;
    return n < 0 ? -1 : static_cast<int>(n);
}

bool TermiosSerialPort::waitReadable(int timeoutMs)
{
    if (mFd < 0)
        return true;  // the read reports the closed port
    const long deadline = nowMs() + (timeoutMs > 0 ? timeoutMs : 0);
    for (;;) {
        long left = deadline - nowMs();
        if (left < 0)
            left = 0;
        pollfd p;
        p.fd = mFd;
        p.events = POLLIN;
        p.revents = 0;
        const int r = ::poll(&p, 1, static_cast<int>(left));
        if (r > 0) {
            if (p.revents & (POLLHUP | POLLERR | POLLNVAL))
                mLineTrouble = true;
            return true;
        }
        if (r == 0)
            return false;
        if (errno != EINTR) {
            mLineTrouble = true;
            return true;
        }
    }
}

long TermiosSerialPort::nowMs() const
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long>(ts.tv_sec) * 1000L + ts.tv_nsec / 1000000L;
}

int TermiosSerialPort::write(const unsigned char* buf, int count)
{
    if (mFd < 0)
        return -1;
    ssize_t n;
    do
        n = ::write(mFd, buf, static_cast<size_t>(count));
    while (n < 0 && errno == EINTR);
    return n < 0 ? -1 : static_cast<int>(n);
}

void TermiosSerialPort::flush()
{
    if (mFd < 0)
        return;
    tcflush(mFd, TCOFLUSH);
    tcflush(mFd, TCIFLUSH);
}

bool TermiosSerialPort::setModemBit(int bit, bool on)
{
    int bits = 0;
    if (mFd < 0 || ioctl(mFd, TIOCMGET, &bits) != 0)
        return false;
    if (on)
        bits |= bit;
    else
        bits &= ~bit;
    return ioctl(mFd, TIOCMSET, &bits) == 0;
}

bool TermiosSerialPort::setRTS(bool on) { return setModemBit(TIOCM_RTS, on); }

bool TermiosSerialPort::setDTR(bool on) { return setModemBit(TIOCM_DTR, on); }

bool TermiosSerialPort::getModemStatus(int* status)
{
    int bits = 0;
    if (mFd < 0 || ioctl(mFd, TIOCMGET, &bits) != 0)
        return false;
    int mask = 0;
    if (bits & TIOCM_CTS)
        mask |= kClearToSend;
    if (bits & TIOCM_DSR)
        mask |= kDataSetReady;
    if (bits & TIOCM_RNG)
        mask |= kRingIndicator;
    if (bits & TIOCM_CAR)
        mask |= kCarrierDetect;
    *status = mask;
    return true;
}

bool TermiosSerialPort::clearBreak() { return mFd >= 0 && ioctl(mFd, TIOCCBRK, 0) == 0; }
