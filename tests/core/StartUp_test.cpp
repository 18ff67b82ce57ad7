// The daemon as a process: each test runs the real executable from a fresh
// home directory (a "kestrava" symlink beside its Kestrava.ini and alert.rc),
// with the pid file, lock directory, shutdown command and `wall` moved into
// that directory. The test process is a child subreaper, so the daemonised
// child becomes its child: its exit status can be read and it is always
// reaped. Every daemon started is killed by pid in teardown. Each runs in a
// network namespace of its own.
#include "core/StartUp.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sched.h>
#include <set>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/fakes/ChildProcess.h"
#include "tests/fakes/TempDir.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

// Bounded waits look again every 20 ms.
const int kPollMs = 20;

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::string textPid(int pid)
{
    return std::to_string(pid) + "\n";
}

// One invocation of the executable.
struct Started {
    int status = -1;    // wait status of the invoked process (the parent)
    std::string err;    // its standard error
    std::string input;  // path of the file given as standard input (the
                        // daemon's error output after detaching)
    int daemon = 0;     // pid recorded in the pid file when the parent exited 0
};

class DaemonProcessTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        char tmpl[] = "/tmp/kestrava-daemon-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        home_ = dir_ + "/";
        ASSERT_EQ(mkdir((dir_ + "/run").c_str(), 0755), 0);
        ASSERT_EQ(mkdir((dir_ + "/lock").c_str(), 0755), 0);
        ASSERT_EQ(mkdir((dir_ + "/bin").c_str(), 0755), 0);
        ASSERT_EQ(symlink(KESTRAVA_BINARY_DIR "/kestrava", (dir_ + "/kestrava").c_str()), 0);
        ASSERT_TRUE(writeFile(dir_ + "/bin/wall", "#!/bin/sh\necho \"$*\" >> '" + dir_ + "/wall.log'\n", 0755));
        ASSERT_TRUE(writeFile(dir_ + "/bin/fake-shutdown",
                              "#!/bin/sh\necho shutdown >> '" + dir_ + "/shutdown.log'\n", 0755));
        ASSERT_TRUE(writeFile(home_ + "alert.rc", "0=Power failed.\n1=Power restored.\n6=Kestrava started.\n"));
    }

    void TearDown() override
    {
        for (pid_t pid : daemons_) {
            kill(pid, SIGKILL);
            reap(pid, 10);
        }
        if (!dir_.empty()) {
            // The member directories carry mode 01411: open them up first.
            std::string cmd = "chmod -R u+rwx '" + dir_ + "' 2>/dev/null; rm -rf '" + dir_ + "'";
            if (system(cmd.c_str()) != 0) {
            }
        }
    }

    std::string pidFile() const { return dir_ + "/run/Kestrava.pid"; }
    std::string lockFile(const std::string& base) const { return dir_ + "/lock/LCK.." + base; }
    std::string device() const { return dir_ + "/ttyKs0"; }

    void writeIni(const std::map<std::string, std::string>& keys)
    {
        std::string text = "# test configuration\n";
        for (const auto& kv : keys)
            text += kv.first + "=" + kv.second + "\n";
        ASSERT_TRUE(writeFile(home_ + "Kestrava.ini", text));
    }

    void writeControllerIni()
    {
        writeIni({{"UPSController", "1"}, {"DeviceName", device()}, {"Path", dir_}});
    }

    std::vector<std::string> environment() const
    {
        std::vector<std::string> env;
        std::string path = "PATH=" + dir_ + "/bin";
        for (char** e = environ; *e; ++e) {
            std::string var(*e);
            if (var.rfind("PATH=", 0) == 0)
                path += ":" + var.substr(5);
            else if (var.rfind("KESTRAVA_", 0) != 0)
                env.push_back(var);
        }
        env.push_back(path);
        env.push_back("KESTRAVA_PID_FILE=" + pidFile());
        env.push_back("KESTRAVA_LOCK_DIR=" + dir_ + "/lock");
        env.push_back("KESTRAVA_SHUTDOWN_CMD=" + dir_ + "/bin/fake-shutdown");
        return env;
    }

    // Runs the executable through its symlink and waits (bounded) for the
    // invoked process to end.
    Started start()
    {
        Started s;
        int n = ++starts_;
        s.input = dir_ + "/stdin-" + std::to_string(n);
        std::string errPath = dir_ + "/stderr-" + std::to_string(n);
        std::string exe = dir_ + "/kestrava";
        std::vector<std::string> envText = environment();
        std::vector<char*> envp;
        for (std::string& e : envText)
            envp.push_back(&e[0]);
        envp.push_back(nullptr);

        pid_t pid = fork();
        if (pid == 0) {
            // The daemon opens its console and coordination sockets: give it
            // a network namespace of its own (only a loopback, down), which
            // disappears with it. Where that is not permitted it runs as is;
            // these tests send nothing over the network.
            unshare(CLONE_NEWNET);
            int in = open(s.input.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
            int out = open("/dev/null", O_WRONLY);
            int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (in < 0 || out < 0 || err < 0)
                _exit(120);
            dup2(in, 0);
            dup2(out, 1);
            dup2(err, 2);
            char* argv[] = {&exe[0], nullptr};
            execve(exe.c_str(), argv, envp.data());
            _exit(121);
        }
        s.status = reap(pid, 20);
        s.err = readFile(errPath);
        if (WIFEXITED(s.status) && WEXITSTATUS(s.status) == 0) {
            s.daemon = atoi(readFile(pidFile()).c_str());
            if (s.daemon > 0 && s.daemon != pid)
                daemons_.insert(s.daemon);
        }
        return s;
    }

    // Waits (bounded) for a child of this process to end; its wait status,
    // or -1 when it did not end in time (it is then killed).
    int reap(pid_t pid, int seconds)
    {
        int status = -1;
        bool done = waitFor(
            [&] {
                pid_t r = waitpid(pid, &status, WNOHANG);
                return r == pid || r < 0;
            },
            seconds, kPollMs);
        if (!done) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            status = -1;
        }
        daemons_.erase(pid);
        return status;
    }

    bool alive(pid_t pid)
    {
        int status;
        return waitpid(pid, &status, WNOHANG) == 0;
    }

    std::string dir_;
    std::string home_;
    std::set<pid_t> daemons_;
    int starts_ = 0;
};

