// SerialPort: the narrow view of the RS-232 line that the UPS link needs.
// The daemon uses TermiosSerialPort; tests use a scripted port that plays a
// UPS without any device.
#pragma once

#include <string>

class SerialPort {
public:
    // Input lines as the link reports them (getModemStatus).
    static constexpr int kClearToSend = 0x10;
    static constexpr int kDataSetReady = 0x20;
    static constexpr int kRingIndicator = 0x40;
    static constexpr int kCarrierDetect = 0x80;

    virtual ~SerialPort() {}

    // Opens the device for reading and writing, not as controlling terminal,
    // close-on-exec.
    // Returns a descriptor-like value (0 or more) or -1 on failure.
    virtual int open(const std::string& path) = 0;
    // Closes the device; harmless when it is not open.
    virtual void close() = 0;
    virtual bool isOpen() const = 0;

    // Reads the line settings, puts the line into raw mode (8 data bits, no
    // parity, no flow control, reads return at once) and applies it at once.
    virtual bool makeRaw() = 0;
    // Sets input and output speed to a rate in baud and applies it at once; a
    // rate the line does not know selects speed 0 (hang-up) without error.
    virtual bool setSpeed(int rate) = 0;
    // The speed now set, in baud (0 for hang-up or unknown).
    virtual int getSpeed() const = 0;

    // Reads what has arrived, at most max bytes, without waiting: the count
    // read, 0 when nothing has arrived, -1 on error (a device that went
    // away: the link then opens it afresh at its next detection).
    virtual int read(unsigned char* buf, int max) = 0;
    // Blocks until bytes can be read or timeoutMs has passed, without
    // spinning. True when bytes are there, or when the line failed or hung
    // up (the next read then reports -1); false at the time-out.
    virtual bool waitReadable(int timeoutMs) = 0;
    // Milliseconds on a clock that never jumps: the link measures its
    // receive windows on it, so that they agree with waitReadable.
    virtual long nowMs() const = 0;
    // Writes in one call; the count written or -1.
    virtual int write(const unsigned char* buf, int count) = 0;
    // Discards pending output, then pending input.
    virtual void flush() = 0;

    virtual bool setRTS(bool on) = 0;
    virtual bool setDTR(bool on) = 0;
    // The input lines as a mask of the k* bits above; false when they
    // cannot be read.
    virtual bool getModemStatus(int* status) = 0;
    // Ends any break condition on the line.
    virtual bool clearBreak() = 0;
};
