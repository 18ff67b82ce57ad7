// Idle cost of a running controller: the real daemon against the UPS
// simulator, one shutdown member (played over the loopback) registered,
// then a quiet window in which nothing happens but the UPS polling. Prints,
// per daemon thread ("ks-th<number>"), the voluntary context switches (each
// one is a wake-up after blocking) and the CPU time used in the window,
// scaled to one minute.
//
//   kestrava-bench-idle-cost [--seconds N] [--bin DIR]
//
// --bin: where kestrava and kestrava-upssim are (default: this program's
// directory). Everything runs in a scratch home under /tmp with its own pid
// file, lock directory, shutdown command and `wall`; both processes are
// ended by pid and the scratch home is removed at the end.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/fakes/ChildProcess.h"
#include "bench/ScriptedMember.h"

namespace {

// Ends pid (SIGTERM, then SIGKILL after `seconds`) and reaps it when it is ours.
void endProcess(pid_t pid, int seconds)
{
    if (pid <= 0)
        return;
    kill(pid, SIGTERM);
    if (!waitFor([&] { return waitpid(pid, nullptr, WNOHANG) == pid || !pidAlive(pid); }, seconds, 100))
        kill(pid, SIGKILL);
}

struct TaskSample {
    std::string name;
    long voluntary = 0;
    long involuntary = 0;
    long ticks = 0; // utime + stime
};

std::map<int, TaskSample> sample(pid_t pid)
{
    std::map<int, TaskSample> out;
    const std::string dir = "/proc/" + std::to_string(pid) + "/task";
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(dir, ec)) {
        TaskSample t;
        const std::string base = e.path().string();
        t.name = readFile(base + "/comm");
        while (!t.name.empty() && t.name.back() == '\n')
            t.name.pop_back();
        std::istringstream status(readFile(base + "/status"));
        std::string line;
        while (std::getline(status, line)) {
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0)
                t.voluntary = atol(line.c_str() + 24);
            else if (line.rfind("nonvoluntary_ctxt_switches:", 0) == 0)
                t.involuntary = atol(line.c_str() + 27);
        }
        const std::string stat = readFile(base + "/stat");
        const std::string::size_type paren = stat.rfind(')');
        if (paren != std::string::npos) {
            std::istringstream fields(stat.substr(paren + 2));
            std::string f;
            long utime = 0, stime = 0;
            for (int i = 3; fields >> f; ++i) {
                if (i == 14)
                    utime = atol(f.c_str());
                if (i == 15) {
                    stime = atol(f.c_str());
                    break;
                }
            }
            t.ticks = utime + stime;
        }
        out[atoi(e.path().filename().c_str())] = t;
    }
    return out;
}

} // namespace