TEST(StartUpNames, HomeDirectoryAndDeviceBaseName)
{
    EXPECT_EQ(StartUp::homeDirOf("/opt/kestrava/kestrava"), "/opt/kestrava/");
    EXPECT_EQ(StartUp::homeDirOf("./kestrava"), "./");
    EXPECT_EQ(StartUp::homeDirOf("/kestrava"), "/");
    EXPECT_EQ(StartUp::homeDirOf("kestrava"), "") << "no slash: files are read from the current directory";
    EXPECT_EQ(StartUp::homeDirOf(nullptr), "");
    EXPECT_EQ(StartUp::deviceBaseName("/dev/ttyS0"), "ttyS0");
    EXPECT_EQ(StartUp::deviceBaseName("ttyUSB1"), "ttyUSB1");
    EXPECT_EQ(StartUp::deviceBaseName("/dev/"), "");
}

TEST_F(DaemonProcessTest, MissingMessageOrConfigurationFileEndsWithStatusOne)
{
    writeControllerIni();
    unlink((home_ + "alert.rc").c_str());
    Started noMessages = start();
    ASSERT_TRUE(WIFEXITED(noMessages.status));
    EXPECT_EQ(WEXITSTATUS(noMessages.status), 1);
    EXPECT_EQ(noMessages.err, "");

    ASSERT_TRUE(writeFile(home_ + "alert.rc", "6=Kestrava started.\n"));
    unlink((home_ + "Kestrava.ini").c_str());
    ASSERT_TRUE(writeFile(home_ + "MembInfo.dat", "old run\n"));
    Started noConfig = start();
    ASSERT_TRUE(WIFEXITED(noConfig.status));
    EXPECT_EQ(WEXITSTATUS(noConfig.status), 1);
    EXPECT_EQ(noConfig.err, "");

    EXPECT_FALSE(exists(pidFile())) << "never detached";
    EXPECT_FALSE(exists(lockFile("ttyKs0")));
    EXPECT_TRUE(exists(home_ + "MembInfo.dat")) << "stopped before clearing the previous run";
}

