// The termios serial port, on a pseudo-terminal: raw mode, speeds, reads
// and writes, and the failures of a line without modem control.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include "xcp/TermiosSerialPort.h"

namespace {
TEST(TermiosSerialPortTest, SpeedTable)
{
    EXPECT_EQ(B300, TermiosSerialPort::speedFor(300));
    EXPECT_EQ(B19200, TermiosSerialPort::speedFor(19200));
    EXPECT_EQ(B38400, TermiosSerialPort::speedFor(38400));
    EXPECT_EQ(B0, TermiosSerialPort::speedFor(57600));
    EXPECT_EQ(B0, TermiosSerialPort::speedFor(0));
    EXPECT_EQ(4800, TermiosSerialPort::rateFor(B4800));
    EXPECT_EQ(0, TermiosSerialPort::rateFor(B0));
}

TEST(TermiosSerialPortTest, RawLineOnAPseudoTerminal)
{
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(0, grantpt(master));
    ASSERT_EQ(0, unlockpt(master));
    std::string slave = ptsname(master);

    TermiosSerialPort port;
    EXPECT_EQ(-1, port.open("/nonexistent/tty"));
    EXPECT_FALSE(port.isOpen());
    int fd = port.open(slave);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(port.isOpen());
    ASSERT_TRUE(port.makeRaw());

    termios t;
    ASSERT_EQ(0, tcgetattr(fd, &t));
    EXPECT_EQ(static_cast<tcflag_t>(IGNBRK | IGNPAR), t.c_iflag);
    EXPECT_EQ(0u, t.c_oflag);
    EXPECT_EQ(static_cast<tcflag_t>(CS8 | CREAD | CLOCAL), t.c_cflag & (CSIZE | CREAD | CLOCAL | PARENB | CSTOPB | CRTSCTS));
    EXPECT_EQ(0u, t.c_lflag);
    EXPECT_EQ(0, t.c_cc[VMIN]);
    EXPECT_EQ(0, t.c_cc[VTIME]);

    ASSERT_TRUE(port.setSpeed(4800));
    ASSERT_EQ(0, tcgetattr(fd, &t));
    EXPECT_EQ(B4800, cfgetospeed(&t));
    EXPECT_EQ(4800, port.getSpeed());
    port.setSpeed(57600);
    EXPECT_EQ(0, port.getSpeed());
    port.setSpeed(9600);

    // Reads return at once, with nothing or with what arrived.
    unsigned char buf[16];
    EXPECT_EQ(0, port.read(buf, sizeof buf));
    ASSERT_EQ(3, write(master, "\xab\x01\x02", 3));
    int got = 0;
    for (int i = 0; i < 100 && got < 3; ++i) {
        int n = port.read(buf + got, static_cast<int>(sizeof buf) - got);
        if (n > 0)
            got += n;
        else
            usleep(10000);
    }
    ASSERT_EQ(3, got);
    EXPECT_EQ(0xAB, buf[0]);
    const unsigned char frame[4] = {0xAB, 0x01, 0x31, 0x23};
    EXPECT_EQ(4, port.write(frame, 4));
    unsigned char echo[4] = {};
    int m = 0;
    for (int i = 0; i < 100 && m < 4; ++i) {
        ssize_t n = read(master, echo + m, static_cast<size_t>(4 - m));
        if (n > 0)
            m += static_cast<int>(n);
        else
            usleep(10000);
    }
    EXPECT_EQ(4, m);
    EXPECT_EQ(0x23, echo[3]);

    // A pseudo-terminal has no modem lines.
    int status = 0;
    EXPECT_FALSE(port.getModemStatus(&status));
    port.flush();

    port.close();
    EXPECT_FALSE(port.isOpen());
    EXPECT_EQ(-1, port.read(buf, 4));
    EXPECT_EQ(-1, port.write(frame, 4));
    EXPECT_FALSE(port.setRTS(true));
    close(master);
}
} // namespace