int main(int argc, char** argv)
{
    int seconds = 60;
    std::string bin = std::filesystem::path(argv[0]).parent_path().string();
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--seconds" && i + 1 < argc) {
            seconds = atoi(argv[++i]);
        } else if (a == "--bin" && i + 1 < argc) {
            bin = argv[++i];
        } else {
            fprintf(stderr, "usage: %s [--seconds N] [--bin DIR]\n", argv[0]);
            return a == "--help" ? 0 : 2;
        }
    }
    if (seconds < 10 || seconds > 3600) {
        fprintf(stderr, "--seconds: 10 to 3600\n");
        return 2;
    }
    bin = std::filesystem::absolute(bin.empty() ? "." : bin).string();

    char tmpl[] = "/tmp/kestrava-idle-XXXXXX";
    if (!mkdtemp(tmpl)) {
        perror("mkdtemp");
        return 1;
    }
    const std::string home = std::string(tmpl) + "/";
    for (const char* d : {"lock", "bin", "log"})
        mkdir((home + d).c_str(), 0755);
    const int port = 40000 + (getpid() % 5000) * 3;
    writeFile(home + "Kestrava.ini",
             "UPSController=1\nDeviceName=" + home + "ups\nPath=" + std::string(tmpl) +
                 "\nDumpLogRate=0\nDumpLogDays=30\nCuiPort=" + std::to_string(port) +
                 "\nIPAddress=127.0.0.1\nCtrlPort1=" + std::to_string(port + 1) +
                 "\nWinkTime1=3600\nShutdownTime1=60\nAppTermTimeOut1=60\nShutdownDelay1=120\n"
                 "AppTermCommand1=\nGroupName=idle\nSetUpID=*IDLE\nMemberIDData=0\nAccessCode1=1\n",
             0600);
    writeFile(home + "alert.rc", readFile(KESTRAVA_SOURCE_DIR "/packaging/alert.rc"));
    writeFile(home + "shutdown.sh", "#!/bin/sh\nexit 0\n", 0755);
    writeFile(home + "bin/wall", "#!/bin/sh\nexit 0\n", 0755);
    symlink((bin + "/kestrava").c_str(), (home + "kestrava").c_str());

    int pipeFd[2];
    if (pipe(pipeFd) != 0)
        return 1;
    pid_t sim = spawnProgram({bin + "/kestrava-upssim", "--quiet", "--link", home + "ups"}, -1, pipeFd[1], {});
    close(pipeFd[1]);
    char first[512] = {0};
    ssize_t got = read(pipeFd[0], first, sizeof first - 1); // the device path: the simulator is up
    (void)got;
    const char* path = getenv("PATH");
    pid_t starter = spawnProgram({home + "kestrava"}, -1, -1,
                          {"KESTRAVA_PID_FILE=" + home + "Kestrava.pid", "KESTRAVA_LOCK_DIR=" + home + "lock",
                           "KESTRAVA_SHUTDOWN_CMD=" + home + "shutdown.sh",
                           "PATH=" + home + "bin:" + (path ? path : "/usr/bin:/bin")});
    waitpid(starter, nullptr, 0);
    pid_t daemon = 0;
    for (int i = 0; i < 200 && daemon <= 0; ++i) {
        daemon = atoi(readFile(home + "Kestrava.pid").c_str());
        usleep(100000);
    }

    int status = 1;
    ScriptedMember member("127.0.0.2", "idle-member", "127.0.0.1", static_cast<uint16_t>(port + 1));
    std::vector<int> exchange;
    if (daemon > 0 && member.ok()) {
        // The network side opens once the UPS answers (up to a minute).
        DG2MessageType reply;
        bool up = false;
        for (int i = 0; i < 90 && !up; ++i) {
            member.send(member.registration());
            up = member.receive(&reply, 1) && reply.msgNo == DG2::MsgRegister;
        }
        if (up)
            exchange = member.answerUntil(DG2::MsgPowerReport, 20);
    }
    if (exchange.empty() || exchange.back() != DG2::MsgPowerReport) {
        fprintf(stderr, "the member did not get registered (daemon pid %d)\n", daemon);
    } else {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const auto before = sample(daemon);
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        const auto after = sample(daemon);
        const double scale = 60.0 / seconds;
        const long hz = sysconf(_SC_CLK_TCK);
        printf("Idle controller, one member registered, UPS polled; %d s window, per minute:\n", seconds);
        printf("%-10s %10s %10s %10s\n", "thread", "wake-ups", "preempted", "CPU ms");
        long total = 0;
        for (const auto& [tid, a] : after) {
            auto b = before.find(tid);
            if (b == before.end())
                continue;
            const long v = a.voluntary - b->second.voluntary;
            total += v;
            printf("%-10s %10.1f %10.1f %10.1f\n", a.name.c_str(), v * scale,
                   (a.involuntary - b->second.involuntary) * scale,
                   (a.ticks - b->second.ticks) * 1000.0 / hz * scale);
        }
        printf("%-10s %10.1f\n", "all", total * scale);
        printf("(ks-th13 is the UDP transport, ks-th8 the controller protocol, ks-th3 the UPS link.)\n");
        status = 0;
    }
    endProcess(daemon, 15);
    endProcess(sim, 10);
    std::error_code ec;
    std::filesystem::remove_all(tmpl, ec);
    return status;
}
