// The termios serial port, on a pseudo-terminal: raw mode, speeds, reads
// and writes, and the failures of a line without modem control.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <functional>
#include <thread>
#include <utility>

#include "xcp/TermiosSerialPort.h"

namespace {
// Calls read until `want` bytes came (bounded: about one second).
int readAll(const std::function<int(unsigned char*, int)>& read, unsigned char* buf, int want)
{
    int got = 0;
    for (int i = 0; i < 100 && got < want; ++i) {
        int n = read(buf + got, want - got);
        if (n > 0)
            got += n;
        else
            usleep(10000);
    }
    return got;
}

TEST(TermiosSerialPortTest, RawLineOnAPseudoTerminal)
{
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(0, grantpt(master));
    ASSERT_EQ(0, unlockpt(master));
    TermiosSerialPort port;
    EXPECT_EQ(-1, port.open("/nonexistent/tty"));
    EXPECT_FALSE(port.isOpen());
    const int fd = port.open(ptsname(master));
    ASSERT_GE(fd, 0);
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD) & FD_CLOEXEC);  // commands run later must not inherit it
    ASSERT_TRUE(port.makeRaw());

    termios t;
    ASSERT_EQ(0, tcgetattr(fd, &t));
    EXPECT_EQ(static_cast<tcflag_t>(IGNBRK | IGNPAR), t.c_iflag);
    EXPECT_EQ(0u, t.c_oflag | t.c_lflag);
    EXPECT_EQ(static_cast<tcflag_t>(CS8 | CREAD | CLOCAL), t.c_cflag & (CSIZE | CREAD | CLOCAL | PARENB | CSTOPB | CRTSCTS));
    EXPECT_EQ(0, t.c_cc[VMIN] + t.c_cc[VTIME]);
    // The rates the UPS link hunts and steps up to reach the line.
    const std::pair<int, speed_t> rates[] = {{300, B300},   {600, B600},   {1200, B1200},  {2400, B2400},
                                             {4800, B4800}, {9600, B9600}, {19200, B19200}, {38400, B38400}};
    for (const auto& rate : rates) {
        ASSERT_TRUE(port.setSpeed(rate.first));
        ASSERT_EQ(0, tcgetattr(fd, &t));
        EXPECT_TRUE(rate.second == cfgetospeed(&t) && rate.first == port.getSpeed()) << rate.first;
    }
    port.setSpeed(57600);  // unknown rate: hang-up
    EXPECT_EQ(0, port.getSpeed());
    port.setSpeed(9600);

    // Reads return at once, with nothing or with what arrived.
    unsigned char buf[16];
    EXPECT_EQ(0, port.read(buf, sizeof buf));
    ASSERT_EQ(3, write(master, "\xab\x01\x02", 3));
    ASSERT_EQ(3, readAll([&](unsigned char* b, int n) { return port.read(b, n); }, buf, 3));
    EXPECT_EQ(0xAB, buf[0]);
    const unsigned char frame[4] = {0xAB, 0x01, 0x31, 0x23};
    EXPECT_EQ(4, port.write(frame, 4));
    EXPECT_EQ(4, readAll([&](unsigned char* b, int n) { return static_cast<int>(read(master, b, n)); }, buf, 4));
    EXPECT_EQ(0x23, buf[3]);

    int status = 0;
    EXPECT_FALSE(port.getModemStatus(&status));  // a pseudo-terminal has no modem lines
    port.flush();
    port.close();
    EXPECT_FALSE(port.isOpen() || port.setRTS(true));
    EXPECT_EQ(std::make_pair(-1, -1), std::make_pair(port.read(buf, 4), port.write(frame, 4)));
    close(master);
}

// The link's receive windows block here: nothing comes, the time-out ends
// the wait; a byte ends it at once; so does a line whose other side went
// away, and the read then reports the failure (the time-outs only bound a
// faulty wait).
TEST(TermiosSerialPortTest, WaitReadableBlocksUntilBytesOrTimeOut)
{
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(0, grantpt(master));
    ASSERT_EQ(0, unlockpt(master));
    TermiosSerialPort port;
    ASSERT_GE(port.open(ptsname(master)), 0);
    ASSERT_TRUE(port.makeRaw());

    EXPECT_FALSE(port.waitReadable(50));
    std::thread writer([master] {
        usleep(100000);
        EXPECT_EQ(1, write(master, "\xab", 1));
    });
    const bool readable = port.waitReadable(20000);
    writer.join();
    EXPECT_TRUE(readable);
    unsigned char byte = 0;
    EXPECT_EQ(1, port.read(&byte, 1));
    EXPECT_EQ(0xAB, byte);

    close(master);
    EXPECT_TRUE(port.waitReadable(20000));
    EXPECT_EQ(-1, port.read(&byte, 1));
    port.close();
    EXPECT_TRUE(port.waitReadable(20000));  // a closed port: the read says so
    EXPECT_EQ(-1, port.read(&byte, 1));
}
} // namespace
