#include "daemon/StartUp.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "config/FileMap.h"
#include "control/Codes.h"
#include "control/PowerTh.h"
#include "control/StCTrl.h"
#include "control/TimerIFTh.h"
#include "control/TimerTh.h"
#include "core/DaemonLock.h"
#include "core/ErrorLog.h"
#include "core/FatalStop.h"
#include "daemon/Globals.h"
#include "daemon/Signals.h"
#include "core/SystemPaths.h"
#include "ipc/GetHostNameTh.h"
#include "ipc/IpcCTrlCTh.h"
#include "ipc/IpcCTrlMTh.h"
#include "ipc/IpcData.h"
#include "ipc/IpcIFTh.h"
#include "log/LogTh.h"
#include "operator/CreateMultiControllerFile.h"
#include "operator/CuiIFTh.h"
#include "xcp/UpsDataBlock.h"
#include "xcp/XcpIFTh.h"
#include "xcp/XcpTh.h"

namespace {

// Permission argument of the member's "CONTROLLER" and "SHUTDOWN"
// directories. It is 777 in DECIMAL (mode 01411), as the installed member
// directories have always been made; it is not 0777.
const mode_t kMemberDirMode = 777;

// The run's role and the device lock it holds, known from the role set-up on.
bool gMember = false;
std::string gDeviceLock;

// Start-up failure before any worker runs: say why, drop the maps made so
// far, exit 1.
[[noreturn]] void failStartUp(const std::string& why)
{
    ErrorLog::report(why);
    delete gpMapConfig;
    gpMapConfig = nullptr;
    delete gpMapMessage;
    gpMapMessage = nullptr;
    exit(1);
}

// Ends the process in order once workers may be running: the global objects
// are not destroyed under them (fflush and _exit, as the termination handler
// does).
[[noreturn]] void endInOrder(int status, const char* why)
{
    int code = StartUp::stopInOrder(status, why, gDeviceLock, SystemPaths::pidFile());
    fflush(nullptr);
    _exit(code);
}

// Starts one worker and tells the controller core that it runs; a thread that
// cannot be created ends the daemon in order.
// Workers are created with the termination signal blocked, so the signal is
// always taken by the main thread, which never holds the controller's or a
// configuration map's lock while it waits: the termination handler, which
// takes both, cannot deadlock against the thread it interrupted.
void start(tthread& thread)
{
    sigset_t term, previous;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, &previous);
    // Marked first: events posted for it from now on are queued for it.
    gCStCtrl.markRunning(thread.GetMyThrad());
    bool started = thread.st();
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (started == false)
        endInOrder(1, "cannot start a worker thread");
}

// The main thread's wait: up to timeoutMs (-1: no limit) for a fatal stop
// request or the termination signal. The signal runs the stop sequence
// (which never returns); true on a fatal stop request.
bool waitForStop(int timeoutMs)
{
    pollfd fds[2] = {{FatalStop::descriptor(), POLLIN, 0}, {NS_SignalDescriptor(), POLLIN, 0}};
    if (fds[0].fd < 0) // no descriptor: the request is still seen, once a second
        return timeoutMs < 0 ? FatalStop::waitFor(1) : FatalStop::waitFor((timeoutMs + 999) / 1000);
    if (::poll(fds, 2, timeoutMs) > 0 && (fds[1].revents & POLLIN) && NS_TakeSignal())
        NS_TermHandler(SIGTERM);
    return FatalStop::requested();
}

int confNum(FileMap* map, const std::string& key)
{
    return static_cast<int>(strtol(map->getConf(key).c_str(), nullptr, 10));
}

std::string indexed(const char* format, int n)
{
    char key[64];
    snprintf(key, sizeof key, format, n);
    return key;
}

// The member's data directory: "Path" with a trailing slash, the home
// directory when "Path" is empty.
std::string memberDataDir()
{
    std::string path = gpMapConfig->getConf("Path");
    if (path.empty())
        return gHomeDir;
    if (path.back() != '/')
        path += '/';
    return path;
}

