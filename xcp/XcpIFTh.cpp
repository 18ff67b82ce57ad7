// XcpIFTh: construction, the thread loop, event handling and the serial
// link: opening the port, line speed and modem lines, framing a command,
// and collecting and checking the (possibly multi-frame) reply.
#include "xcp/XcpIFTh.h"

#include <cstdio>
#include <cstring>
#include <syslog.h>

#include "config/FileMap.h"
#include "control/Codes.h"
#include "control/StCTrl.h"
#include "xcp/Sleeper.h"
#include "xcp/TermiosSerialPort.h"
#include "xcp/UpsDataBlock.h"
#include "xcp/XcpTh.h"

namespace {
// Pauses that pace the UPS.
const int kWritePauseMs = 500;
const int kExchangePauseMs = 150;
// Receive windows: silence allowed before the first byte, the collecting
// window after it, the extra wait a zero byte in a header or checksum
// position gets, and the limit for completing one frame.
const int kFirstByteMs = 2000;
const int kCollectMs = 500;
const int kZeroByteMs = 50;
const int kFrameMs = 5000;

void logProblem(const char* text)
{
    fprintf(stderr, "kestrava: %s\n", text);
    syslog(LOG_DAEMON | LOG_ERR, "%s", text);
}

unsigned char expectedBlock(unsigned char code)
{
    if (code >= 0x31 && code <= 0x56)
        return static_cast<unsigned char>(code - 0x30);
    if (code == 0xA0)
        return 1;
    return 9;
}
} // namespace

XcpIFTh::XcpIFTh(int number, StCTrl* ctrl, SerialPort* port, FileMap** config, UpsDataBlock** data, XcpTh* events,
                 Sleeper* sleeper)
    : tthread(number), mPortFd(-1), mMaxCommandLength(kInitialMaxCommandLength), mMaxReplyLength(kMaxReplyLength),
      mCommand(1, static_cast<char>(kStartByte)), mBaudrate(0), mPortLost(false), mPort(port), mOwnsPort(port == nullptr), mCtrl(ctrl),
      mConfig(config), mData(data), mEvents(events), mSleeper(sleeper)
{
    if (mOwnsPort)
        mPort = new TermiosSerialPort();
}

XcpIFTh::~XcpIFTh()
{
    if (mOwnsPort)
        delete mPort;
}

void XcpIFTh::pause(int ms) { (mSleeper ? *mSleeper : Sleeper::real()).sleepMs(ms); }

void XcpIFTh::post(_NOTIFYMSGINFO* nt)
{
    if (mCtrl)
        mCtrl->SetNotify(nt);
}

// ---------------------------------------------------------------- thread and events

void XcpIFTh::thread_main()
{
    // At most one event a second, in arrival order.
    for (;;) {
        pause(1000);
        commStart();
    }
}

void XcpIFTh::commStart()
{
    _NOTIFYMSGINFO nt;
    memset(&nt, 0, sizeof nt);
    const int event = mEvents->getXcpEvent();
    UpsDataBlock* ups = data();
    switch (event) {
    case EvUpsPoll:
        if (polling() == XcpOk) {
            checkNotify(&nt);
        } else {
            nt.code = NtUpsCommError;
            if (ups)
                ups->setCommAlert(false);
        }
        post(&nt);
        break;
    case EvUpsDetect:
        if (detect() == XcpOk) {
            nt.code = NtUpsEstablished;
            if (ups)
                ups->setCommAlert(true);
        } else {
            nt.code = NtUpsNotDetected;
            if (ups)
                ups->setCommAlert(false);
        }
        post(&nt);
        break;
    case EvUpsPowerOff:
        stopUps();
        break;
    case EvUpsRedetect:
        // A port lost under way is opened afresh by detection, which then
        // finds the line speed again.
        if (mPortFd < 1 && !mPortLost) {
            if (portOpen()) {
                nt.code = NtUpsCommRestored;
                if (ups)
                    ups->setPortAlert(true);
            } else {
                nt.code = NtUpsDetectAgain;
                if (ups)
                    ups->setPortAlert(false);
            }
        } else if (detect() == XcpOk) {
            nt.code = NtUpsCommRestored;
            if (ups)
                ups->setCommAlert(true);
        } else {
            nt.code = NtUpsDetectAgain;
        }
        post(&nt);
        break;
    default:
        break;
    }
}

