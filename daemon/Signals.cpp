#include "daemon/Signals.h"

#include <cstdio>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>

#include "config/FileMap.h"
#include "control/Codes.h"
#include "control/Records.h"
#include "control/StCTrl.h"
#include "daemon/Globals.h"
#include "daemon/StartUp.h"
#include "core/SystemPaths.h"

namespace {
// Time the worker threads get to act on it before the process ends.
const unsigned kStopGraceSeconds = 5;
} // namespace

namespace {
int gSignalFd = -1;
} // namespace

int NS_SigHandle()
{
    sigset_t set;
    if (sigemptyset(&set) != 0 || sigaddset(&set, SIGTERM) != 0)
        return 1;
    if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0)
        return 1;
    gSignalFd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    return gSignalFd >= 0 ? 0 : 1;
}

int NS_SignalDescriptor() { return gSignalFd; }

bool NS_TakeSignal()
{
    signalfd_siginfo info;
    return gSignalFd >= 0 && read(gSignalFd, &info, sizeof info) == static_cast<ssize_t>(sizeof info) &&
           info.ssi_signo == SIGTERM;
}

void NS_TermHandler(int)
{
    if (gpMapConfig && gpMapConfig->getConf("UPSController") != "2") {
        std::string base = StartUp::deviceBaseName(gpMapConfig->getConf("DeviceName"));
        unlink(SystemPaths::lockFile(base).c_str());
    }

    _NOTIFYMSGINFO nt;
    memset(&nt, 0, sizeof nt);
    nt.code = NtDaemonStopping;
    nt.count = 0;
    gCStCtrl.SetNotify(&nt);

    unsigned left = kStopGraceSeconds;
    while (left > 0)
        left = sleep(left);
    // The workers are still running: the process ends without destroying
    // the global objects under their feet (a worker touching a destroyed
    // queue or lock could crash the exit and turn status 0 into a signal).
    // Open streams are flushed first, as exit() would.
    fflush(nullptr);
    _exit(0);
}
