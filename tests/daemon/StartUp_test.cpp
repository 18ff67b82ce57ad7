// The daemon as a process in a fresh home with every system path moved into
// it. The test process is a child subreaper, so the detached daemon is its
// child: its exit status can be read, and teardown kills and reaps it by pid.
#include "daemon/StartUp.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sched.h>
#include <set>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tests/fakes/ChildProcess.h"
#include "tests/fakes/TempDir.h"

namespace {

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::string textPid(int pid) { return std::to_string(pid) + "\n"; }

int exitCode(int waitStatus) { return waitStatus != -1 && WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -1; }

// One invocation; `input` is its standard input, where the detached daemon
// writes its errors, and `daemon` the pid in the pid file.
struct Started : ChildRun {
    std::string input;
    int daemon = 0;
};

class DaemonProcessTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        for (const char* sub : {"/run", "/lock", "/bin"})
            ASSERT_EQ(mkdir((dir_ + sub).c_str(), 0755), 0);
        ASSERT_EQ(symlink(KESTRAVA_BINARY_DIR "/kestrava", (home_ + "kestrava").c_str()), 0);
        writeFile(dir_ + "/bin/wall", "#!/bin/sh\necho \"$*\" >> '" + dir_ + "/wall.log'\n", 0755);
        writeFile(dir_ + "/bin/fake-shutdown", "#!/bin/sh\necho shutdown >> '" + dir_ + "/shutdown.log'\n", 0755);
        writeFile(home_ + "alert.rc", "0=Power failed.\n1=Power restored.\n6=Kestrava started.\n");
    }
    void TearDown() override
    {
        for (pid_t pid : std::set<pid_t>(daemons_))
            reap(pid, 0); // kills and reaps
        // The member directories carry mode 01411: open them up for removal.
        [[maybe_unused]] int rc = system(("chmod -R u+rwx '" + dir_ + "' 2>/dev/null").c_str());
    }

    std::string pidFile() const { return dir_ + "/run/Kestrava.pid"; }
    std::string lockFile() const { return dir_ + "/lock/LCK..ttyKs0"; }

    void writeIni(const std::string& keys) { writeFile(home_ + "Kestrava.ini", keys + "Path=" + dir_ + "\n"); }
    void writeControllerIni() { writeIni("UPSController=1\nDeviceName=" + dir_ + "/ttyKs0\n"); }

    // Runs the executable through its symlink (at most 20 s).
    Started start()
    {
        Started s;
        s.input = dir_ + "/stdin-" + std::to_string(++starts_);
        static_cast<ChildRun&>(s) = runChild(dir_, [&] {
            const char* path = getenv("PATH");
            setenv("PATH", (dir_ + "/bin:" + (path ? path : "/usr/bin:/bin")).c_str(), 1);
            setenv("KESTRAVA_PID_FILE", pidFile().c_str(), 1);
            setenv("KESTRAVA_LOCK_DIR", (dir_ + "/lock").c_str(), 1);
            setenv("KESTRAVA_SHUTDOWN_CMD", (dir_ + "/bin/fake-shutdown").c_str(), 1);
            unshare(CLONE_NEWNET); // where permitted; nothing here uses the network
            int in = open(s.input.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
            if (in < 0 || dup2(in, 0) < 0)
                _exit(120);
            const std::string exe = home_ + "kestrava"; // its home is that of its own path
            execl(exe.c_str(), exe.c_str(), static_cast<char*>(nullptr));
            _exit(121);
        });
        s.daemon = s.status == 0 ? atoi(readFile(pidFile()).c_str()) : 0;
        if (s.daemon > 0)
            daemons_.insert(s.daemon);
        return s;
    }

    int reap(pid_t pid, int seconds) { return daemons_.erase(pid), waitBounded(pid, seconds); }
    bool alive(pid_t pid) { return waitpid(pid, nullptr, WNOHANG) == 0; }

    // The exit status (at most 10 s) of a daemon that detached with status 0.
    int daemonExit()
    {
        Started s = start();
        EXPECT_EQ(s.status, 0) << s.err;
        lastInput_ = s.input;
        return s.daemon > 0 ? exitCode(reap(s.daemon, 10)) : -2;
    }

    TempDir tmp_{"kestrava-daemon-"};
    std::string dir_ = tmp_.path(), home_ = dir_ + "/", lastInput_;
    std::set<pid_t> daemons_;
    int starts_ = 0;
};

TEST(StartUpStop, FatalStopRemovesOwnLockAndPidFileAndReportsTheReason)
{
    TempDir tmp("kestrava-stop-");
    const std::string lock = tmp.file("LCK..ttyKs0"), pid = tmp.file("Kestrava.pid");
    writeFile(lock, textPid(getpid())), writeFile(pid, textPid(getpid()));
    testing::internal::CaptureStderr();
    EXPECT_EQ(StartUp::stopInOrder(1, "console port lost", lock, pid), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "kestrava: stopping with status 1: console port lost\n");
    EXPECT_FALSE(exists(lock) || exists(pid));

    // A member holds no device lock; a pid file of another process is not ours.
    writeFile(pid, textPid(getpid() + 1));
    testing::internal::CaptureStderr();
    EXPECT_EQ(StartUp::stopInOrder(3, "", "", pid), 3);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "kestrava: stopping with status 3: no reason given\n");
    EXPECT_TRUE(exists(pid));
}