// The shutdown timing received from the controller goes to all four
// controller indexes (the same values for each).
void storeReceivedTiming(const DG2_ShutdownTimming& t)
{
    for (int n = 1; n <= 4; ++n) {
        char value[32];
        snprintf(value, sizeof value, "%i", t.winkTime);
        gpMapConfig->setConf(indexed("WinkTime%d", n), value);
        snprintf(value, sizeof value, "%i", t.shutdownTime);
        gpMapConfig->setConf(indexed("ShutdownTime%d", n), value);
        snprintf(value, sizeof value, "%i", t.appTermTimeOut);
        gpMapConfig->setConf(indexed("AppTermTimeOut%d", n), value);
        snprintf(value, sizeof value, "%i", t.shutdownDelay);
        gpMapConfig->setConf(indexed("ShutdownDelay%d", n), value);
        gpMapConfig->setConf(indexed("AppTermCommand%d", n), t.appTermCommand);
    }
}

// Creates a member directory with the member directory mode. The mode is set
// again after creation so that the process umask cannot clear bits of it.
void makeMemberDir(const std::string& path)
{
    if (mkdir(path.c_str(), kMemberDirMode) == 0)
        chmod(path.c_str(), kMemberDirMode);
}

} // namespace

std::string StartUp::homeDirOf(const char* argv0)
{
    if (!argv0)
        return std::string();
    std::string path(argv0);
    std::string::size_type slash = path.rfind('/');
    if (slash == std::string::npos)
        return std::string();
    return path.substr(0, slash + 1);
}

std::string StartUp::deviceBaseName(const std::string& device)
{
    std::string::size_type slash = device.rfind('/');
    if (slash == std::string::npos)
        return device;
    return device.substr(slash + 1);
}

int StartUp::stopInOrder(int status, const char* reason, const std::string& deviceLock, const std::string& pidFile)
{
    if (!deviceLock.empty())
        unlink(deviceLock.c_str());
    // The pid file is the one the starting process wrote for this daemon;
    // one that records another process is not ours to remove.
    if (!pidFile.empty() && read_pid(pidFile.c_str()) == getpid())
        unlink(pidFile.c_str());
    const char* why = reason && *reason ? reason : "no reason given";
    fprintf(stderr, "kestrava: stopping with status %d: %s\n", status, why);
    syslog(LOG_DAEMON | LOG_ERR, "stopping with status %d: %s", status, why);
    return status;
}

int StartUp::run(int argc, char** argv)
{
    // The fixed outside paths are fixed for the whole run.
    SystemPaths::load();
    findHomeDir(argc, argv);
    loadMessages();
    loadConfiguration();
    clearStaleFiles();
    daemonise();
    gMember = gpMapConfig->getConf("UPSController") == "2";
    if (gMember)
        setUpMember();
    else
        lockDevice();
    startWorkers();
    startNetwork();
    waitAndStop();
}

// Every per-installation file is named from the home directory.
void StartUp::findHomeDir(int argc, char** argv)
{
    gHomeDir = homeDirOf(argc > 0 ? argv[0] : nullptr);
    // A relative home directory ("./", or none when started through PATH
    // lookup from the current directory) is made absolute now, so that it
    // still names the same directory after the daemon moves to "/".
    if (gHomeDir.empty() || gHomeDir[0] != '/') {
        char cwd[4096];
        if (getcwd(cwd, sizeof cwd)) {
            std::string base(cwd);
            if (base.empty() || base.back() != '/')
                base += '/';
            gHomeDir = base + gHomeDir;
        }
    }
}

// Operator message texts.
void StartUp::loadMessages()
{
    gpMapMessage = new (std::nothrow) FileMap(gHomeDir + "alert.rc");
    if (!gpMapMessage || !gpMapMessage->isLoaded())
        failStartUp("cannot read the message file " + gHomeDir + "alert.rc");
    // From here on the log thread reads (and owns) the message map.
    gCLogThread.setMessageMapPresent(1);
}

void StartUp::loadConfiguration()
{
    gpMapConfig = new (std::nothrow) FileMap(gHomeDir + "Kestrava.ini");
    if (!gpMapConfig || !gpMapConfig->isLoaded())
        failStartUp("cannot read the configuration file " + gHomeDir + "Kestrava.ini");
}

// State of a previous run is never reused; the UPS data starts empty until
// the UPS link fills it.
void StartUp::clearStaleFiles()
{
    unlink((gHomeDir + "MembInfo.dat").c_str());
    unlink((gHomeDir + "membCommInfo.tmp").c_str());
    unlink((gHomeDir + "upsCommInfo.tmp").c_str());
    gUpsData = new (std::nothrow) UpsDataBlock;
    if (!gUpsData)
        failStartUp("out of memory");
}

