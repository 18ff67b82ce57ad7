// DaemonSandbox: a real controller daemon against the UPS simulator, for the
// benchmarks that measure the running daemon. Everything lives in a scratch
// home under /tmp: the configuration, the pid file (KESTRAVA_PID_FILE), the
// lock directory (KESTRAVA_LOCK_DIR), a harmless host shutdown command
// (KESTRAVA_SHUTDOWN_CMD) and a `wall` first in PATH that appends
// "<epoch seconds.nanoseconds> <message>" to walls.log instead of writing to
// terminals. The simulator keeps a frame log and a control socket. Every wait
// is bounded; stop() (also run by the destructor) ends the daemon and the
// simulator by pid and removes the scratch home.
#pragma once

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/fakes/ChildProcess.h"

class DaemonSandbox {
public:
    struct Settings {
        std::string bin;             // directory of kestrava and kestrava-upssim
        int winkSeconds = 3600;      // WinkTime1
        int countdownMinutes = 60;   // ShutdownTime1
    };

    DaemonSandbox() = default;
    ~DaemonSandbox() { stop(); }
    DaemonSandbox(const DaemonSandbox&) = delete;
    DaemonSandbox& operator=(const DaemonSandbox&) = delete;

    // SIGINT, SIGTERM and SIGHUP set a flag that ends every wait here early,
    // so that an interrupted benchmark still cleans up.
    static void catchInterrupts()
    {
        struct sigaction sa;
        memset(&sa, 0, sizeof sa);
        sa.sa_handler = [](int) { interruptFlag() = 1; };
        sigemptyset(&sa.sa_mask);
        for (int s : {SIGINT, SIGTERM, SIGHUP})
            sigaction(s, &sa, nullptr);
    }
    static bool interrupted() { return interruptFlag() != 0; }

    // Sleeps `seconds`, in steps, until then or an interrupt; false when interrupted.
    static bool sleepFor(double seconds)
    {
        using Clock = std::chrono::steady_clock;
        const Clock::time_point end =
            Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
        while (!interrupted()) {
            const Clock::duration left = end - Clock::now();
            if (left <= Clock::duration::zero())
                return true;
            std::this_thread::sleep_for(std::min<Clock::duration>(left, std::chrono::milliseconds(200)));
        }
        return false;
    }

    // Wall-clock seconds since the epoch (the clock `date +%s.%N` reads).
    static double now()
    {
        timespec ts;
        clock_gettime(CLOCK_REALTIME, &ts);
        return ts.tv_sec + ts.tv_nsec / 1e9;
    }

