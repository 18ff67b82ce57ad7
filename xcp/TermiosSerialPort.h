// TermiosSerialPort: the serial device of the UPS through termios and the
// modem-control ioctls. Raw mode, speeds 50 to 38400 baud, RTS/DTR and the
// input lines.
#pragma once

#include <termios.h>

#include "xcp/SerialPort.h"

class TermiosSerialPort : public SerialPort {
public:
    TermiosSerialPort();
    ~TermiosSerialPort() override;

    TermiosSerialPort(const TermiosSerialPort&) = delete;
    TermiosSerialPort& operator=(const TermiosSerialPort&) = delete;

    int open(const std::string& path) override;
    void close() override;
    bool isOpen() const override { return mFd >= 0; }
    bool makeRaw() override;
    bool setSpeed(int rate) override;
    int getSpeed() const override;
    int read(unsigned char* buf, int max) override;
    // poll() on the descriptor; retried with the time left after a signal.
    bool waitReadable(int timeoutMs) override;
    // CLOCK_MONOTONIC in milliseconds.
    long nowMs() const override;
    int write(const unsigned char* buf, int count) override;
    void flush() override;
    bool setRTS(bool on) override;
    bool setDTR(bool on) override;
    bool getModemStatus(int* status) override;
    bool clearBreak() override;

    // The terminal speed for a rate in baud; B0 for a rate not in the table.
    static speed_t speedFor(int rate);
    // The rate in baud of a terminal speed; 0 for B0 and unknown speeds.
    static int rateFor(speed_t speed);

    int descriptor() const { return mFd; }
    // The line settings last read from and written to the device.
    const termios& settings() const { return mSettings; }

private:
    bool setModemBit(int bit, bool on);

    int mFd;
    termios mSettings;
    // The last wait saw a hang-up or error: a read that then brings nothing
    // reports the failure instead of looking like a quiet line (a hung-up
    // terminal polls readable and reads 0 for ever).
    bool mLineTrouble;
};
