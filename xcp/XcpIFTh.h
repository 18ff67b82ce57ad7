// XcpIFTh: the UPS interface thread (number 3). Speaks XCP to the UPS on the
// serial line: opens and sets up the port, frames commands and checks the
// replies (XcpIFTh.cpp), detects, identifies and polls the UPS and reports to
// the controller (XcpIFThDetect.cpp), and sends the action commands: delayed
// power-off with restart, load on, outlet and scheduling parameters, line
// speed (XcpIFThCommands.cpp).
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "control/Records.h"
#include "daemon/Globals.h"
#include "core/tthread.h"

class FileMap;
class SerialPort;
class Sleeper;
class StCTrl;
class UpsDataBlock;
class XcpTh;

class XcpIFTh : public tthread {
public:
    // Result codes of the link, passed up unchanged by every request.
    enum Result {
        XcpOk = 0,
        XcpPortClosed = 1,    // port not open
        XcpTooLong = 2,       // frame longer than the maximum command length; nothing written
        XcpShortWrite = 3,    // the write took fewer bytes than the frame has
        XcpNoStart = 4,       // no start byte where a reply frame must begin
        XcpWrongBlock = 5,    // reply frame of another block
        XcpTimeout = 6,       // no reply, or a frame that stays incomplete
        XcpBadChecksum = 7,   // checksum wrong, or a command reply that does not echo the command
        XcpBadSequence = 8,   // sequence number out of order
        XcpListMismatch = 9,  // command list count mismatch
    };

    static constexpr unsigned char kStartByte = 0xAB;
    static constexpr uint16_t kInitialMaxCommandLength = 8;
    static constexpr uint16_t kMaxReplyLength = 1210;

    // ctrl: the controller notified of results and asked for the shutdown
    // timing. port: the serial line (null: a TermiosSerialPort owned here).
    // config, data: where the configuration map and the UPS data are found
    // at the time of use. events: the queue of XcpTh. sleeper: how pauses
    // are taken (null: real sleeping).
    explicit XcpIFTh(int number, StCTrl* ctrl = &gCStCtrl, SerialPort* port = nullptr,
                     FileMap** config = &gpMapConfig, UpsDataBlock** data = &gUpsData,
                     XcpTh* events = &gCXcpThread, Sleeper* sleeper = nullptr);
    ~XcpIFTh() override;

    XcpIFTh(const XcpIFTh&) = delete;
    XcpIFTh& operator=(const XcpIFTh&) = delete;

    // ---- serial link and framing ----
    int portOpen();
    void portClose();
    void setBaudrate(int rate);
    bool setRTS(bool on);
    bool setDTR(bool on);
    bool getModemStatus(int* status);
    void flush();
    // Writes bytes as they are, without framing.
    int sendCommand(const char* bytes, int count);
    // The checksum byte of the command buffer as it stands.
    unsigned char setCheckSum() const;
    // Frames and writes the command buffer.
    int sendCommand();
    // Reads and checks one reply; the data bytes of all its frames are
    // appended to *reply.
    int recvData(std::string* reply);
    // One exchange: send, receive, flush, pause.
    int communicateUps(std::string* reply);

    // ---- detection and polling ----
    // Takes one event from the XCP queue and acts on it.
    void commStart();
    int detect();
    int polling();
    bool isSupportCommand(unsigned char code) const;
    int plugAndPlay();
    int baudrateHunting();
    int standardAuth();
    int standardIDBlockRequest();
    int standardUpsStatusDataBlockRequest();
    int standardMetersBlockRequest();
    int currentAlarmsAndEventsDataRequest();
    int configBlockRequest();
    int batteryTestResultRequest();
    int extendedLimitsBlockRequest();
    int commandListBlockRequest();
    int outletMonitoringBlockRequest();
    int communicationCapabilitiesBlockRequest();
    int upsTopologyDataBlockRequest();
    // Fills a 2002 poll-result notification.
    void checkNotify(_NOTIFYMSGINFO* nt);

    // ---- action commands ----
    int upsStop();
    int delayedLoadPowerOffAndRestartRequest(int segment);
    int setUPSOn(int segment);
    int setScheduledUPSOnOff(int segment);
    int sendOutletParameter(int segment);
    int setCommunicationParameter(int rate);

    // ---- state, for the daemon's diagnostics and for tests ----
    int portDescriptor() const { return mPortFd; }
    // True after a read or write on the open port failed: the device went
    // away, and the next detection opens it afresh.
    bool portLost() const { return mPortLost; }
    int currentBaudrate() const { return mBaudrate; }
    uint16_t maxCommandLength() const { return mMaxCommandLength; }
    void setMaxCommandLength(uint16_t length) { mMaxCommandLength = length; }
    const std::set<unsigned char>& supportedCommands() const { return mSupported; }
    // The frame under construction; requests append their code and
    // arguments after the start byte.
    std::string& commandBuffer() { return mCommand; }

protected:
    void thread_main() override;

private:
    UpsDataBlock* data() const { return mData ? *mData : nullptr; }
    void pause(int ms);
    void post(_NOTIFYMSGINFO* nt);
    // A block request: code (and argument bytes) sent when supported, the
    // reply handed to the parser on success.
    int blockRequest(unsigned char code, const std::string& args, void (UpsDataBlock::*parser)(const std::string&));
    // One identification exchange (0xA0 or "1") into *reply.
    int identify(unsigned char code, std::string* reply);
    // Common steps of the action commands: support test (unless always),
    // authentication, exchange, echo test (when check).
    int actionCommand(unsigned char code, const std::string& args, bool always, bool check);
    // Appends bytes read from the port to the receive buffer; the count
    // read, -1 when the read failed.
    int readMore(unsigned char* buf, int* fill);
    // Waits for and reads bytes until the buffer holds want bytes (true) or
    // the deadline on the port's clock passes or the line fails (false);
    // lastCounts: bytes that come just at the deadline still count.
    bool awaitBytes(unsigned char* buf, int* fill, int want, long deadline, bool lastCounts);
    // One short wait and one read, for a zero byte that may not have come.
    void readAfterZero(unsigned char* buf, int* fill);
    // Reads from or writes to the port, noting a failure as a lost port.
    int portRead(unsigned char* buf, int max);
    int portWrite(const unsigned char* buf, int count);
    // The stop (event 202): repeated until the UPS accepts it.
    void stopUps();
    void updateIdentity();

    // Link members.
    int mPortFd;
    std::set<unsigned char> mSupported;
    uint16_t mMaxCommandLength;
    const uint16_t mMaxReplyLength;
    std::string mCommand;
    int mBaudrate;
    bool mPortLost;

    SerialPort* mPort;
    bool mOwnsPort;
    StCTrl* mCtrl;
    FileMap** mConfig;
    UpsDataBlock** mData;
    XcpTh* mEvents;
    Sleeper* mSleeper;
};
