#include "daemon/Signals.h"

#include <atomic>
#include <cstdio>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <string>
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

int NS_SigHandle()
{
    sigset_t set;
    if (sigemptyset(&set) != 0 || sigaddset(&set, SIGTERM) != 0 || sigaddset(&set, SIGKILL) != 0)
        return 1;
    if (pthread_sigmask(SIG_UNBLOCK, &set, nullptr) != 0)
        return 1;

    struct sigaction act;
    memset(&act, 0, sizeof act);
    act.sa_handler = NS_TermHandler;
    sigemptyset(&act.sa_mask);
    act.sa_flags = 0;
    if (sigaction(SIGTERM, &act, nullptr) != 0)
        return 1;
    return 0;
}

void NS_TermHandler(int)
{
    // Set once; a second signal (delivered to another thread while this one
    // waits) finds it set and does nothing.
    static std::atomic<uint8_t> end_flg(0);
    if (end_flg.exchange(1) != 0)
        return;

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
