// UpsSimulator: the running simulated UPS. Ties the pseudo-terminal, the
// frame reader, the UPS model, the traffic log and the control inputs
// (standard input and the control socket) together in one poll loop:
// reads the daemon's frames, answers them when the line speed is one the
// UPS accepts, and carries out the runtime commands.
#ifndef KESTRAVA_TOOLS_UPSSIM_UPSSIMULATOR_H
#define KESTRAVA_TOOLS_UPSSIM_UPSSIMULATOR_H

#include <atomic>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "tools/upssim/ControlServer.h"
#include "tools/upssim/FrameLog.h"
#include "tools/upssim/PseudoTerminal.h"
#include "tools/upssim/SimOptions.h"
#include "tools/upssim/UpsModel.h"
#include "tools/upssim/XcpCommandReader.h"

namespace upssim {

class UpsSimulator {
public:
    // Bytes sent by "garbage": not a start byte first, so the host sees
    // no valid frame start.
    static const unsigned char kGarbage[6];

    explicit UpsSimulator(const SimOptions& options);
    ~UpsSimulator();
    UpsSimulator(const UpsSimulator&) = delete;
    UpsSimulator& operator=(const UpsSimulator&) = delete;

    // Creates the pseudo-terminal, opens the log and the control socket.
    bool start(std::string* error);
    const std::string& slavePath() const { return pty_.slavePath(); }
    // What the host is to open: the --link path, else the terminal itself.
    const std::string& devicePath() const;

    // Reads runtime commands from fd (standard input); answers go to out.
    // End of file on fd only stops reading it.
    void setCommandInput(int fd, FILE* out);
    // Notes go to this stream as well (standard error), unless null.
    void setNoteStream(FILE* notes) { notes_ = notes; }

    // Serves until quit or requestStop(); closes the control socket.
    int run();
    // Safe from other threads and from signal handlers.
    void requestStop();
    int wakeFd() const { return wakeWrite_; }

    // Carries out one runtime command line and returns its answer line;
    // *quit is set by "quit". Safe from other threads.
    std::string execute(const std::string& line, bool* quit);

    int lineSpeed() const { return pty_.lineSpeed(); }

private:
    struct PendingReply {
        long dueMs;
        std::vector<Bytes> frames;
    };
    // A fault played on the next replies (or requests, for Silent).
    enum class FaultKind { None, Checksum, Sequence, Truncate, Split, Silent };

    // Applies the pending fault, if any, to one reply about to be queued.
    void queueReply(std::vector<Bytes> frames, long due);
    std::string faultCommand(const std::vector<std::string>& w);
    std::string faultText() const;
    void hangUp(long now, long ms);
    bool reopenTerminal(std::string* error);
    bool pointLink(std::string* error);

    static long nowMs();
    void note(const std::string& text);
    void readTerminal(long now);
    void handleItem(const XcpCommandReader::Item& item, int speed, long now);
    void sendDue(long now);
    void sendGarbage();
    void checkSpeed();
    void requestWake();
    void readCommandInput();
    std::string executeLocked(const std::string& line, bool* quit);
    std::string statusLocked();

    SimOptions options_;
    PseudoTerminal pty_;
    XcpCommandReader reader_;
    UpsModel model_;
    FrameLog log_;
    ControlServer control_;
    std::mutex mu_;  // guards the model and the settings below
    std::deque<PendingReply> pending_;
    bool silent_ = false;
    bool garbageNext_ = false;
    bool garbageNow_ = false;
    long delayMs_ = 0;
    FaultKind fault_ = FaultKind::None;
    int faultCount_ = 0;
    long faultMs_ = 0;
    long reopenAtMs_ = -1;  // >= 0 while the terminal is hung up
    int lastSpeed_ = -1;
    long rxFrames_ = 0, txFrames_ = 0, ignoredFrames_ = 0;
    int inputFd_ = -1;
    FILE* inputAnswers_ = nullptr;
    std::string inputLine_;
    FILE* notes_ = nullptr;
    int wakeRead_ = -1;
    int wakeWrite_ = -1;
    std::atomic<bool> stop_{false};
};

}  // namespace upssim

#endif