    // Makes the home, starts the simulator and then the daemon; false with
    // *error set when any of it failed (stop() cleans up what was started).
    bool start(const Settings& s, std::string* error)
    {
        const std::string bin = std::filesystem::absolute(s.bin.empty() ? "." : s.bin).string();
        for (const char* program : {"/kestrava", "/kestrava-upssim"}) {
            if (access((bin + program).c_str(), X_OK) != 0)
                return fail(error, bin + program + " is missing: build it, or name its directory with --bin");
        }
        char tmpl[] = "/tmp/kestrava-bench-XXXXXX";
        if (!mkdtemp(tmpl))
            return fail(error, std::string("mkdtemp: ") + strerror(errno));
        mRoot = tmpl;
        mHome = mRoot + "/";
        for (const char* d : {"lock", "bin", "log"})
            mkdir((mHome + d).c_str(), 0755);
        mPort = 40000 + (getpid() % 5000) * 3;
        if (!writeFile(mHome + "Kestrava.ini",
                       "UPSController=1\nDeviceName=" + mHome + "ups\nPath=" + mRoot +
                           "\nDumpLogRate=0\nDumpLogDays=30\nCuiPort=" + std::to_string(mPort) +
                           "\nIPAddress=127.0.0.1\nCtrlPort1=" + std::to_string(mPort + 1) +
                           "\nWinkTime1=" + std::to_string(s.winkSeconds) +
                           "\nShutdownTime1=" + std::to_string(s.countdownMinutes) +
                           "\nAppTermTimeOut1=60\nShutdownDelay1=120\n"
                           "AppTermCommand1=\nGroupName=bench\nSetUpID=*BENCH\nMemberIDData=0\nAccessCode1=1\n",
                       0600) ||
            !writeFile(mHome + "alert.rc", readFile(KESTRAVA_SOURCE_DIR "/packaging/alert.rc")) ||
            !writeFile(mHome + "shutdown.sh", "#!/bin/sh\nexit 0\n", 0755) ||
            !writeFile(mHome + "bin/wall",
                       "#!/bin/sh\n"
                       "t=$(date +%s.%N)\n"
                       "if [ -f \"$1\" ]; then m=$(cat \"$1\"); else m=\"$*\"; fi\n"
                       "printf '%s %s\\n' \"$t\" \"$(printf '%s' \"$m\" | tr '\\n' ' ')\" >> '" +
                           wallLog() + "'\n",
                       0755) ||
            symlink((bin + "/kestrava").c_str(), (mHome + "kestrava").c_str()) != 0)
            return fail(error, "cannot write the scratch home " + mHome);

        int out[2];
        if (pipe2(out, O_CLOEXEC) != 0)
            return fail(error, std::string("pipe: ") + strerror(errno));
        mSim = spawnProgram({bin + "/kestrava-upssim", "--quiet", "--link", mHome + "ups", "--log", frameLog(),
                             "--control", mHome + "sim.sock"},
                            -1, out[1], {});
        close(out[1]);
        // The simulator prints its device once it is up.
        std::string first;
        const bool up = waitFor([&] {
            pollfd p = {out[0], POLLIN, 0};
            char buf[256];
            if (poll(&p, 1, 0) > 0) {
                ssize_t n = read(out[0], buf, sizeof buf);
                if (n > 0)
                    first.append(buf, static_cast<size_t>(n));
                else
                    return true; // end of file: it ended
            }
            return first.find('\n') != std::string::npos || interrupted();
        }, 10, 20);
        close(out[0]);
        if (!up || first.find('\n') == std::string::npos || !pidAlive(mSim))
            return fail(error, "the UPS simulator did not start");

        const char* path = getenv("PATH");
        pid_t starter = spawnProgram({mHome + "kestrava"}, -1, -1,
                                     {"KESTRAVA_PID_FILE=" + mHome + "Kestrava.pid",
                                      "KESTRAVA_LOCK_DIR=" + mHome + "lock",
                                      "KESTRAVA_SHUTDOWN_CMD=" + mHome + "shutdown.sh",
                                      "PATH=" + mHome + "bin:" + (path ? path : "/usr/bin:/bin")});
        if (starter < 0 || waitBounded(starter, 20) == -1)
            return fail(error, "the daemon's start did not return within 20 s");
        waitFor([&] { return (mDaemon = atoi(readFile(mHome + "Kestrava.pid").c_str())) > 0 || interrupted(); }, 20,
                100);
        if (mDaemon <= 0 || !pidAlive(mDaemon))
            return fail(error, "the daemon did not write its pid file " + mHome + "Kestrava.pid");
        return true;
    }

    // Waits until the UPS was detected and has been polled `polls` times since
    // (the daemon says "Established" and the simulator logged the polls).
    // Starts the sandbox and waits for that many UPS polls (the detection
    // first); says why on standard error, after the program's name, when not.
    bool startPolling(const Settings& s, int polls, int seconds, const char* program)
    {
        setvbuf(stdout, nullptr, _IOLBF, 0);
        catchInterrupts();
        std::string error;
        if (!start(s, &error)) {
            fprintf(stderr, "%s: %s\n", program, error.c_str());
            return false;
        }
        if (!waitPolling(polls, seconds)) {
            fprintf(stderr, "%s: the daemon did not detect the UPS and poll it %d time(s) within %d s%s\n", program,
                    polls, seconds, interrupted() ? " (interrupted)" : "");
            return false;
        }
        return true;
    }
    bool waitPolling(int polls, int seconds)
    {
        return waitFor([&] {
            return interrupted() || !running(mDaemon) ||
                   (readFile(mHome + "upsCommInfo.tmp").find("Established") != std::string::npos &&
                    static_cast<int>(frameTimes("35").size()) >= polls);
        }, seconds, 100) && !interrupted() && running(mDaemon);
    }

