#include "log/LogTh.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <syslog.h>
#include <type_traits>
#include <unistd.h>
#include <utility>

#include "config/FileMap.h"
#include "control/Codes.h"
#include "control/StCTrl.h"
#include "core/Clock.h"
#include "core/ErrorLog.h"
#include "core/ShellRunner.h"
#include "ipc/IpcCTrlMTh.h"
#include "operator/CreateMultiControllerFile.h"

namespace {

std::string indexed(const char* family, int n)
{
    char key[64];
    snprintf(key, sizeof key, "%s%d", family, n);
    return key;
}

void replaceFirst(std::string* text, const std::string& what, const std::string& with)
{
    std::string::size_type at = text->find(what);
    if (at != std::string::npos)
        text->replace(at, what.size(), with);
}

// The display type and display host name of a member-side thread: type 1
// names the controller by its group name, type 2 by its host name, any
// other type by its address. Written against the thread class as it grows:
// a thread that offers no display type counts as "any other type".
template <typename T, typename = void>
struct HasDisplayType : std::false_type {};
template <typename T>
struct HasDisplayType<T, std::void_t<decltype(static_cast<int>(std::declval<T&>().GetDisplayType()))>>
    : std::true_type {};

template <typename T, typename = void>
struct HasDisplayHostName : std::false_type {};
template <typename T>
struct HasDisplayHostName<T, std::void_t<decltype(std::string(std::declval<T&>().GeDisplayHostName()))>>
    : std::true_type {};

template <typename T>
int displayType(T* thread)
{
    if constexpr (HasDisplayType<T>::value)
        return static_cast<int>(thread->GetDisplayType());
    else
        return 0;
}

template <typename T>
std::string displayHostName(T* thread, const std::string& configured)
{
    if constexpr (HasDisplayHostName<T>::value)
        return std::string(thread->GeDisplayHostName());
    else
        return configured;
}

// One shell word holding exactly `text`: single quotes around it, and each
// ' inside written as '\''.
std::string shellQuoted(const std::string& text)
{
    std::string out = "'";
    for (char c : text) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    return out + "'";
}

// Set while log files cannot be written: the failure is reported once, and
// again only after a line was written in between.
std::atomic<bool> gWriteFailing{false};

void reportWriteFailure(const std::string& path, int err)
{
    if (gWriteFailing.exchange(true))
        return;
    fprintf(stderr, "kestrava: cannot write the log file %s: %s; log lines are lost until it works again\n",
            path.c_str(), strerror(err));
    syslog(LOG_DAEMON | LOG_ERR, "cannot write the log file %s: %s; log lines are lost until it works again",
           path.c_str(), strerror(err));
}

} // namespace

LogTh::LogTh(int number, StCTrl* ctrl, const Wiring& wiring, Clock* clock)
    : tthread(number), mCtrl(ctrl), mWiring(wiring), mClock(clock), mVariant(0), mMapPresent(0),
      mHostNameSource(&::gethostname), mMeter(ctrl, wiring.config, wiring.ups)
{
    if (!mWiring.messages)
        mWiring.messages = &mNoMessages;
}

std::string LogTh::conf(const std::string& key)
{
    FileMap* map = mWiring.config ? *mWiring.config : nullptr;
    return map ? map->getConf(key) : std::string();
}

LogTh::~LogTh() {}

void LogTh::setMessageMapPresent(int flag) { mMapPresent = flag; }

void LogTh::setHostNameSource(HostNameSource source) { mHostNameSource = source ? source : &::gethostname; }

void LogTh::thread_main()
{
    EVENTMSGINFO ev;
    for (;;) {
        mCtrl->GetEvent(&ev, GetMyThrad());
        writeLog(&ev);
    }
}

time_t LogTh::now() { return mClock ? mClock->now() : Clock::system().now(); }

std::string LogTh::logDirectory() { return conf("Path") + "/log" + "/"; }

void LogTh::writeLog(EVENTMSGINFO* ev)
{
    switch (ev->code) {
    case EvPowerFailReport:
        ReportCountdown(ev->params[0], ev->params[1]);
        break;
    case EvPowerRestoredReport:
        ReportCancel(ev->params[0]);
        break;
    case EvScheduleReport:
        scheduleShutdown(ev->params[0], ev->params[1]);
        break;
    case EvScheduleCancelReport:
        scheduleCancel(ev->params[0]);
        break;
    case EvLog:
        ensureLogDirectory();
        eventLogLines(ev, now());
        break;
    case EvMeterLog:
        ensureLogDirectory();
        mMeter.writeLine(ev, logDirectory(), now());
        break;
    case EvLogDelete:
        mMeter.deleteExpired(logDirectory(), now());
        break;
    case EvMessageFile:
        ReloadAlertFile(ev->params[0]);
        break;
    case EvControllerInfo:
        controllerInformation();
        break;
    case EvMemberShutdownLog:
        shutdownLog(ev->params[0], ev->params[1]);
        break;
    default:
        break;
    }
}

