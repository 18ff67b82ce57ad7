#include "daemon/StartUp.h"

#include <cstdio>
#include <cstdlib>
#include <new>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "config/FileMap.h"
#include "control/PowerTh.h"
#include "control/StCTrl.h"
#include "control/TimerIFTh.h"
#include "control/TimerTh.h"
#include "core/DaemonLock.h"
#include "daemon/Globals.h"
#include "daemon/Signals.h"
#include "core/SystemPaths.h"
#include "ipc/GetHostNameTh.h"
#include "ipc/IpcCTrlCTh.h"
#include "ipc/IpcCTrlMTh.h"
#include "ipc/IpcIFTh.h"
#include "log/LogTh.h"
#include "operator/CreateMultiControllerFile.h"
#include "operator/CuiIFTh.h"
#include "xcp/UpsDataBlock.h"
#include "xcp/XcpIFTh.h"
#include "xcp/XcpTh.h"

namespace {

// UPS state in which the UPS link is established; the network side of a
// controller starts only then.
const int kUpsCommunicating = 2;

// Permission argument of the member's "CONTROLLER" and "SHUTDOWN"
// directories. It is 777 in DECIMAL (mode 01411), as the installed member
// directories have always been made; it is not 0777.
const mode_t kMemberDirMode = 777;

// Start-up failure before any worker runs: drop the maps made so far, exit 1.
[[noreturn]] void failStartUp()
{
    delete gpMapConfig;
    gpMapConfig = nullptr;
    delete gpMapMessage;
    gpMapMessage = nullptr;
    exit(1);
}

// Starts one worker; a thread that cannot be created ends the process at once.
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
    bool started = thread.st();
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (started == false)
        exit(1);
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

int StartUp::run(int argc, char** argv)
{
    // The fixed outside paths are fixed for the whole run.
    SystemPaths::load();

    // 1. Home directory: every per-installation file is named from it.
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

    // 2. Operator message texts.
    gpMapMessage = new (std::nothrow) FileMap(gHomeDir + "alert.rc");
    if (!gpMapMessage || !gpMapMessage->isLoaded()) {
        delete gpMapMessage;
        gpMapMessage = nullptr;
        exit(1);
    }
    // From here on the log thread reads (and owns) the message map.
    gCLogThread.setMessageMapPresent(1);

    // 3. Configuration.
    gpMapConfig = new (std::nothrow) FileMap(gHomeDir + "Kestrava.ini");
    if (!gpMapConfig || !gpMapConfig->isLoaded())
        failStartUp();

    // 4. State of a previous run is never reused.
    unlink((gHomeDir + "MembInfo.dat").c_str());
    unlink((gHomeDir + "membCommInfo.tmp").c_str());
    unlink((gHomeDir + "upsCommInfo.tmp").c_str());

    // 5. The UPS data, empty until the UPS link fills it.
    gUpsData = new (std::nothrow) UpsDataBlock;
    if (!gUpsData)
        failStartUp();

    // 6. Into the background, in a session of its own, holding no directory.
    BecomeDaemon();
    setsid();
    // "/" always exists; nothing later depends on the working directory.
    int cwd = chdir("/");
    (void)cwd;
    NS_SigHandle();

    const bool member = gpMapConfig->getConf("UPSController") == "2";
    std::string deviceBase;

    if (member) {
        // 7. The controller list and the timing last received from the controller.
        int result = CreateMultiControllerFile::CheckControllerFile(
            gpMapConfig->getConf("IPAddress"), confNum(gpMapConfig, "MemberPort"), gHomeDir,
            gCStCtrl.ShutdownTimming(), gCStCtrl.TimingChanged());
        gCStCtrl.SetCheckResult(result);
        if (!gpm_Memcnt)
            failStartUp();
        if (*gCStCtrl.TimingChanged())
            storeReceivedTiming(*gCStCtrl.ShutdownTimming());

        // 8. The member's operator directories.
        makeMemberDir(gHomeDir + "CONTROLLER");
        makeMemberDir(gHomeDir + "SHUTDOWN");
    } else {
        // 8. The serial device belongs to this daemon alone.
        deviceBase = deviceBaseName(gpMapConfig->getConf("DeviceName"));
        ttysLock(deviceBase.c_str());
    }

    // 9.-11. Workers, in their fixed order.
    start(gCTimerThread);
    start(gCTimerIfThread);
    if (!member) {
        start(gCXcpIfThread);
        start(gCXcpThread);
    }
    start(gCLogThread);
    start(gPowerThread);
    start(gCCuiIFThread);

    // 12. The controller core starts deciding.
    const bool setLater = member && gpm_Memcnt->getConf("SetLater") == "1";
    gCStCtrl.LetsGo(setLater);

    if (!member) {
        // 13. The network side waits until the UPS has been reached.
        while (gCStCtrl.GetStateUPS() != kUpsCommunicating)
            sleep(1);
        start(gIpcCTrlCThread);
        start(gIpcIfThread);
    } else {
        // 14. One protocol thread per configured controller.
        start(g_GetHostNameTh);
        IpcCTrlMTh* memberThreads[4] = {&gIpcCTrlMThread1, &gIpcCTrlMThread2, &gIpcCTrlMThread3,
                                        &gIpcCTrlMThread4};
        int count = 0;
        for (int n = 1; n <= 4; ++n) {
            if (gpm_Memcnt->getConf(indexed("IPAddress%d", n)).empty())
                continue;
            ++count;
            gCStCtrl.SetMemberContActive(n - 1, true);
            g_pMemberTh[n - 1] = memberThreads[n - 1];
            start(*g_pMemberTh[n - 1]);
        }
        // Set before the transport starts: no controller's datagram can
        // reach a protocol thread before the count is known.
        gCStCtrl.SetMemberContCount(count);
        start(gIpcIfThread);
    }

    // Stop: reached only when every worker returned by itself (the
    // termination signal normally ends the process). The first join that
    // fails abandons the rest.
    if (gCTimerThread.sp() == true || gCTimerIfThread.sp() == true)
        return 0;
    if (!member && (gCXcpThread.sp() == true || gCXcpIfThread.sp() == true))
        return 0;
    if (gCLogThread.sp() == true || gPowerThread.sp() == true || gCCuiIFThread.sp() == true)
        return 0;
    if (member) {
        for (IpcCTrlMTh* th : g_pMemberTh) {
            if (th && th->sp() == true)
                return 0;
        }
    } else if (gIpcCTrlCThread.sp() == true) {
        return 0;
    }
    if (gIpcIfThread.sp() == true)
        return 0;
    // The transport closes its sockets here:
    // gIpcIfThread.end();
    delete gpMapConfig;
    gpMapConfig = nullptr;
    delete gpMapMessage;
    gpMapMessage = nullptr;
    delete gUpsData;
    gUpsData = nullptr;
    unlock(deviceBase.c_str());
    return 0;
}
