// Idle cost of a running controller: the real daemon against the UPS
// simulator, by default with one shutdown member (played over the loopback
// by this program, which keeps answering the controller) registered, then a
// quiet window in which nothing happens but the UPS polling. Prints, per
// daemon thread ("ks-th<number>", with its role), the voluntary context
// switches (each one is a wake-up after blocking), the preemptions and the
// CPU time used in the window, scaled to one minute; a TOTAL line; the UPS
// polls seen by the simulator in the window; and the daemon's memory (VmRSS
// now, VmHWM its peak).
//
//   kestrava-bench-idle-cost [--seconds N] [--no-member] [--bin DIR]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/DaemonSandbox.h"
#include "bench/ScriptedMember.h"

namespace {

const char kUsage[] =
    "usage: kestrava-bench-idle-cost [--seconds N] [--no-member] [--bin DIR]\n"
    "\n"
    "Starts the daemon as a controller against kestrava-upssim in a scratch home\n"
    "under /tmp, waits until the UPS is detected and polled (and, unless\n"
    "--no-member, a shutdown member played by this program is registered), then\n"
    "measures every daemon thread over a window of N seconds (default 60,\n"
    "10..3600): wake-ups (voluntary context switches), preemptions and CPU time\n"
    "per minute, a TOTAL line, the UPS polls in the window and the daemon's\n"
    "VmRSS and VmHWM. Both processes are ended and the scratch home removed.\n"
    "\n"
    "  --seconds N   length of the measurement window\n"
    "  --no-member   measure the controller alone (no member registered)\n"
    "  --bin DIR     where kestrava and kestrava-upssim are (default: the\n"
    "                directory of this program)\n";

struct TaskSample {
    std::string name;
    long voluntary = 0;
    long involuntary = 0;
    long ticks = 0;      // utime + stime, in clock ticks
    long long runNs = -1; // time on a CPU from schedstat (-1: not available)
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
        if (paren != std::string::npos && paren + 2 < stat.size()) {
            std::istringstream fields(stat.substr(paren + 2));
            std::string f;
            long utime = 0, stime = 0;
            // Fields after the name start at 3 (state); utime is 14, stime 15.
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
        const std::string sched = readFile(base + "/schedstat");
        if (!sched.empty())
            t.runNs = atoll(sched.c_str());
        out[atoi(e.path().filename().c_str())] = t;
    }
    return out;
}

// What the daemon's thread of this name does.
std::string role(const std::string& name)
{
    static const std::map<std::string, std::string> roles = {
        {"ks-th0", "TimerTh, timer commands"},
        {"ks-th1", "TimerIFTh, timer service"},
        {"ks-th2", "XcpTh, UPS event queue"},
        {"ks-th3", "XcpIFTh, UPS link"},
        {"ks-th4", "PowerTh, power actions"},
        {"ks-th5", "LogTh, logs and broadcasts"},
        {"ks-th6", "CuiIFTh, console"},
        {"ks-th8", "IpcCTrlCTh, controller protocol"},
        {"ks-th12", "GetHostNameTh, host names"},
        {"ks-th13", "IpcIFTh, UDP transport"},
        {"kestrava", "main thread, waits for the end"},
    };
    auto it = roles.find(name);
    return it == roles.end() ? "" : it->second;
}

// A line of /proc/<pid>/status such as "VmRSS:     1234 kB", as "1234 kB".
std::string statusValue(pid_t pid, const std::string& key)
{
    std::istringstream status(readFile("/proc/" + std::to_string(pid) + "/status"));
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(key + ":", 0) == 0) {
            std::string v = line.substr(key.size() + 1);
            v.erase(0, v.find_first_not_of(" \t"));
            return v;
        }
    }
    return "?";
}

} // namespace