int LogTh::write(std::string* path, std::string* line)
{
    FILE* f = fopen(path->c_str(), "ae");
    if (!f) {
        reportWriteFailure(*path, errno);
        return 0;
    }
    // A full disk shows at the flush, so the close counts as much as the write.
    bool written = fprintf(f, "%s\n", line->c_str()) >= 0;
    int err = errno;
    if (fclose(f) != 0 && written) {
        written = false;
        err = errno;
    }
    if (!written) {
        reportWriteFailure(*path, err);
        return 0;
    }
    gWriteFailing = false;
    return 1;
}

// ---------------------------------------------------------------- event log

void LogTh::eventLogLines(const EVENTMSGINFO* ev, time_t t)
{
    int count = ev->count > 256 ? 256 : ev->count;
    if (count <= 1)
        return;

    tzset();
    struct tm tmv;
    memset(&tmv, 0, sizeof tmv);
    localtime_r(&t, &tmv);
    char name[32];
    snprintf(name, sizeof name, "%d%02d.log", tmv.tm_year + 1900, tmv.tm_mon + 1);
    std::string path = logDirectory() + name;
    char stamp[64];
    snprintf(stamp, sizeof stamp, "%d/%02d/%02d %02d:%02d:%02d ", tmv.tm_year + 1900, tmv.tm_mon + 1, tmv.tm_mday,
             tmv.tm_hour, tmv.tm_min, tmv.tm_sec);

    const int index = ev->params[0];
    std::string suffix;
    if (index > 1 && conf("UPSController") != "1")
        originSuffix(&suffix, index);

    std::string host = hostName();
    // Item i is the message number in parameter i + 1; the parameter after
    // it is the value a "$MINUTES" of that message stands for. A value so
    // used (and the value that codes 0 and 204 always carry) is not read
    // again as a message number of its own.
    for (int i = 0; i < count - 1; ++i) {
        const int code = ev->params[i + 1];
        std::string line = stamp + suffix + message(std::to_string(code));
        int minutes = i + 2 < 256 ? ev->params[i + 2] : 0;
        replaceFirst(&line, "$MACHINE", host);
        bool usedValue = line.find("$MINUTES") != std::string::npos;
        replaceFirst(&line, "$MINUTES", std::to_string(minutes));
        replaceFirst(&line, "$SEGMENT", "");
        write(&path, &line);
        if ((usedValue || code == LogCountdownMinute || code == LogScheduleWarning) && i + 1 < count - 1)
            ++i;
    }
}

void LogTh::originSuffix(std::string* out, int index)
{
    out->clear();
    int slot = index - 7;
    if (index < 8 || index > 11)
        return;
    IpcCTrlMTh* thread = mWiring.memberThreads ? mWiring.memberThreads[index - 8] : nullptr;
    if (!thread)
        return;
    std::string name;
    switch (displayType(thread)) {
    case 1:
        name =
            mWiring.members && *mWiring.members ? (*mWiring.members)->getConf(indexed("UGName", slot)) : std::string();
        break;
    case 2:
        name = displayHostName(thread, conf(indexed("HostName", slot)));
        break;
    default:
        name = conf(indexed("CtrlIPAddress", slot));
        break;
    }
    // Host and group names come from the network: no control character of
    // theirs reaches a log line.
    *out = "(" + ErrorLog::printable(name, 64) + ")";
}

std::string LogTh::message(const std::string& number)
{
    FileMap* messages = mWiring.messages ? *mWiring.messages : nullptr;
    if (!mMapPresent || !messages)
        return std::string();
    return messages->getConf(number);
}

std::string LogTh::hostName()
{
    char name[256];
    memset(name, 0, sizeof name);
    if (mHostNameSource(name, sizeof name - 1) != 0 || name[0] == 0)
        return "localhost";
    return name;
}

// ---------------------------------------------------------------- log directory

void LogTh::ensureLogDirectory()
{
    std::string path = conf("Path");
    if (path.empty()) {
        // Never create a "log" directory at the root of the file system.
        reportLogDirectoryProblem("the configuration key \"Path\" is empty; no log is written");
        return;
    }
    std::string dir = path + "/log";
    if (mkdir(dir.c_str(), 0755) == 0 || errno == EEXIST) {
        mLogDirProblem.clear();
        return;
    }
    reportLogDirectoryProblem("cannot create the log directory " + dir + ": " + strerror(errno));
}

void LogTh::reportLogDirectoryProblem(const std::string& problem)
{
    // Each problem is reported once, not at every event.
    if (problem == mLogDirProblem)
        return;
    mLogDirProblem = problem;
    fprintf(stderr, "kestrava: %s\n", problem.c_str());
    syslog(LOG_DAEMON | LOG_ERR, "%s", problem.c_str());
}

// ---------------------------------------------------------------- broadcasts

