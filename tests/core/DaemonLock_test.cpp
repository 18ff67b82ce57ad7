// Pid file and device lock helpers. Functions that end the process on
// failure run in forked children; the pid file and the lock directory are
// moved into a private temporary directory before anything reads them.
#include "core/DaemonLock.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "core/SystemPaths.h"
#include "tests/fakes/ChildProcess.h"
#include "tests/fakes/TempDir.h"

namespace {

// Moves the pid file and lock directory before the first SystemPaths read.
// Forked children that end through exit() leave the directory alone: only
// the test process itself removes it.
struct PrivatePaths {
    TempDir tmp{"kestrava-lock-"};
    std::string dir = tmp.path();
    PrivatePaths()
    {
        setenv("KESTRAVA_PID_FILE", (dir + "/Kestrava.pid").c_str(), 1);
        setenv("KESTRAVA_LOCK_DIR", dir.c_str(), 1);
    }
};
PrivatePaths gPaths;

// Writes the file, failing the test when it cannot be opened.
void writeOrFail(const std::string& path, const std::string& data) { ASSERT_TRUE(writeFile(path, data)) << path; }

// A sleeping child, alive until killed.
pid_t liveChild()
{
    pid_t pid = fork();
    if (pid == 0) {
        for (;;)
            pause();
    }
    return pid;
}

void killAndReap(pid_t pid)
{
    if (pid <= 0)
        return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

// Waits (bounded) for a child; its raw wait status, or -1 on time-out (the
// child is then killed).
int reapWithin(pid_t pid, int seconds = 10)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    int status = 0;
    while (std::chrono::steady_clock::now() < deadline) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid)
            return status;
        if (r < 0)
            return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    killAndReap(pid);
    return -1;
}

struct ChildResult {
    int status = -1;
    std::string err;
};

// Runs fn in a forked child whose standard error is captured; the child ends
// with status 0 when fn returns.
template <typename Fn>
ChildResult inChild(Fn fn)
{
    ChildResult res;
    std::string errPath = gPaths.dir + "/child-stderr";
    unlink(errPath.c_str());
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, 2);
        close(fd);
        fn();
        _exit(0);
    }
    res.status = reapWithin(pid);
    res.err = readFile(errPath);
    return res;
}

// Pid as the lock file's text: "%d\n", padded when it would be exactly four
// bytes long (four bytes are read as the binary lock format).
std::string textPid(int pid)
{
    char buf[32];
    snprintf(buf, sizeof buf, "%d\n", pid);
    std::string s(buf);
    if (s.size() == 4)
        s = " " + s;
    return s;
}

class DaemonLockTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        // Never touch the machine's own /var/run or /var/lock.
        ASSERT_FALSE(gPaths.dir.empty());
        ASSERT_EQ(SystemPaths::lockDir(), gPaths.dir);
        ASSERT_EQ(SystemPaths::pidFile(), gPaths.dir + "/Kestrava.pid");
        unlink(pidFile().c_str());
    }
    std::string pidFile() const { return gPaths.dir + "/Kestrava.pid"; }
    std::string lockPath(const std::string& name) const { return gPaths.dir + "/LCK.." + name; }
};

TEST_F(DaemonLockTest, ReadPidAndCheckPid)
{
    std::string path = gPaths.dir + "/pid-probe";
    unlink(path.c_str());
    EXPECT_EQ(read_pid(path.c_str()), 0) << "missing file";
    EXPECT_EQ(check_pid(path.c_str()), 0);

    writeOrFail(path, "");
    EXPECT_EQ(read_pid(path.c_str()), 0) << "empty file";
    writeOrFail(path, "not a number\n");
    EXPECT_EQ(read_pid(path.c_str()), 0);
    writeOrFail(path, "  4321\nrest");
    EXPECT_EQ(read_pid(path.c_str()), 4321);

    // The caller's own pid does not count as a running daemon.
    writeOrFail(path, textPid(getpid()));
    EXPECT_EQ(read_pid(path.c_str()), getpid());
    EXPECT_EQ(check_pid(path.c_str()), 0);

    pid_t dead = deadPid();
    writeOrFail(path, textPid(dead));
    EXPECT_EQ(check_pid(path.c_str()), 0);

    pid_t live = liveChild();
    writeOrFail(path, textPid(live));
    EXPECT_EQ(check_pid(path.c_str()), live);
    killAndReap(live);
}