int main(int argc, char** argv)
{
    int seconds = 60;
    bool withMember = true;
    DaemonSandbox::Settings settings;
    settings.bin = std::filesystem::path(argv[0]).parent_path().string();
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--seconds" && i + 1 < argc) {
            seconds = atoi(argv[++i]);
        } else if (a == "--bin" && i + 1 < argc) {
            settings.bin = argv[++i];
        } else if (a == "--no-member") {
            withMember = false;
        } else if (a == "--help" || a == "-h") {
            fputs(kUsage, stdout);
            return 0;
        } else {
            fprintf(stderr, "kestrava-bench-idle-cost: unknown or incomplete option '%s'\n\n%s", a.c_str(), kUsage);
            return 2;
        }
    }
    if (seconds < 10 || seconds > 3600) {
        fprintf(stderr, "kestrava-bench-idle-cost: --seconds must be 10 to 3600\n");
        return 2;
    }

    DaemonSandbox box;
    // Detection takes up to a minute (line speed hunting); then one poll.
    if (!box.startPolling(settings, 1, 90, "kestrava-bench-idle-cost"))
        return 1;

    ScriptedMember member("127.0.0.2", "idle-member", "127.0.0.1", static_cast<uint16_t>(box.ctrlPort()));
    std::thread answering;
    if (withMember) {
        // The network side opens once the UPS answers.
        bool up = false;
        DG2MessageType reply;
        for (int i = 0; i < 30 && !up && member.ok() && !DaemonSandbox::interrupted(); ++i) {
            member.send(member.registration());
            up = member.receive(&reply, 1) && reply.msgNo == DG2::MsgRegister;
        }
        const std::vector<int> exchange = up ? member.answerUntil(DG2::MsgPowerReport, 20) : std::vector<int>();
        if (exchange.empty() || exchange.back() != DG2::MsgPowerReport) {
            fprintf(stderr, "kestrava-bench-idle-cost: the member did not get registered (daemon pid %d)\n",
                    static_cast<int>(box.daemonPid()));
            return 1;
        }
        // The member stays alive: it answers the controller's requests for
        // the whole window (its own wake-ups are this program's, not the daemon's).
        answering = std::thread([&member, seconds] {
            const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds + 3);
            while (std::chrono::steady_clock::now() < end && !DaemonSandbox::interrupted())
                member.answerUntil(-1, 0.5);
        });
    }

    DaemonSandbox::sleepFor(1);
    const pid_t daemon = box.daemonPid();
    const double from = DaemonSandbox::now();
    const auto before = sample(daemon);
    const bool whole = DaemonSandbox::sleepFor(seconds);
    const auto after = sample(daemon);
    const double to = DaemonSandbox::now();
    const std::string rss = statusValue(daemon, "VmRSS"), hwm = statusValue(daemon, "VmHWM");
    if (answering.joinable())
        answering.join();
    if (!whole || after.empty()) {
        fprintf(stderr, "kestrava-bench-idle-cost: %s\n",
                whole ? "the daemon ended during the window" : "interrupted");
        return 1;
    }

    const double window = to - from;
    const double scale = 60.0 / window;
    const long hz = sysconf(_SC_CLK_TCK);
    int polls = 0;
    for (double t : box.frameTimes("35"))
        polls += t >= from && t < to;

    printf("Idle controller%s, UPS polled; %.0f s window; per minute:\n",
           withMember ? " with one shutdown member registered" : " alone (no member)", window);
    printf("%-9s %-32s %9s %9s %8s %8s\n", "thread", "role", "wake-ups", "preempted", "CPU ms", "run ms");
    double totalWake = 0, totalPre = 0, totalCpu = 0, totalRun = 0;
    bool haveRun = true;
    // In thread-number order, the main thread first.
    std::vector<std::pair<int, int>> order; // (thread number, tid)
    for (const auto& [tid, a] : after)
        order.emplace_back(a.name.rfind("ks-th", 0) == 0 ? atoi(a.name.c_str() + 5) : -1, tid);
    std::sort(order.begin(), order.end());
    for (const auto& [number, tid] : order) {
        (void)number;
        const TaskSample& a = after.at(tid);
        auto b = before.find(tid);
        TaskSample zero;
        const TaskSample& p = b == before.end() ? zero : b->second; // a thread started in the window
        const double wake = (a.voluntary - p.voluntary) * scale;
        const double pre = (a.involuntary - p.involuntary) * scale;
        const double cpu = (a.ticks - p.ticks) * 1000.0 / hz * scale;
        const bool run = a.runNs >= 0 && (b == before.end() || p.runNs >= 0);
        const double runMs = run ? (a.runNs - std::max(0LL, p.runNs)) / 1e6 * scale : 0;
        haveRun = haveRun && run;
        totalWake += wake, totalPre += pre, totalCpu += cpu, totalRun += runMs;
        char runText[32] = "-";
        if (run)
            snprintf(runText, sizeof runText, "%.2f", runMs);
        printf("%-9s %-32s %9.1f %9.1f %8.1f %8s\n", a.name.c_str(), role(a.name).c_str(), wake, pre, cpu, runText);
    }
    char runTotal[32] = "-";
    if (haveRun)
        snprintf(runTotal, sizeof runTotal, "%.2f", totalRun);
    printf("%-9s %-32s %9.1f %9.1f %8.1f %8s\n", "TOTAL", "whole daemon", totalWake, totalPre, totalCpu, runTotal);
    printf("UPS polls in the window: %d (%.1f per minute)\n", polls, polls * scale);
    printf("Daemon memory at the end: VmRSS %s, VmHWM %s\n", rss.c_str(), hwm.c_str());
    printf("(wake-ups: voluntary context switches; CPU ms: utime+stime in %ld Hz ticks; run ms: time on a CPU\n"
           " from schedstat, in nanoseconds.)\n",
           hz);
    return 0;
}