void LogTh::MsgDisp(const char* text)
{
    ShellRunner& shell = mWiring.shell ? *mWiring.shell : ShellRunner::system();
    if (shell.run("wall " + shellQuoted(text)) == 0)
        return;
    // The shell could not take the text as an argument: hand it to "wall"
    // in a file instead.
    std::string spill = homeDir() + "SndMsgStr.tmp";
    unlink(spill.c_str());
    std::string line = text;
    write(&spill, &line);
    shell.run("wall " + shellQuoted(spill));
    unlink(spill.c_str());
}

void LogTh::GetCtrlName(std::string* out, int index)
{
    if (conf("UPSController") == "1") {
        out->clear();
        return;
    }
    *out = "(" + ErrorLog::printable(conf(indexed("CtrlIPAddress", index - 7)), 64) + ")";
}

void LogTh::ReportCountdown(int minutes, int index)
{
    std::string text;
    GetCtrlName(&text, index);
    if (minutes == 1) {
        text += message("1");
    } else {
        text += message("0");
        replaceFirst(&text, "$MINUTES", std::to_string(minutes));
    }
    replaceFirst(&text, "$MACHINE", hostName());
    MsgDisp(text.c_str());
}

void LogTh::ReportCancel(int index)
{
    std::string text;
    GetCtrlName(&text, index);
    text += message("2");
    replaceFirst(&text, "$MACHINE", hostName());
    MsgDisp(text.c_str());
}

void LogTh::scheduleShutdown(int minutes, int index)
{
    std::string text;
    GetCtrlName(&text, index);
    text += message("204");
    replaceFirst(&text, "$MINUTES", std::to_string(minutes));
    MsgDisp(text.c_str());
}

void LogTh::scheduleCancel(int index)
{
    std::string text;
    GetCtrlName(&text, index);
    text += message("206");
    MsgDisp(text.c_str());
}

// ---------------------------------------------------------------- message file

void LogTh::ReloadAlertFile(int mode)
{
    int wanted = mode == 3 ? 3 : 1;
    if (wanted == mVariant)
        return;
    std::string path = conf("Path") + "/" + (wanted == 3 ? "alert3so.rc" : "alert.rc");
    FileMap* fresh = new FileMap(path);
    if (!fresh->isLoaded()) {
        // Without the new texts the operator still gets the old ones; the
        // switch is tried again at the next request.
        delete fresh;
        if (mAlertProblem != path) {
            mAlertProblem = path;
            ErrorLog::report("cannot read the message file " + path + "; the texts in use are kept");
        }
        return;
    }
    mAlertProblem.clear();
    // The new map is complete before it replaces the old one, so readers
    // never see a half-loaded map.
    FileMap* old = *mWiring.messages;
    *mWiring.messages = fresh;
    if (mMapPresent)
        delete old;
    mMapPresent = 1;
    mVariant = wanted;
}

// ---------------------------------------------------------------- member files

std::string LogTh::dataDirectory()
{
    return CreateMultiControllerFile::DataDir(mWiring.config ? *mWiring.config : nullptr, homeDir());
}

// Display type of the member-side thread of slot 0..3; -1 when it does not run.
int LogTh::memberDisplayType(int slot)
{
    IpcCTrlMTh* thread = mWiring.memberThreads && slot >= 0 && slot < 4 ? mWiring.memberThreads[slot] : nullptr;
    return thread ? displayType(thread) : -1;
}

void LogTh::controllerInformation()
{
    ShutCNT info;
    mCtrl->GetContInfo(&info);
    FileMap* config = mWiring.config ? *mWiring.config : nullptr;
    FileMap* members = mWiring.members ? *mWiring.members : nullptr;
    CreateMultiControllerFile::WriteControllerInf(&info, dataDirectory().c_str(), config, members,
                                                  [this](int slot) { return memberDisplayType(slot); });
}

void LogTh::shutdownLog(int slot, int reason)
{
    if (slot < 0 || slot > 3)
        return;
    DG2_ShutdownTimming timing;
    memset(&timing, 0, sizeof timing);
    timing.winkTime = mCtrl->getWinkTime(slot);
    timing.shutdownTime = mCtrl->getCountdownTime(slot);
    timing.appTermTimeOut = mCtrl->getAppEndTime(slot);
    timing.shutdownDelay = mCtrl->getShutdownDelay(slot);
    std::string command = mCtrl->getRunCommand(slot);
    strncpy(timing.appTermCommand, command.c_str(), sizeof timing.appTermCommand - 1);
    // The application-end time is marked when a termination command runs in it.
    timing.marker = command.empty() ? 0 : 1;
    FileMap* config = mWiring.config ? *mWiring.config : nullptr;
    FileMap* members = mWiring.members ? *mWiring.members : nullptr;
    std::string controller =
        CreateMultiControllerFile::DisplayName(memberDisplayType(slot), slot + 1, config, members);
    CreateMultiControllerFile::WriteShutdownLog(1, controller.c_str(), reason, &timing, dataDirectory().c_str());
}