TEST_F(DaemonLockTest, LockIsTakenWithOwnPidAndRefusedToOthers)
{
    std::string lock = lockPath("ttyA0");
    unlink(lock.c_str());

    // Free device: the lock is created holding the taker's pid, mode 0644.
    pid_t holder = fork();
    if (holder == 0) {
        ttysLock("ttyA0");
        for (;;)
            pause();
    }
    for (int i = 0; i < 500 && readFile(lock).empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(readFile(lock), std::to_string(holder) + "\n");
    struct stat st;
    ASSERT_EQ(stat(lock.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);

    // While the holder lives, nobody else gets the device.
    ChildResult second = inChild([] { ttysLock("ttyA0"); });
    ASSERT_TRUE(WIFEXITED(second.status));
    EXPECT_EQ(WEXITSTATUS(second.status), 255);
    EXPECT_EQ(second.err, "Device ttyA0 is locked.\n");
    EXPECT_EQ(readFile(lock), std::to_string(holder) + "\n") << "a refused taker leaves the lock alone";

    killAndReap(holder);

    // The same lock in the old binary form, owner alive.
    pid_t live = liveChild();
    int32_t raw = live;
    writeOrFail(lock, std::string(reinterpret_cast<const char*>(&raw), 4));
    ChildResult binary = inChild([] { ttysLock("ttyA0"); });
    EXPECT_TRUE(WIFEXITED(binary.status) && WEXITSTATUS(binary.status) == 255);
    EXPECT_EQ(binary.err, "Device ttyA0 is locked.\n");
    killAndReap(live);

    // An empty lock file, or one naming no positive pid, blocks as well.
    for (const char* content : {"", "0\n", "-7\n", "garbage\n"}) {
        writeOrFail(lock, content);
        ChildResult r = inChild([] { ttysLock("ttyA0"); });
        EXPECT_TRUE(WIFEXITED(r.status) && WEXITSTATUS(r.status) == 255) << "content '" << content << "'";
        EXPECT_EQ(r.err, "Device ttyA0 is locked.\n") << "content '" << content << "'";
        EXPECT_EQ(readFile(lock), content);
    }
    unlink(lock.c_str());
}

TEST_F(DaemonLockTest, StaleLockOfDeadProcessIsTakenOver)
{
    std::string lock = lockPath("ttyB1");
    pid_t dead = deadPid();

    int32_t raw = dead;
    const std::string forms[] = {textPid(dead), std::string(reinterpret_cast<const char*>(&raw), 4)};
    for (const std::string& form : forms) {
        writeOrFail(lock, form);
        std::string pidPath = gPaths.dir + "/taker.pid";
        ChildResult r = inChild([&] {
            ttysLock("ttyB1");
            FILE* f = fopen(pidPath.c_str(), "w");
            fprintf(f, "%d\n", getpid());
            fclose(f);
        });
        ASSERT_TRUE(WIFEXITED(r.status)) << r.err;
        EXPECT_EQ(WEXITSTATUS(r.status), 0) << r.err;
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(readFile(lock), readFile(pidPath)) << "the lock now names the new owner";
        unlink(lock.c_str());
    }
}

TEST_F(DaemonLockTest, LockThatCannotBeCreatedEndsTheProcess)
{
    // No such directory under the lock directory: the lock cannot be created.
    ChildResult r = inChild([] { ttysLock("nodir/ttyC2"); });
    ASSERT_TRUE(WIFEXITED(r.status));
    EXPECT_EQ(WEXITSTATUS(r.status), 255);
    EXPECT_EQ(r.err, "You cannot use device.\nCheck other device." + lockPath("nodir/ttyC2"));
}

TEST_F(DaemonLockTest, UnlockRemovesPidFileAndLock)
{
    writeOrFail(pidFile(), "123\n");
    writeOrFail(lockPath("ttyD3"), "123\n");
    writeOrFail(lockPath("ttyOther"), "123\n");
    unlock("ttyD3");
    EXPECT_NE(access(pidFile().c_str(), F_OK), 0);
    EXPECT_NE(access(lockPath("ttyD3").c_str(), F_OK), 0);
    EXPECT_EQ(access(lockPath("ttyOther").c_str(), F_OK), 0) << "only the named device's lock";

    // A member unlocks with an empty name: "LCK.." itself goes.
    writeOrFail(lockPath(""), "1\n");
    unlock("");
    EXPECT_NE(access(lockPath("").c_str(), F_OK), 0);
    unlock("ttyD3"); // nothing left to delete: no effect, no failure
    unlink(lockPath("ttyOther").c_str());
}

TEST_F(DaemonLockTest, BecomeDaemonRecordsTheChildAndRefusesASecondDaemon)
{
    // The detached child becomes ours when its parent leaves.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);

    std::string marker = gPaths.dir + "/daemon-child";
    unlink(marker.c_str());
    writeOrFail(pidFile(), textPid(deadPid())); // a stale pid file is replaced
    chmod(pidFile().c_str(), 0600);

    ChildResult parent = inChild([&] {
        BecomeDaemon();
        // Only the daemon child gets here.
        FILE* f = fopen(marker.c_str(), "w");
        fprintf(f, "%d\n", getpid());
        fclose(f);
        for (;;)
            pause();
    });
    ASSERT_TRUE(WIFEXITED(parent.status));
    EXPECT_EQ(WEXITSTATUS(parent.status), 0);
    EXPECT_EQ(parent.err, "");

    int daemonPid = read_pid(pidFile().c_str());
    ASSERT_GT(daemonPid, 0);
    for (int i = 0; i < 500 && readFile(marker).empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(readFile(marker), std::to_string(daemonPid) + "\n") << "the pid file names the child";
    EXPECT_EQ(readFile(pidFile()), std::to_string(daemonPid) + "\n");
    struct stat st;
    ASSERT_EQ(stat(pidFile().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);

    // While it lives, a second start is refused before any fork.
    ChildResult second = inChild([] { BecomeDaemon(); });
    ASSERT_TRUE(WIFEXITED(second.status));
    EXPECT_EQ(WEXITSTATUS(second.status), 1);
    EXPECT_EQ(second.err, "Kestrava: Already running.\n");
    EXPECT_EQ(read_pid(pidFile().c_str()), daemonPid);

    kill(daemonPid, SIGKILL);
    EXPECT_NE(reapWithin(daemonPid), -1);
    unlink(pidFile().c_str());
}

} // namespace