void XcpIFTh::stopUps()
{
    // The UPS must get its stop; nothing is reported. An attempt that
    // cannot reach the line pauses like a written one would, and a line
    // that went away is opened again at the speed it had.
    for (;;) {
        if (mPortLost) {
            const int speed = mPort->getSpeed();
            if (portOpen())
                setBaudrate(speed);
        }
        int r = upsStop();
        if (r == XcpOk)
            return;
        if (r == XcpTooLong) {
            // The UPS takes no frame this long, and nothing can change its
            // limit while the stop runs: retrying would only spin.
            char text[160];
            snprintf(text, sizeof text,
                     "UPS stop not sent: the UPS accepts command frames of at most %u bytes",
                     static_cast<unsigned>(mMaxCommandLength));
            logProblem(text);
            return;
        }
        if (r == XcpPortClosed)
            pause(kWritePauseMs);
    }
}

// ---------------------------------------------------------------- port

int XcpIFTh::portOpen()
{
    portClose();
    FileMap* config = mConfig ? *mConfig : nullptr;
    std::string device = config ? config->getConf("DeviceName") : std::string();
    mPortFd = mPort->open(device);
    if (mPortFd < 0)
        return 0;
    mPortLost = false;
    flush();
    if (!mPort->makeRaw())
        return 0;
    setRTS(true);
    flush();
    return 1;
}

void XcpIFTh::portClose()
{
    // The descriptor value stays as it was; only a new open replaces it.
    setRTS(false);
    mPort->close();
}

void XcpIFTh::setBaudrate(int rate)
{
    mPort->setSpeed(rate);
    flush();
}

bool XcpIFTh::setRTS(bool on)
{
    if (mPortFd < 0)
        return false;
    mPort->setRTS(on);
    return true;
}

bool XcpIFTh::setDTR(bool on)
{
    if (mPortFd < 0)
        return false;
    mPort->setDTR(on);
    return true;
}

bool XcpIFTh::getModemStatus(int* status)
{
    if (mPortFd < 0)
        return false;
    return mPort->getModemStatus(status);
}

void XcpIFTh::flush()
{
    if (mPortFd >= 0)
        mPort->flush();
    mCommand.erase(1);
}

// ---------------------------------------------------------------- framing

int XcpIFTh::sendCommand(const char* bytes, int count)
{
    if (mPortFd < 0) {
        if (UpsDataBlock* ups = data())
            ups->setPortAlert(false);
        return XcpPortClosed;
    }
    return portWrite(reinterpret_cast<const unsigned char*>(bytes), count);
}

int XcpIFTh::portRead(unsigned char* buf, int max)
{
    int n = mPort->read(buf, max);
    if (n < 0)
        mPortLost = true;
    return n;
}

int XcpIFTh::portWrite(const unsigned char* buf, int count)
{
    int n = mPort->write(buf, count);
    if (n < 0)
        mPortLost = true;
    return n;
}

unsigned char XcpIFTh::setCheckSum() const
{
    unsigned sum = 0;
    for (unsigned char c : mCommand)
        sum += c;
    return static_cast<unsigned char>(0x100 - (sum & 0xFF));
}

int XcpIFTh::sendCommand()
{
    mCommand.insert(mCommand.begin() + 1, static_cast<char>((mCommand.size() - 1) & 0xFF));
    mCommand.push_back(static_cast<char>(setCheckSum()));
    if (mPortFd < 0) {
        if (UpsDataBlock* ups = data())
            ups->setPortAlert(false);
        return XcpPortClosed;
    }
    if (mCommand.size() > mMaxCommandLength)
        return XcpTooLong;
    const int size = static_cast<int>(mCommand.size());
    int written = portWrite(reinterpret_cast<const unsigned char*>(mCommand.data()), size);
    pause(kWritePauseMs);
    return written == size ? XcpOk : XcpShortWrite;
}

