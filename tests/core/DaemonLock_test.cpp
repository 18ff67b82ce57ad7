// Pid file and device lock helpers, with both moved into a private directory;
// functions that end the process on failure run in forked children.
#include "core/DaemonLock.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "core/SystemPaths.h"
#include "tests/fakes/ChildProcess.h"
#include "tests/fakes/TempDir.h"

namespace {

// Moves the pid file and lock directory before the first SystemPaths read.
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

// Takes the lock of a device in a child (at most 10 s): its exit status and output.
ChildRun lockInChild(const char* device)
{
    return runChild(gPaths.dir, [device] { ttysLock(device); dprintf(1, "%d\n", getpid()); }, 10);
}

// Pid as the lock file's text: "%d\n", padded when it would be exactly four
// bytes long (four bytes are read as the binary lock format).
std::string textPid(int pid)
{
    std::string s = std::to_string(pid) + "\n";
    return s.size() == 4 ? " " + s : s;
}

std::string binaryPid(int32_t pid) { return std::string(reinterpret_cast<const char*>(&pid), 4); }

TEST(DaemonLock, LockIsTakenWithOwnPidAndRefusedToOthers)
{
    // Never touch the machine's own /var/run or /var/lock.
    ASSERT_EQ(SystemPaths::lockDir(), gPaths.dir);
    ASSERT_EQ(SystemPaths::pidFile(), kPidFile);
    std::string probe = gPaths.dir + "/pid-probe";
    const int missing = read_pid(probe.c_str());
    writeFile(probe, "  4321\nrest");
    EXPECT_EQ(std::make_pair(missing, 4321), std::make_pair(0, read_pid(probe.c_str())));
    writeFile(probe, textPid(getpid()));
    EXPECT_EQ(check_pid(probe.c_str()), 0) << "the caller itself does not count as running";

    // Free device: the lock holds the taker's pid, mode 0644. While the
    // taker (this process) lives, nobody else gets the device.
    std::string lock = lockPath("ttyA0");
    EXPECT_EQ(ttysLock("ttyA0"), 0);
    EXPECT_EQ(readFile(lock), std::to_string(getpid()) + "\n");
    struct stat st = {};
    EXPECT_TRUE(stat(lock.c_str(), &st) == 0 && (st.st_mode & 07777) == 0644u);

    // So do a live owner in the text or the old binary form, and a lock
    // naming no positive pid; a dead owner's lock is taken over.
    for (const std::string& content : {textPid(getpid()), binaryPid(getpid()), std::string("0\n"), std::string()}) {
        writeFile(lock, content);
        ChildRun r = lockInChild("ttyA0");
        EXPECT_EQ(std::to_string(r.status) + " " + r.err, "255 Device ttyA0 is locked.\n") << "content '" << content << "'";
        EXPECT_EQ(readFile(lock), content);
    }
    const int32_t dead = deadPid();
    for (const std::string& content : {textPid(dead), binaryPid(dead)}) {
        writeFile(lock, content);
        ChildRun r = lockInChild("ttyA0");
        EXPECT_EQ(std::to_string(r.status) + " " + readFile(lock), "0 " + r.out) << "content of " << content.size() << " bytes";
    }
    unlink(lock.c_str());

    // A lock that cannot be created (no such directory) ends the process too.
    ChildRun r = lockInChild("nodir/ttyC2");
    EXPECT_EQ(std::to_string(r.status) + " " + r.err, "255 You cannot use device.\nCheck other device." + lockPath("nodir/ttyC2"));
}

TEST(DaemonLock, UnlockRemovesPidFileAndOnlyTheNamedLock)
{
    for (const std::string& path : {kPidFile, lockPath("ttyD3"), lockPath("ttyOther"), lockPath("")})
        writeFile(path, "123\n");
    unlock("ttyD3");
    EXPECT_FALSE(fileExists(kPidFile) || fileExists(lockPath("ttyD3")));
    EXPECT_TRUE(fileExists(lockPath("ttyOther")));
    unlock(""); // a member: "LCK.." itself goes
    EXPECT_FALSE(fileExists(lockPath("")));
    unlink(lockPath("ttyOther").c_str());
}

} // namespace