TEST_F(DaemonProcessTest, ControllerRunsOnceAndStopsOnTermination)
{
    writeControllerIni();
    for (const char* name : {"MembInfo.dat", "membCommInfo.tmp", "upsCommInfo.tmp"})
        writeFile(home_ + name, "old run\n");
    writeFile(pidFile(), textPid(deadPid())); // a stale pid file of a dead daemon
    chmod(pidFile().c_str(), 0600);
    Started first = start();
    const pid_t daemon = first.daemon;
    ASSERT_GT(daemon, 0) << first.status << " " << first.err;
    EXPECT_EQ(readFile(pidFile()), textPid(daemon));
    struct stat st = {};
    EXPECT_EQ(stat(pidFile().c_str(), &st) == 0 ? st.st_mode & 07777 : 0, 0644u);
    // Its standard output goes nowhere: a reader that never reads cannot block it.
    char out[64] = {};
    EXPECT_GT(readlink(("/proc/" + std::to_string(daemon) + "/fd/1").c_str(), out, sizeof out - 1), 0);
    EXPECT_STREQ(out, "/dev/null");
    // The device lock names the daemon once it holds the device; the previous run's files are cleared.
    EXPECT_TRUE(waitFor([&] { return readFile(lockFile()) == textPid(daemon); }, 10, 20))
        << "lock holds '" << readFile(lockFile()) << "'";
    EXPECT_FALSE(exists(home_ + "MembInfo.dat") || exists(home_ + "membCommInfo.tmp"));
    EXPECT_NE(readFile(home_ + "upsCommInfo.tmp"), "old run\n");

    // A second start while it runs is refused before detaching.
    Started second = start();
    EXPECT_EQ(std::to_string(second.status) + " " + second.err, "1 Kestrava: Already running.\n");
    EXPECT_EQ(readFile(pidFile()), textPid(daemon));
    EXPECT_TRUE(alive(daemon));

    // Two termination signals (the second lands during the stop): one orderly stop, status 0.
    ASSERT_EQ(kill(daemon, SIGTERM), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    kill(daemon, SIGTERM);
    const int status = reap(daemon, 15);
    EXPECT_EQ(exitCode(status), 0) << "wait status " << status;
    EXPECT_FALSE(exists(lockFile())) << "device lock removed";
    EXPECT_EQ(readFile(pidFile()), textPid(daemon)) << "pid file kept";
    EXPECT_EQ(readFile(first.input), "") << "nothing on the daemon's error output";
}

TEST_F(DaemonProcessTest, MissingConfigurationEndsAtOnceAndALiveProcessLockStopsTheDetachedDaemon)
{
    writeFile(home_ + "MembInfo.dat", "old run\n");
    Started noConfig = start();
    EXPECT_EQ(std::to_string(noConfig.status) + " " + noConfig.err,
              "1 kestrava: cannot read the configuration file " + home_ + "Kestrava.ini\n");
    EXPECT_FALSE(exists(pidFile()) || exists(lockFile())) << "never detached";
    EXPECT_TRUE(exists(home_ + "MembInfo.dat")) << "stopped before clearing the previous run";

    // The parent leaves before the lock is tried; someone else's lock is left alone.
    writeControllerIni();
    writeFile(lockFile(), textPid(getpid()));
    EXPECT_EQ(daemonExit(), 255);
    EXPECT_EQ(readFile(lastInput_), "Device ttyKs0 is locked.\n");
    EXPECT_EQ(readFile(lockFile()), textPid(getpid()));
}

TEST_F(DaemonProcessTest, MemberNeedsItsControllerListAndMakesItsDirectories)
{
    writeIni("UPSController=2\nIPAddress=127.0.0.1\nMemberPort=0\n");
    EXPECT_EQ(daemonExit(), 1) << "without Membercnt.cfg the member cannot know its controllers";
    // With it (no controller configured yet) the member runs.
    writeFile(home_ + "Membercnt.cfg", "SetLater=0\nIPAddress1=\nPort1=\n");
    Started s = start();
    ASSERT_GT(s.daemon, 0) << s.err;
    for (const char* name : {"CONTROLLER", "SHUTDOWN"}) {
        struct stat st = {};
        EXPECT_TRUE(waitFor([&] { return stat((home_ + name).c_str(), &st) == 0; }, 10, 20)) << name;
        EXPECT_EQ(st.st_mode & (S_IFMT | 07777), S_IFDIR | 01411u) << name << " has mode 0" << std::oct << st.st_mode;
    }
    EXPECT_TRUE(alive(s.daemon));
    EXPECT_FALSE(exists(dir_ + "/lock/LCK..")) << "a member takes no device lock";
}

} // namespace
