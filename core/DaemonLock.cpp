#include "core/DaemonLock.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <signal.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "core/SystemPaths.h"

namespace {
const int kForkAttempts = 5;
}

int read_pid(const char* path)
{
    FILE* f = fopen(path, "re");
    if (!f)
        return 0;
    int pid = 0;
    if (fscanf(f, "%d", &pid) != 1)
        pid = 0;
    fclose(f);
    return pid;
}

int check_pid(const char* path)
{
    int pid = read_pid(path);
    if (pid == 0 || pid == getpid())
        return 0;
    // A probe refused for another reason (no permission) still means the
    // process exists.
    if (kill(pid, 0) == -1 && errno == ESRCH)
        return 0;
    return pid;
}

void BecomeDaemon()
{
    const char* pidFile = SystemPaths::pidFile().c_str();
    if (check_pid(pidFile) != 0) {
        fprintf(stderr, "Kestrava: Already running.\n");
        exit(1);
    }

    pid_t child = -1;
    for (int attempt = 0; attempt < kForkAttempts; ++attempt) {
        child = fork();
        if (child >= 0)
            break;
        sleep(1);
    }
    if (child < 0)
        exit(0);

    if (child == 0) {
        // The daemon's error output goes where its input came from.
        dup2(0, 2);
        return;
    }

    // Parent: record the daemon's pid and leave.
    unlink(pidFile);
    int fd = open(pidFile, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        perror("open");
        exit(0);
    }
    chmod(pidFile, 0644);
    FILE* f = fdopen(fd, "w");
    if (!f) {
        perror("fdopen");
        close(fd);
        exit(0);
    }
    fprintf(f, "%d\n", static_cast<int>(child));
    fclose(f);
    exit(0);
}

int ttysLock(const char* name)
{
    std::string path = SystemPaths::lockFile(name);

    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        char buf[128];
        ssize_t n = read(fd, buf, 127);
        close(fd);
        if (n >= 0) {
            int pid = -1;
            if (n == 4) {
                // Old binary lock format: the owner's pid as four raw bytes.
                memcpy(&pid, buf, sizeof pid);
            } else {
                buf[n] = 0;
                sscanf(buf, "%d", &pid);
            }
            if (pid > 0 && kill(pid, 0) == -1 && errno == ESRCH) {
                // Left behind by a process that no longer exists.
                unlink(path.c_str());
            } else {
                fprintf(stderr, "Device %s is locked.\n", name);
                exit(-1);
            }
        }
    }

    fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) {
        fprintf(stderr, "You cannot use device.\nCheck other device.%s", path.c_str());
        exit(-1);
    }
    FILE* f = fdopen(fd, "w");
    if (!f) {
        perror("fdopen");
        close(fd);
        return 0;
    }
    chmod(path.c_str(), 0644);
    fprintf(f, "%d\n", static_cast<int>(getpid()));
    fclose(f);
    return 0;
}

void unlock(const char* name)
{
    unlink(SystemPaths::pidFile().c_str());
    unlink(SystemPaths::lockFile(name).c_str());
}
