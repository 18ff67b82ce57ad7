// LogTh: the log thread (number 5). Turns the log events of the event queue
// into text: lines of the monthly event log, lines of the daily meter log
// and the deletion of old meter logs, broadcasts to all terminals through
// "wall", the switch between the message files, and the hand-over of the
// controller information and shutdown logs of a member.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>

#include "control/Records.h"
#include "core/tthread.h"
#include "log/MeterLog.h"

class Clock;
class FileMap;
class IpcCTrlMTh;
class ShellRunner;
class StCTrl;
class UpsDataBlock;

class LogTh : public tthread {
public:
    // What the thread reads, handed over once by the composition root. The
    // maps are given by the address of the pointer that start-up fills (the
    // thread object exists before the maps are loaded).
    struct Wiring {
        FileMap** config = nullptr;              // "Kestrava.ini"
        FileMap** messages = nullptr;            // message texts; replaced by this thread at a switch
        FileMap** members = nullptr;             // "Membercnt.cfg" (member role)
        UpsDataBlock** ups = nullptr;            // the UPS data, for meter lines
        const std::string* homeDir = nullptr;    // where the member files and the broadcast spill go
        IpcCTrlMTh* const* memberThreads = nullptr; // the four slots' protocol threads (member role)
        ShellRunner* shell = nullptr;            // runs "wall"; the system runner when null
    };

    // ctrl: the controller whose queue this thread serves and whose state
    // and settings it reads. clock: where the time of every entry comes
    // from (the system clock when null).
    LogTh(int number, StCTrl* ctrl, const Wiring& wiring, Clock* clock = nullptr);
    ~LogTh() override;

    // Start-up reports with 1 that it has loaded the message map; from then on this thread reads the map and owns it
    // when it switches message files.
    void setMessageMapPresent(int flag);

    // Dispatches one event by its code; codes not handled are ignored.
    void writeLog(EVENTMSGINFO* ev);

    // Appends the line and a line feed to the file (created if missing).
    // 1 on success; 0 when the file cannot be opened or written, reported
    // once until a later write succeeds.
    static int write(std::string* path, std::string* line);

    // Broadcasts the text to all terminals. The text reaches "wall" as one
    // single-quoted shell word: no character of it is read by the shell.
    void MsgDisp(const char* text);

    // Selects the message file: "alert3so.rc" for mode 3, "alert.rc" for
    // any other mode. A file that cannot be read leaves the texts in use
    // (reported once); the next request tries again.
    void ReloadAlertFile(int mode);

    // The controller's name for broadcasts: "" on the controller,
    // "(address)" of the followed controller on a member.
    void GetCtrlName(std::string* out, int index);

    void ReportCountdown(int minutes, int index);
    void ReportCancel(int index);
    void scheduleShutdown(int minutes, int index);
    void scheduleCancel(int index);

    // Where this machine's host name is read from (gethostname unless a
    // test replaces it); a source that fails reads as "localhost".
    typedef int (*HostNameSource)(char* name, size_t length);
    void setHostNameSource(HostNameSource source);

    // The message-file variant in use: 0 none switched yet, 1 "alert.rc",
    // 3 "alert3so.rc".
    int currentVariant() const { return mVariant; }

    // Value of "Path" + "/log" + "/": the directory of both logs.
    std::string logDirectory();

protected:
    void thread_main() override;

private:
    std::string conf(const std::string& key);
    std::string homeDir() const { return mWiring.homeDir ? *mWiring.homeDir : std::string(); }
    time_t now();
    void eventLogLines(const EVENTMSGINFO* ev, time_t t);
    void originSuffix(std::string* out, int index);
    void ensureLogDirectory();
    void reportLogDirectoryProblem(const std::string& problem);
    std::string message(const std::string& number);
    std::string hostName();
    void controllerInformation();
    void shutdownLog(int slot, int reason);
    int memberDisplayType(int slot);
    std::string dataDirectory();

    StCTrl* mCtrl;
    Wiring mWiring;
    FileMap* mNoMessages = nullptr; // the message map slot when none was wired
    Clock* mClock;
    int mVariant;
    int mMapPresent;
    HostNameSource mHostNameSource;
    MeterLog mMeter;
    std::string mLogDirProblem; // last problem reported about the log directory
    std::string mAlertProblem;  // message file last reported as unreadable
};