TEST_F(DaemonProcessTest, ControllerRunsOnceAndStopsOnTermination)
{
    writeControllerIni();
    ASSERT_TRUE(writeFile(home_ + "MembInfo.dat", "old run\n"));
    ASSERT_TRUE(writeFile(home_ + "membCommInfo.tmp", "old run\n"));
    ASSERT_TRUE(writeFile(home_ + "upsCommInfo.tmp", "old run\n"));

    Started first = start();
    ASSERT_TRUE(WIFEXITED(first.status));
    EXPECT_EQ(WEXITSTATUS(first.status), 0);
    EXPECT_EQ(first.err, "");
    const pid_t daemon = first.daemon;
    ASSERT_GT(daemon, 0);
    EXPECT_EQ(readFile(pidFile()), textPid(daemon));
    EXPECT_TRUE(alive(daemon));

    // The device lock names the daemon once it holds the device.
    EXPECT_TRUE(waitFor([&] { return readFile(lockFile("ttyKs0")) == textPid(daemon); }, 10, kPollMs))
        << "lock holds '" << readFile(lockFile("ttyKs0")) << "'";
    EXPECT_FALSE(exists(home_ + "MembInfo.dat"));
    EXPECT_FALSE(exists(home_ + "membCommInfo.tmp"));
    EXPECT_NE(readFile(home_ + "upsCommInfo.tmp"), "old run\n");

    // A second start while it runs is refused before detaching.
    Started second = start();
    ASSERT_TRUE(WIFEXITED(second.status));
    EXPECT_EQ(WEXITSTATUS(second.status), 1);
    EXPECT_EQ(second.err, "Kestrava: Already running.\n");
    EXPECT_EQ(readFile(pidFile()), textPid(daemon));
    EXPECT_TRUE(alive(daemon));

    // Two termination signals: one stop, after the grace time, status 0.
    auto sent = Clock::now();
    ASSERT_EQ(kill(daemon, SIGTERM), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    kill(daemon, SIGTERM);
    std::this_thread::sleep_until(sent + std::chrono::seconds(3));
    EXPECT_TRUE(alive(daemon)) << "still in its grace time";
    int status = reap(daemon, 15);
    ASSERT_NE(status, -1) << "did not stop";
    ASSERT_TRUE(WIFEXITED(status)) << "ended by signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_FALSE(exists(lockFile("ttyKs0"))) << "device lock removed";
    EXPECT_EQ(readFile(pidFile()), textPid(daemon)) << "pid file kept";
    EXPECT_EQ(readFile(first.input), "") << "nothing on the daemon's error output";
}

TEST_F(DaemonProcessTest, DeviceLockedByLiveProcessOrEmptyLockStopsTheDaemon)
{
    writeControllerIni();

    // Held by this (live) test process.
    std::string held = textPid(getpid());
    ASSERT_TRUE(writeFile(lockFile("ttyKs0"), held));
    Started s = start();
    ASSERT_TRUE(WIFEXITED(s.status));
    EXPECT_EQ(WEXITSTATUS(s.status), 0) << "the parent leaves before the lock is tried";
    ASSERT_GT(s.daemon, 0);
    int status = reap(s.daemon, 10);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 255);
    EXPECT_EQ(readFile(s.input), "Device ttyKs0 is locked.\n");
    EXPECT_EQ(readFile(lockFile("ttyKs0")), held) << "someone else's lock is left alone";

    // An empty lock file blocks the device just the same.
    ASSERT_TRUE(writeFile(lockFile("ttyKs0"), ""));
    Started e = start();
    ASSERT_TRUE(WIFEXITED(e.status));
    EXPECT_EQ(WEXITSTATUS(e.status), 0);
    ASSERT_GT(e.daemon, 0);
    status = reap(e.daemon, 10);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 255);
    EXPECT_EQ(readFile(e.input), "Device ttyKs0 is locked.\n");
    EXPECT_EQ(readFile(lockFile("ttyKs0")), "");
}

TEST_F(DaemonProcessTest, StaleDeviceLockIsTakenOver)
{
    writeControllerIni();
    pid_t dead = deadPid();
    int32_t raw = dead;
    const std::string forms[] = {textPid(dead), std::string(reinterpret_cast<const char*>(&raw), sizeof raw)};
    for (const std::string& form : forms) {
        ASSERT_TRUE(writeFile(lockFile("ttyKs0"), form));
        Started s = start();
        ASSERT_TRUE(WIFEXITED(s.status));
        EXPECT_EQ(WEXITSTATUS(s.status), 0);
        ASSERT_GT(s.daemon, 0);
        EXPECT_TRUE(waitFor([&] { return readFile(lockFile("ttyKs0")) == textPid(s.daemon); }, 10, kPollMs))
            << "lock of " << form.size() << " bytes holds '" << readFile(lockFile("ttyKs0")) << "'";
        EXPECT_TRUE(alive(s.daemon));
        kill(s.daemon, SIGKILL);
        reap(s.daemon, 10);
    }
}

TEST_F(DaemonProcessTest, MemberNeedsItsControllerListAndMakesItsDirectories)
{
    writeIni({{"UPSController", "2"}, {"IPAddress", "127.0.0.1"}, {"MemberPort", "0"}, {"Path", dir_}});

    // Without "Membercnt.cfg" the member cannot know its controllers.
    Started none = start();
    ASSERT_TRUE(WIFEXITED(none.status));
    EXPECT_EQ(WEXITSTATUS(none.status), 0);
    ASSERT_GT(none.daemon, 0);
    int status = reap(none.daemon, 10);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_FALSE(exists(home_ + "CONTROLLER"));

    // With it (no controller configured yet) the member runs.
    ASSERT_TRUE(writeFile(home_ + "Membercnt.cfg", "SetLater=0\nIPAddress1=\nPort1=\n"));
    Started s = start();
    ASSERT_TRUE(WIFEXITED(s.status));
    EXPECT_EQ(WEXITSTATUS(s.status), 0);
    ASSERT_GT(s.daemon, 0);
    for (const char* name : {"CONTROLLER", "SHUTDOWN"}) {
        std::string path = home_ + name;
        EXPECT_TRUE(waitFor([&] { return exists(path); }, 10, kPollMs)) << name;
        struct stat st;
        ASSERT_EQ(stat(path.c_str(), &st), 0) << name;
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << name;
        EXPECT_EQ(st.st_mode & 07777, 01411u) << name << " has mode 0" << std::oct << (st.st_mode & 07777);
    }
    EXPECT_TRUE(alive(s.daemon));
    EXPECT_FALSE(exists(lockFile(""))) << "a member takes no device lock";
}

} // namespace