// Into the background, in a session of its own, holding no directory.
void StartUp::daemonise()
{
    BecomeDaemon();
    setsid();
    // "/" always exists; nothing later depends on the working directory.
    int cwd = chdir("/");
    (void)cwd;
    // Nothing reads the daemon's standard output: it goes nowhere, so that a
    // supervisor's pipe left unread can never block a write. Standard error
    // stays where BecomeDaemon put it.
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) {
        dup2(null, STDOUT_FILENO);
        if (null != STDOUT_FILENO)
            close(null);
    }
    if (NS_SigHandle() != 0)
        failStartUp("cannot take the termination signal");
}

// The controller list, the timing last received from the controller and the
// member's operator directories.
void StartUp::setUpMember()
{
    // The member's operator files ("Controller.inf", "Controller.log", the
    // shutdown logs) live below the data directory, like every other file
    // the daemon writes for the operator; the start-up check already
    // writes into them.
    const std::string data = memberDataDir();
    makeMemberDir(data + "CONTROLLER");
    makeMemberDir(data + "SHUTDOWN");
    int result = CreateMultiControllerFile::CheckControllerFile(
        gpMapConfig->getConf("IPAddress"), confNum(gpMapConfig, "MemberPort"), gHomeDir, gpMapConfig, &gpm_Memcnt,
        gCStCtrl.ShutdownTimming(), gCStCtrl.TimingChanged());
    gCStCtrl.SetCheckResult(result);
    if (!gpm_Memcnt)
        failStartUp("cannot read the controller list " + gHomeDir + "Membercnt.cfg");
    if (*gCStCtrl.TimingChanged())
        storeReceivedTiming(*gCStCtrl.ShutdownTimming());
}

// The serial device belongs to this daemon alone.
void StartUp::lockDevice()
{
    std::string base = deviceBaseName(gpMapConfig->getConf("DeviceName"));
    ttysLock(base.c_str());
    gDeviceLock = SystemPaths::lockFile(base);
}

// Workers, in their fixed order; then the controller core starts deciding.
void StartUp::startWorkers()
{
    // The member table keeps "MembInfo.dat" in the "Path" directory. It is
    // made before any worker runs: the console reads it for its status.
    gIpcData = new (std::nothrow) IpcData(gCStCtrl, gpMapConfig->getConf("Path"), gHomeDir);
    if (!gIpcData)
        endInOrder(1, "out of memory");
    // Where the status check reports, a change of the member record wakes it.
    if (gpMapConfig->getConf("UPSController") != "1")
        gCStCtrl.setContInfoWake([] { gCTimerIfThread.wakeContInfo(); });
    start(gCTimerThread);
    start(gCTimerIfThread);
    if (!gMember) {
        start(gCXcpIfThread);
        start(gCXcpThread);
    }
    start(gCLogThread);
    start(gPowerThread);
    start(gCCuiIFThread);
    const bool setLater = gMember && gpm_Memcnt->getConf("SetLater") == "1";
    gCStCtrl.LetsGo(setLater);
}

void StartUp::startNetwork()
{
    if (!gMember) {
        // The network side of a controller waits until the UPS has been
        // reached, checking once a second; a fatal stop meanwhile ends the wait.
        while (gCStCtrl.GetStateUPS() != UpsCommunicating) {
            if (waitForStop(1000))
                return;
        }
        start(gIpcCTrlCThread);
        start(gIpcIfThread);
        return;
    }
    // One protocol thread per configured controller.
    start(g_GetHostNameTh);
    IpcCTrlMTh* memberThreads[4] = {&gIpcCTrlMThread1, &gIpcCTrlMThread2, &gIpcCTrlMThread3, &gIpcCTrlMThread4};
    int count = 0;
    for (int n = 1; n <= 4; ++n) {
        if (gpm_Memcnt->getConf(indexed("IPAddress%d", n)).empty())
            continue;
        ++count;
        gCStCtrl.SetMemberContActive(n - 1, true);
        g_pMemberTh[n - 1] = memberThreads[n - 1];
        start(*g_pMemberTh[n - 1]);
    }
    // Set before the transport starts: no controller's datagram can reach a
    // protocol thread before the count is known.
    gCStCtrl.SetMemberContCount(count);
    start(gIpcIfThread);
}

// The workers never return: the main thread waits for a fatal stop request
// (the termination signal ends the process on its own path).
void StartUp::waitAndStop()
{
    while (!waitForStop(-1)) {
    }
    endInOrder(FatalStop::status(), FatalStop::reason());
}