int XcpIFTh::readMore(unsigned char* buf, int* fill)
{
    // Bytes beyond the receive buffer are never read; the exchange's flush
    // discards them.
    if (*fill >= mMaxReplyLength)
        return 0;
    int n = portRead(buf + *fill, mMaxReplyLength - *fill);
    if (n <= 0)
        return n < 0 ? -1 : 0;
    *fill += n;
    return n;
}

bool XcpIFTh::awaitBytes(unsigned char* buf, int* fill, int want, long deadline, bool lastCounts)
{
    // Each turn blocks on the line until bytes come or the deadline passes,
    // so a quiet line costs one wake-up per window, not one per 50 ms. A
    // failing line ends the wait at once: it polls readable for ever and
    // would only spin.
    while (*fill < want) {
        const long left = deadline - mPort->nowMs();
        if (left <= 0 || !mPort->waitReadable(static_cast<int>(left)))
            return false;
        if (!lastCounts && mPort->nowMs() >= deadline)
            return false;
        if (readMore(buf, fill) < 0)
            return false;
    }
    return true;
}

void XcpIFTh::readAfterZero(unsigned char* buf, int* fill)
{
    // A zero in the zero-filled buffer may be a byte still on its way: one
    // short wait and one read before it is judged. A genuine zero costs
    // just this wait.
    mPort->waitReadable(kZeroByteMs);
    readMore(buf, fill);
}

int XcpIFTh::recvData(std::string* reply)
{
    const unsigned char code = mCommand.size() > 2 ? static_cast<unsigned char>(mCommand[2]) : 0;
    const unsigned char block = expectedBlock(code);
    if (mPortFd < 0)
        return XcpPortClosed;

    unsigned char buf[kMaxReplyLength];
    memset(buf, 0, sizeof buf);
    const int max = mMaxReplyLength;
    int fill = 0;

    // About 2 s of silence ends the exchange.
    const long firstByteDeadline = mPort->nowMs() + kFirstByteMs;
    if (readMore(buf, &fill) <= 0 && !awaitBytes(buf, &fill, 1, firstByteDeadline, true))
        return XcpTimeout;
    // The rest of the reply comes in this window. Nothing is judged before
    // its end and the line keeps what arrives, so one pause and one read
    // collect it.
    pause(kCollectMs);
    readMore(buf, &fill);

    // Walk the frames.
    int pos = 0;
    int sequence = 1;
    for (;;) {
        // The header (start, block, length, sequence) must fit.
        if (pos + 4 > max)
            return XcpTimeout;
        if (buf[pos] == 0)
            readAfterZero(buf, &fill);
        if (buf[pos] != kStartByte)
            return XcpNoStart;
        if (buf[pos + 1] == 0)
            readAfterZero(buf, &fill);
        if (buf[pos + 1] != block)
            return XcpWrongBlock;
        if (buf[pos + 2] == 0)
            readAfterZero(buf, &fill);
        const int end = pos + 4 + buf[pos + 2];
        // A frame whose checksum would lie beyond the receive buffer can
        // never be completed.
        if (end + 1 > max)
            return XcpTimeout;
        // About 5 s for the rest of a slow long frame. The limit is a hard
        // one: bytes that come only at the deadline do not complete the
        // frame (the first-byte wait, in contrast, still takes them).
        if (!awaitBytes(buf, &fill, end, mPort->nowMs() + kFrameMs, false))
            return XcpTimeout;
        unsigned sum = 0;
        for (int i = pos; i < end; ++i)
            sum += buf[i];
        if (buf[end] == 0)
            readAfterZero(buf, &fill);
        if (buf[end] != static_cast<unsigned char>(0x100 - (sum & 0xFF)))
            return XcpBadChecksum;
        reply->append(reinterpret_cast<const char*>(buf + pos + 4), static_cast<size_t>(end - pos - 4));
        const int seq = buf[pos + 3];
        if (seq == sequence + 0x80)
            return XcpOk;
        if (seq != sequence)
            return XcpBadSequence;
        pos = end + 1;
        ++sequence;
    }
}

int XcpIFTh::communicateUps(std::string* reply)
{
    int r = sendCommand();
    if (r == XcpOk)
        r = recvData(reply);
    flush();
    pause(kExchangePauseMs);
    return r;
}
