#include "core/ShellRunner.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <pthread.h>
#include <spawn.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

extern char** environ;

namespace {
SystemShellRunner gSystemRunner;
std::atomic<ShellRunner*> gRunner{&gSystemRunner};

// Starts "/bin/sh -c command" as a command started from a login shell would
// be: no signal blocked or ignored (the daemon's threads block SIGTERM, and
// a blocked or ignored signal would be inherited), and no descriptor but
// standard input, output and error. Returns the pid, or -1.
pid_t spawnShell(const std::string& command)
{
    posix_spawnattr_t attr;
    posix_spawn_file_actions_t actions;
    if (posix_spawnattr_init(&attr) != 0)
        return -1;
    if (posix_spawn_file_actions_init(&actions) != 0) {
        posix_spawnattr_destroy(&attr);
        return -1;
    }
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    // Whatever was opened without close-on-exec stays with the daemon.
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);

    char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(command.c_str()), nullptr};
    pid_t pid = -1;
    int err = posix_spawn(&pid, "/bin/sh", &actions, &attr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    if (err != 0) {
        fprintf(stderr, "kestrava: cannot start /bin/sh: %s\n", strerror(err));
        syslog(LOG_DAEMON | LOG_ERR, "cannot start /bin/sh: %s", strerror(err));
        return -1;
    }
    return pid;
}

int waitChild(pid_t pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return status;
}

// Waits for one detached command on a thread of its own, so that the
// finished command is reaped without the caller ever waiting for it.
void* reap(void* arg)
{
    waitChild(static_cast<pid_t>(reinterpret_cast<intptr_t>(arg)));
    return nullptr;
}
} // namespace

ShellRunner& ShellRunner::system() { return *gRunner.load(); }

void ShellRunner::setSystem(ShellRunner* runner) { gRunner.store(runner ? runner : &gSystemRunner); }

int SystemShellRunner::run(const std::string& command)
{
    pid_t pid = spawnShell(command);
    return pid < 0 ? -1 : waitChild(pid);
}

pid_t SystemShellRunner::launchDetached(const std::string& command)
{
    pid_t pid = spawnShell(command);
    if (pid < 0)
        return -1;
    pthread_attr_t attr;
    pthread_t reaper;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attr, 64 * 1024);
    int err = pthread_create(&reaper, &attr, &reap, reinterpret_cast<void*>(static_cast<intptr_t>(pid)));
    pthread_attr_destroy(&attr);
    if (err != 0) {
        // The command runs; only its exit status stays unreaped.
        fprintf(stderr, "kestrava: cannot start a thread to reap command %d: %s\n", static_cast<int>(pid),
                strerror(err));
        syslog(LOG_DAEMON | LOG_ERR, "cannot start a thread to reap command %d: %s", static_cast<int>(pid),
               strerror(err));
    }
    return pid;
}
