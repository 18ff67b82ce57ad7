// Pid file and device lock helpers. Functions that end the process on
// failure run in forked children; the pid file and the lock directory are
// moved into a private temporary directory before anything reads them. The
// daemon's own start-up with these locks is tested as a process in
// StartUp_test (second start, live, empty and stale locks).
#include "core/DaemonLock.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
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

const std::string kPidFile = gPaths.dir + "/Kestrava.pid";

std::string lockPath(const std::string& name) { return gPaths.dir + "/LCK.." + name; }

bool fileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// A sleeping child, alive until killed.
pid_t liveChild()
{
    pid_t pid = fork();
    while (pid == 0)
        pause();
    return pid;
}

// Runs fn in a child (at most 10 s); its exit status and standard error.
template <typename Fn>
ChildRun inChild(Fn fn) { return runChild(gPaths.dir, fn, 10); }

// Pid as the lock file's text: "%d\n", padded when it would be exactly four
// bytes long (four bytes are read as the binary lock format).
std::string textPid(int pid)
{
    std::string s = std::to_string(pid) + "\n";
    return s.size() == 4 ? " " + s : s;
}

std::string binaryPid(int32_t pid) { return std::string(reinterpret_cast<const char*>(&pid), 4); }

mode_t modeOf(const std::string& path)
{
    struct stat st = {};
    stat(path.c_str(), &st);
    return st.st_mode & 07777;
}

TEST(DaemonLock, PathsAreTheTestsOwn)
{
    // Never touch the machine's own /var/run or /var/lock.
    ASSERT_EQ(SystemPaths::lockDir(), gPaths.dir);
    ASSERT_EQ(SystemPaths::pidFile(), kPidFile);
}

TEST(DaemonLock, ReadPidAndCheckPid)
{
    std::string path = gPaths.dir + "/pid-probe";
    EXPECT_EQ(read_pid(path.c_str()), 0) << "missing file";
    EXPECT_EQ(check_pid(path.c_str()), 0);
    for (const char* text : {"", "not a number\n"}) {
        writeFile(path, text);
        EXPECT_EQ(read_pid(path.c_str()), 0) << text;
    }
    writeFile(path, "  4321\nrest");
    EXPECT_EQ(read_pid(path.c_str()), 4321);

    // Neither the caller itself nor a dead process counts as running.
    writeFile(path, textPid(getpid()));
    EXPECT_EQ(check_pid(path.c_str()), 0);
    writeFile(path, textPid(deadPid()));
    EXPECT_EQ(check_pid(path.c_str()), 0);
    pid_t live = liveChild();
    writeFile(path, textPid(live));
    EXPECT_EQ(check_pid(path.c_str()), live);
    waitBounded(live, 0); // kills and reaps
}

TEST(DaemonLock, LockIsTakenWithOwnPidAndRefusedToOthers)
{
    // Free device: the lock is created holding the taker's pid, mode 0644.
    std::string lock = lockPath("ttyA0");
    pid_t holder = fork();
    if (holder == 0) {
        ttysLock("ttyA0");
        for (;;)
            pause();
    }
    EXPECT_TRUE(waitFor([&] { return !readFile(lock).empty(); }, 5, 10));
    EXPECT_EQ(readFile(lock), std::to_string(holder) + "\n");
    EXPECT_EQ(modeOf(lock), 0644u);

    // While the holder lives nobody else gets the device, and a refused
    // taker leaves the lock alone.
    ChildRun second = inChild([] { ttysLock("ttyA0"); });
    EXPECT_EQ(second.status, 255);
    EXPECT_EQ(second.err, "Device ttyA0 is locked.\n");
    EXPECT_EQ(readFile(lock), std::to_string(holder) + "\n");
    waitBounded(holder, 0);

    // The old binary form with a live owner, an empty lock, and one naming
    // no positive pid block as well.
    pid_t live = liveChild();
    for (const std::string& content : {binaryPid(live), std::string(), std::string("0\n"), std::string("-7\n"),
                                       std::string("garbage\n")}) {
        writeFile(lock, content);
        ChildRun r = inChild([] { ttysLock("ttyA0"); });
        EXPECT_EQ(r.status, 255) << "content '" << content << "'";
        EXPECT_EQ(r.err, "Device ttyA0 is locked.\n") << "content '" << content << "'";
        EXPECT_EQ(readFile(lock), content);
    }
    waitBounded(live, 0);

    // A lock that cannot be created (no such directory) ends the process too.
    ChildRun r = inChild([] { ttysLock("nodir/ttyC2"); });
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.err, "You cannot use device.\nCheck other device." + lockPath("nodir/ttyC2"));
}

TEST(DaemonLock, UnlockRemovesPidFileAndOnlyTheNamedLock)
{
    for (const std::string& path : {kPidFile, lockPath("ttyD3"), lockPath("ttyOther"), lockPath("")})
        writeFile(path, "123\n");
    unlock("ttyD3");
    EXPECT_FALSE(fileExists(kPidFile));
    EXPECT_FALSE(fileExists(lockPath("ttyD3")));
    EXPECT_TRUE(fileExists(lockPath("ttyOther")));
    unlock(""); // a member: "LCK.." itself goes
    EXPECT_FALSE(fileExists(lockPath("")));
    unlock("ttyD3"); // nothing left to delete: no effect, no failure
    unlink(lockPath("ttyOther").c_str());
}

TEST(DaemonLock, BecomeDaemonRecordsTheChildOverAStalePidFile)
{
    // The detached child becomes ours when its parent leaves.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    std::string marker = gPaths.dir + "/daemon-child";
    writeFile(kPidFile, textPid(deadPid()));
    chmod(kPidFile.c_str(), 0600);
    ChildRun parent = inChild([&] {
        BecomeDaemon();
        writeFile(marker, std::to_string(getpid()) + "\n"); // only the daemon child gets here
        for (;;)
            pause();
    });
    EXPECT_EQ(parent.status, 0);
    EXPECT_EQ(parent.err, "");
    int daemonPid = read_pid(kPidFile.c_str());
    ASSERT_GT(daemonPid, 0);
    EXPECT_TRUE(waitFor([&] { return !readFile(marker).empty(); }, 5, 10));
    EXPECT_EQ(readFile(marker), std::to_string(daemonPid) + "\n") << "the pid file names the child";
    EXPECT_EQ(readFile(kPidFile), std::to_string(daemonPid) + "\n");
    EXPECT_EQ(modeOf(kPidFile), 0644u);
    waitBounded(daemonPid, 0); // kills and reaps
    unlink(kPidFile.c_str());
}

} // namespace
