// Reaction time of a controller to a UPS alarm: the real daemon against the
// UPS simulator (no member), over N trials. Each trial raises alarm 59
// (utility not present) at the simulator's control socket at a random moment
// of the poll cycle (aimed at a chosen wait before the next alarm read, the
// waits spread evenly over the cycle), measures the time until the daemon's `wall` broadcast of
// the power failure (the sandbox's `wall` stamps it with `date +%s.%N`) and
// until the event log grows, then clears the alarm and waits until the
// daemon has broadcast the power's return. Prints min / median / p95 of both
// latencies, the figure the link's pacing predicts with its parts, and the
// same parts measured in the simulator's frame log.
//
//   kestrava-bench-reaction [--trials N] [--seed S] [--timer-tick-ms MS] [--bin DIR]
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <numeric>
#include <poll.h>
#include <random>
#include <string>
#include <sys/inotify.h>
#include <vector>

#include "bench/DaemonSandbox.h"

namespace {

const char kUsage[] =
    "usage: kestrava-bench-reaction [--trials N] [--seed S] [--timer-tick-ms MS] [--bin DIR]\n"
    "\n"
    "Starts the daemon as a controller against kestrava-upssim in a scratch home\n"
    "under /tmp (wink time 0, so a power failure is broadcast as soon as the\n"
    "daemon sees it). Each of N trials (default 10, 1..200) raises alarm 59\n"
    "(utility not present) at the simulator a random time w before a poll reads\n"
    "the alarms (the next poll's start is predicted from the frame log), measures\n"
    "the time until the daemon's wall broadcast and until its event log grows,\n"
    "then clears the alarm and waits for the power-restored broadcast. The waits\n"
    "w are spread over the mean poll cycle in N equal strata (one random point\n"
    "in each, in random order), so that few trials already sample the whole\n"
    "cycle evenly. Prints every trial, min / median / p95 of both\n"
    "latencies, the model of the expected latency and the measured poll timing.\n"
    "A run takes about 30 s per trial plus a minute. Both processes are ended and\n"
    "the scratch home removed.\n"
    "\n"
    "  --trials N          number of measured trials (one more, unmeasured, warms up)\n"
    "  --seed S            seed of the random waits (default: random; printed)\n"
    "  --timer-tick-ms MS  the timer service's tick for the model, 0..1000 (default\n"
    "                      0: timers fire at their expiry; 300 models the older\n"
    "                      300 ms tick)\n"
    "  --bin DIR           where kestrava and kestrava-upssim are (default: the\n"
    "                      directory of this program)\n";

// The link's pacing, as in xcp/XcpIFTh.cpp (sendCommand, recvData,
// communicateUps) and polling() in xcp/XcpIFThDetect.cpp, and the poll timer
// of StCTrl::setPollingEvent.
const double kWritePauseMs = 500;   // after every command written
const double kCollectMs = 500;      // collecting window after the first bytes of a reply
const double kExchangePauseMs = 150; // after the flush that ends an exchange
const int kExchangesPerPoll = 5;    // alarms (0x35) first, then 0x34, 0x33, 0x41, 0x3B
const double kPollTimerSeconds = 5; // armed at the poll result as now + 5, whole seconds

const int kAlarm = 59;              // utility not present
const double kReactionLimit = 60;   // seconds to wait for each broadcast

// Blocks until something changes in the watched directories, or `ms`.
class ChangeWatch {
public:
    explicit ChangeWatch(const std::vector<std::string>& dirs)
    {
        mFd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        for (const std::string& d : dirs) {
            if (mFd >= 0 && inotify_add_watch(mFd, d.c_str(), IN_MODIFY | IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO) < 0) {
                close(mFd);
                mFd = -1;
            }
        }
    }
    ~ChangeWatch()
    {
        if (mFd >= 0)
            close(mFd);
    }
    void wait(int ms)
    {
        if (mFd < 0) { // no inotify: look every 5 ms
            usleep(static_cast<useconds_t>(std::min(ms, 5)) * 1000);
            return;
        }
        pollfd p = {mFd, POLLIN, 0};
        if (poll(&p, 1, ms) > 0) {
            char buf[4096];
            while (read(mFd, buf, sizeof buf) > 0) {
            }
        }
    }

private:
    int mFd = -1;
};

struct Seen {
    double wall = 0;     // the broadcast's own time stamp
    std::string text;    // what was broadcast
    double logGrew = 0;  // when the event log was seen to grow
};

// Epoch time stamps and texts of the broadcasts so far.
std::vector<std::pair<double, std::string>> walls(const DaemonSandbox& box)
{
    std::vector<std::pair<double, std::string>> out;
    for (const std::string& line : readLines(box.wallLog())) {
        const std::string::size_type space = line.find(' ');
        out.emplace_back(atof(line.substr(0, space).c_str()), space == std::string::npos ? "" : line.substr(space + 1));
    }
    return out;
}

// Sends `command` to the simulator, then waits for the next broadcast and
// the next growth of the event log. *sent is when the command was sent.
bool act(DaemonSandbox& box, ChangeWatch& watch, const std::string& command, double* sent, Seen* seen,
         std::string* error)
{
    const size_t walls0 = walls(box).size();
    const off_t log0 = box.eventLogSize();
    *sent = DaemonSandbox::now();
    const std::string reply = box.control(command);
    if (reply.rfind("ok", 0) != 0) {
        *error = "the simulator refused \"" + command + "\": " + reply;
        return false;
    }
    *seen = Seen();
    while (seen->wall == 0 || seen->logGrew == 0) {
        const double left = *sent + kReactionLimit - DaemonSandbox::now();
        if (left <= 0 || DaemonSandbox::interrupted() || !box.daemonRunning()) {
            *error = DaemonSandbox::interrupted() ? "interrupted"
                     : !box.daemonRunning()       ? "the daemon ended"
                                                  : "no " + std::string(seen->wall == 0 ? "broadcast" : "event-log line") +
                                                  " within 60 s after \"" + command + "\"";
            return false;
        }
        watch.wait(static_cast<int>(std::min(left * 1000, 200.0)) + 1);
        if (seen->logGrew == 0 && box.eventLogSize() > log0)
            seen->logGrew = DaemonSandbox::now();
        if (seen->wall == 0) {
            const auto all = walls(box);
            if (all.size() > walls0) {
                seen->wall = all[walls0].first;
                seen->text = all[walls0].second;
            }
        }
    }
    return true;
}

double quantile(std::vector<double> v, double q) // nearest rank
{
    std::sort(v.begin(), v.end());
    size_t rank = static_cast<size_t>(std::ceil(q * v.size()));
    return v[std::min(v.size(), std::max<size_t>(rank, 1)) - 1];
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

double mean(const std::vector<double>& v) { return std::accumulate(v.begin(), v.end(), 0.0) / v.size(); }

// The first of `times` later than t (0: none).
double firstAfter(const std::vector<double>& times, double t)
{
    auto it = std::upper_bound(times.begin(), times.end(), t);
    return it == times.end() ? 0 : *it;
}

struct Trial {
    double aim = 0;     // the wait before the next alarm read it aimed at, s
    double raised = 0;  // alarm raised at the simulator
    Seen failure;       // the power-failure broadcast and log line
    double readAt = 0;  // the simulator received the alarm request (0x35) that saw it
    double lastAt = 0;  // ... and the fifth request of that poll (0x3B)
};

void printStats(const char* what, const std::vector<double>& v)
{
    printf("  %-28s min %6.0f   median %6.0f   p95 %6.0f   mean %6.0f ms\n", what, quantile(v, 0), median(v),
           quantile(v, 0.95), mean(v));
}

} // namespace

int main(int argc, char** argv)
{
    int trials = 10;
    double tickMs = 0;
    unsigned seed = std::random_device()();
    DaemonSandbox::Settings settings;
    settings.bin = std::filesystem::path(argv[0]).parent_path().string();
    settings.winkSeconds = 0;       // a power failure starts the countdown, and its broadcast, at once
    settings.countdownMinutes = 60; // the first minute report comes long after the power returned
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--trials" && i + 1 < argc) {
            trials = atoi(argv[++i]);
        } else if (a == "--seed" && i + 1 < argc) {
            seed = static_cast<unsigned>(strtoul(argv[++i], nullptr, 10));
        } else if (a == "--timer-tick-ms" && i + 1 < argc) {
            tickMs = atof(argv[++i]);
        } else if (a == "--bin" && i + 1 < argc) {
            settings.bin = argv[++i];
        } else if (a == "--help" || a == "-h") {
            fputs(kUsage, stdout);
            return 0;
        } else {
            fprintf(stderr, "kestrava-bench-reaction: unknown or incomplete option '%s'\n\n%s", a.c_str(), kUsage);
            return 2;
        }
    }
    if (trials < 1 || trials > 200 || tickMs < 0 || tickMs > 1000) {
        fprintf(stderr, "kestrava-bench-reaction: --trials must be 1 to 200, --timer-tick-ms 0 to 1000\n");
        return 2;
    }

    DaemonSandbox box;
    fprintf(stderr, "waiting for the UPS detection and three polls...\n");
    if (!box.startPolling(settings, 3, 120, "kestrava-bench-reaction"))
        return 1;
    ChangeWatch watch({box.home(), box.eventLogDir()});
    std::string error;

    // A first failure and return, not measured: the broadcast path warms up
    // and the return gives the first trial its point in the cycle.
    double sent = 0;
    Seen seen;
    if (!act(box, watch, "alarm set " + std::to_string(kAlarm), &sent, &seen, &error) ||
        !act(box, watch, "alarm clear " + std::to_string(kAlarm), &sent, &seen, &error)) {
        fprintf(stderr, "kestrava-bench-reaction: warm-up: %s\n", error.c_str());
        return 1;
    }
    double reference = seen.wall;

    // The poll timing so far, from the simulator's frame log: the cycle, the
    // poll's length, and how far past a second boundary polls start.
    std::vector<double> polls = box.frameTimes("35");
    std::vector<double> gaps, lengths, offsets;
    for (size_t i = 1; i < polls.size(); ++i)
        gaps.push_back(polls[i] - polls[i - 1]);
    const std::vector<double> lastsSoFar = box.frameTimes("3B");
    for (double p : polls) {
        const double last = firstAfter(lastsSoFar, p);
        if (last > 0 && last < p + kPollTimerSeconds * 2)
            lengths.push_back((last - p) / (kExchangesPerPoll - 1) * kExchangesPerPoll);
        offsets.push_back(p - std::floor(p));
    }
    const double cycleSoFar = mean(gaps), lengthSoFar = median(lengths), offsetSoFar = median(offsets);
    // The result of a poll that started at `start` arms the timer for the
    // whole second it ends in + 5 s; the next poll starts then, plus the
    // usual offset.
    auto nextStart = [&](double start) { return std::floor(start + lengthSoFar) + kPollTimerSeconds + offsetSoFar; };

    // Each trial aims at a wait w before an alarm read: the N waits are one
    // random point in each of N equal strata of the cycle, in random order.
    std::mt19937 random(seed);
    std::vector<int> strata(static_cast<size_t>(trials));
    std::iota(strata.begin(), strata.end(), 0);
    std::shuffle(strata.begin(), strata.end(), random);
    std::uniform_real_distribution<double> unit(0, 1);

    std::vector<Trial> done;
    for (int i = 0; i < trials; ++i) {
        Trial t;
        // The cycle's mean over every poll so far (a 1 s longer cycle comes
        // now and then, so the first few polls alone may be off by 3 %).
        std::vector<double> seenPolls = box.frameTimes("35");
        const double cycleNow = seenPolls.size() > polls.size()
                                    ? (seenPolls.back() - seenPolls.front()) / (seenPolls.size() - 1)
                                    : cycleSoFar;
        t.aim = (strata[static_cast<size_t>(i)] + unit(random)) / trials * cycleNow;
        // The next poll's start shows in the frame log; the alarm goes up w
        // before the one after it (or the one after that, when that moment
        // has already passed).
        double start = 0;
        if (!waitFor([&] { return (start = firstAfter(box.frameTimes("35"), reference)) > 0 || DaemonSandbox::interrupted(); },
                     30, 50) ||
            DaemonSandbox::interrupted()) {
            fprintf(stderr, "kestrava-bench-reaction: trial %d: %s\n", i + 1,
                    DaemonSandbox::interrupted() ? "interrupted" : "no poll within 30 s");
            return 1;
        }
        double target = nextStart(start);
        if (target - t.aim < DaemonSandbox::now() + 0.05)
            target = nextStart(target);
        DaemonSandbox::sleepFor(target - t.aim - DaemonSandbox::now());
        if (!act(box, watch, "alarm set " + std::to_string(kAlarm), &t.raised, &t.failure, &error) ||
            !act(box, watch, "alarm clear " + std::to_string(kAlarm), &sent, &seen, &error)) {
            fprintf(stderr, "kestrava-bench-reaction: trial %d: %s\n", i + 1, error.c_str());
            return 1;
        }
        reference = seen.wall;
        done.push_back(t);
        fprintf(stderr, "trial %d of %d: broadcast after %.0f ms\n", i + 1, trials,
                (t.failure.wall - t.raised) * 1000);
    }

    // Which poll saw each alarm, from the frame log.
    polls = box.frameTimes("35");
    const std::vector<double> lasts = box.frameTimes("3B");
    std::vector<double> exchange, poll, pause, cycle, handOff, waited;
    for (Trial& t : done) {
        t.readAt = firstAfter(polls, t.raised);
        t.lastAt = firstAfter(lasts, t.readAt);
        if (t.readAt > 0 && t.lastAt > 0) {
            const double ex = (t.lastAt - t.readAt) / (kExchangesPerPoll - 1);
            exchange.push_back(ex);
            poll.push_back(ex * kExchangesPerPoll);
            handOff.push_back(t.failure.wall - (t.readAt + ex * kExchangesPerPoll));
            waited.push_back(t.readAt - t.raised);
        }
    }
    for (size_t i = 1; i < polls.size(); ++i)
        cycle.push_back(polls[i] - polls[i - 1]);
    for (double p : polls) {
        const double last = firstAfter(lasts, p), next = firstAfter(polls, p);
        if (last > 0 && next > 0 && last < next)
            pause.push_back(next - last - (last - p) / (kExchangesPerPoll - 1));
    }

    std::vector<double> wallMs, logMs;
    printf("Reaction of a controller to alarm %d (utility not present), %d trials, seed %u\n", kAlarm, trials, seed);
    printf("%5s %9s %12s %12s %12s %12s %14s\n", "trial", "aimed ms", "broadcast ms", "event log ms",
           "to poll ms", "poll ms", "hand-off ms");
    for (size_t i = 0; i < done.size(); ++i) {
        const Trial& t = done[i];
        wallMs.push_back((t.failure.wall - t.raised) * 1000);
        logMs.push_back((t.failure.logGrew - t.raised) * 1000);
        if (t.readAt > 0 && t.lastAt > 0) {
            const double pollMs = (t.lastAt - t.readAt) / (kExchangesPerPoll - 1) * kExchangesPerPoll * 1000;
            printf("%5zu %9.0f %12.0f %12.0f %12.0f %12.0f %14.0f\n", i + 1, t.aim * 1000, wallMs.back(),
                   logMs.back(), (t.readAt - t.raised) * 1000, pollMs,
                   (t.failure.wall - t.readAt) * 1000 - pollMs);
        } else {
            printf("%5zu %9.0f %12.0f %12.0f %12s %12s %14s\n", i + 1, t.aim * 1000, wallMs.back(), logMs.back(),
                   "?", "?", "?");
        }
    }
    printf("Latency from raising the alarm (%d trials):\n", trials);
    printStats("to the wall broadcast", wallMs);
    printStats("to the event-log line", logMs);
    printf("  (broadcast text: \"%s\")\n", done.back().failure.text.c_str());

    // The model: the daemon reads the alarms in the first exchange of each
    // poll and reports the poll's result after the fifth.
    const double exchangeMs = kWritePauseMs + kCollectMs + kExchangePauseMs;
    const double pollMs = kExchangesPerPoll * exchangeMs;
    // The result arms the poll timer for now + 5 in whole seconds, so every
    // poll starts on a second boundary plus the tick's delay d (0 to one
    // tick): the next one starts 5 s after the second in which this one
    // ended, and a cycle is 5 s + floor(d + poll) + the next d - this d.
    const double wholeMs = std::floor(pollMs / 1000) * 1000;
    const double fractionMs = pollMs - wholeMs;
    const double overflow =
        tickMs > 0 ? std::min(1.0, std::max(0.0, (fractionMs + tickMs - 1000) / tickMs)) : (fractionMs >= 1000 ? 1 : 0);
    const double cycleMs = kPollTimerSeconds * 1000 + wholeMs + overflow * 1000;
    const double pauseMs = cycleMs - pollMs;
    const double modelMs = cycleMs / 2 + pollMs;
    printf("Model (the link's fixed pauses and the poll timer; transfer on the simulator's\n"
           "pseudo-terminal and the hand-offs between threads taken as 0):\n");
    printf("  one exchange: %.0f ms write pause + %.0f ms collecting window + %.0f ms after the flush = %.0f ms\n",
           kWritePauseMs, kCollectMs, kExchangePauseMs, exchangeMs);
    printf("  one poll: %d exchanges = %.0f ms; the alarms are the first exchange, the result is posted after the last\n",
           kExchangesPerPoll, pollMs);
    printf("  the result arms a %.0f s timer in whole seconds, so polls start on a second boundary plus the\n"
           "    timer tick's delay (0 to %.0f ms): a cycle is %.0f s + %.0f s, or 1 s more when that delay plus the\n"
           "    poll's %.0f ms over whole seconds passes a second (share %.2f): %.0f ms on average\n"
           "    (pause between polls %.0f ms)\n",
           kPollTimerSeconds, tickMs, kPollTimerSeconds, wholeMs / 1000, fractionMs, overflow, cycleMs, pauseMs);
    printf("  expected latency: half a cycle to the next alarm read (%.0f ms) + the rest of that poll (%.0f ms)\n"
           "    = %.0f ms\n",
           cycleMs / 2, pollMs, modelMs);
    const double med = median(wallMs);
    printf("  median broadcast latency %.0f ms is %+.1f %% off the model (acceptance: within 5 %%)\n", med,
           (med - modelMs) / modelMs * 100);
    if (!exchange.empty() && !pause.empty() && !cycle.empty()) {
        printf("Measured in the simulator's frame log (median; %zu polls):\n", polls.size());
        printf("  one exchange %.0f ms, one poll %.0f ms, pause between polls %.0f ms (%.0f to %.0f),\n"
               "  cycle %.0f ms (%.0f to %.0f; mean %.0f ms)\n",
               median(exchange) * 1000, median(poll) * 1000, median(pause) * 1000, quantile(pause, 0) * 1000,
               quantile(pause, 1) * 1000, median(cycle) * 1000, quantile(cycle, 0) * 1000, quantile(cycle, 1) * 1000,
               mean(cycle) * 1000);
        printf("  wait for the alarm read: median %.0f ms (half the mean cycle: %.0f ms)\n", median(waited) * 1000,
               mean(cycle) * 500);
        printf("  hand-off from the poll's end to the broadcast: median %.0f ms (%.0f to %.0f)\n",
               median(handOff) * 1000, quantile(handOff, 0) * 1000, quantile(handOff, 1) * 1000);
        const double measuredModel = (mean(cycle) / 2 + median(poll) + median(handOff)) * 1000;
        printf("  model from the measured parts: %.0f ms; the median is %+.1f %% off it\n", measuredModel,
               (med - measuredModel) / measuredModel * 100);
    }
    return 0;
}