    // Sends one command to the simulator's control socket; its answer line.
    std::string control(const std::string& command, int seconds = 5)
    {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0)
            return "error: socket";
        sockaddr_un a;
        memset(&a, 0, sizeof a);
        a.sun_family = AF_UNIX;
        const std::string path = mHome + "sim.sock";
        snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
        std::string reply;
        if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
            const std::string line = command + "\n";
            if (write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size())) {
                const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
                while (reply.find('\n') == std::string::npos) {
                    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                          end - std::chrono::steady_clock::now()).count();
                    pollfd p = {fd, POLLIN, 0};
                    if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0)
                        break;
                    char buf[256];
                    ssize_t n = read(fd, buf, sizeof buf);
                    if (n <= 0)
                        break;
                    reply.append(buf, static_cast<size_t>(n));
                }
            }
        }
        close(fd);
        if (reply.empty())
            return "error: no answer from the simulator";
        return reply.substr(0, reply.find('\n'));
    }

    // Epoch times of the simulator's received command frames "AB 01 <code>"
    // (one-byte commands, `code` in hex as logged, e.g. "35").
    std::vector<double> frameTimes(const std::string& code) const
    {
        std::vector<double> out;
        const std::string needle = " RX AB 01 " + code + " ";
        for (const std::string& line : readLines(frameLog())) {
            if (line.size() > 23 && line.compare(23, needle.size(), needle) == 0) {
                const double t = parseStamp(line);
                if (t > 0)
                    out.push_back(t);
            }
        }
        return out;
    }

    // Ends the daemon (SIGTERM; it takes about 5 s) and the simulator by
    // pid, then removes the scratch home. Safe to call twice.
    void stop()
    {
        endProcess(mDaemon, 20);
        mDaemon = 0;
        endProcess(mSim, 10);
        mSim = 0;
        if (!mRoot.empty()) {
            std::error_code ec;
            std::filesystem::remove_all(mRoot, ec);
            mRoot.clear();
        }
    }

    pid_t daemonPid() const { return mDaemon; }
    bool daemonRunning() const { return running(mDaemon); }
    const std::string& home() const { return mHome; }
    int ctrlPort() const { return mPort + 1; }
    std::string wallLog() const { return mHome + "walls.log"; }
    std::string eventLogDir() const { return mHome + "log"; }
    std::string frameLog() const { return mHome + "frames.log"; }

    // Bytes of all event logs ("*.log" in the log directory).
    off_t eventLogSize() const
    {
        off_t total = 0;
        std::error_code ec;
        for (const auto& e : std::filesystem::directory_iterator(eventLogDir(), ec)) {
            struct stat st;
            if (e.path().extension() == ".log" && stat(e.path().c_str(), &st) == 0)
                total += st.st_size;
        }
        return total;
    }

    // "2026-11-22 20:41:07.123 ..." (local time) as epoch seconds; 0 when it is not one.
    static double parseStamp(const std::string& line)
    {
        tm t;
        memset(&t, 0, sizeof t);
        int ms = 0;
        if (sscanf(line.c_str(), "%d-%d-%d %d:%d:%d.%d", &t.tm_year, &t.tm_mon, &t.tm_mday, &t.tm_hour, &t.tm_min,
                   &t.tm_sec, &ms) != 7)
            return 0;
        t.tm_year -= 1900;
        t.tm_mon -= 1;
        t.tm_isdst = -1;
        const time_t secs = mktime(&t);
        return secs < 0 ? 0 : secs + ms / 1000.0;
    }

private:
    static volatile sig_atomic_t& interruptFlag()
    {
        static volatile sig_atomic_t flag = 0;
        return flag;
    }

    static bool fail(std::string* error, const std::string& why)
    {
        if (error)
            *error = why;
        return false;
    }

    // True while pid runs (a zombie waiting for its parent counts as ended).
    static bool running(pid_t pid)
    {
        if (!pidAlive(pid))
            return false;
        const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
        const std::string::size_type paren = stat.rfind(')');
        return paren == std::string::npos || paren + 2 >= stat.size() || stat[paren + 2] != 'Z';
    }

    // SIGTERM, then SIGKILL after `seconds`; reaped when it is our child.
    static void endProcess(pid_t pid, int seconds)
    {
        if (pid <= 0 || !running(pid))
            return;
        kill(pid, SIGTERM);
        auto gone = [&] { return waitpid(pid, nullptr, WNOHANG) == pid || !running(pid); };
        if (!waitFor(gone, seconds, 50)) {
            kill(pid, SIGKILL);
            waitFor(gone, 5, 50);
        }
    }

    std::string mRoot, mHome;
    int mPort = 0;
    pid_t mSim = 0;
    pid_t mDaemon = 0;
};
