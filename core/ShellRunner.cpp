#include "core/ShellRunner.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

namespace {
SystemShellRunner gSystemRunner;
std::atomic<ShellRunner*> gRunner{&gSystemRunner};
} // namespace

ShellRunner& ShellRunner::system() { return *gRunner.load(); }

void ShellRunner::setSystem(ShellRunner* runner) { gRunner.store(runner ? runner : &gSystemRunner); }

int SystemShellRunner::run(const std::string& command) { return ::system(command.c_str()); }

pid_t SystemShellRunner::launchDetached(const std::string& command)
{
    // Fork twice: the intermediate child starts the command and exits at
    // once, so the command is adopted by init and reaped there, and the
    // daemon only waits for the short-lived intermediate.
    int fds[2];
    if (pipe(fds) != 0)
        return -1;
    pid_t middle = fork();
    if (middle < 0) {
        close(fds[0]);
        close(fds[1]);
        return -1;
    }
    if (middle == 0) {
        close(fds[0]);
        pid_t worker = fork();
        if (worker == 0) {
            close(fds[1]);
            execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        ssize_t ignored = write(fds[1], &worker, sizeof worker);
        (void)ignored;
        _exit(0);
    }
    close(fds[1]);
    pid_t worker = -1;
    if (read(fds[0], &worker, sizeof worker) != static_cast<ssize_t>(sizeof worker))
        worker = -1;
    close(fds[0]);
    int status = 0;
    while (waitpid(middle, &status, 0) < 0 && errno == EINTR) {
    }
    return worker;
}
