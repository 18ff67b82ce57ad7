// Event queue benchmarks: how fast events travel through the controller's one
// global queue (StCTrl::SetEvent / StCTrl::GetEvent) with a single consumer
// and with several consumer threads whose events are interleaved, and what a
// queued event costs in memory. Every run uses a local controller with a
// manual clock and a configuration map in a scratch directory, so nothing of
// the daemon's globals is touched.
//
// With several consumers the head-of-line rule shows: a consumer that finds
// the head addressed to another thread backs off 100 ms, so every change of
// addressee in the queue costs up to one back-off. The "Interleaved" and
// "Grouped" runs measure that cost; the queue itself is left as it is.
#include <benchmark/benchmark.h>

#include "bench/BenchMain.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <malloc.h>
#include <memory>
#include <mutex>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "config/FileMap.h"
#include "control/Records.h"
#include "control/StCTrl.h"
#include "tests/fakes/ManualClock.h"

namespace {

const int kStopCode = -1;
const int kBenchCode = 500;
// Consumers take the numbers of real workers: XcpTh, XcpIFTh, PowerTh, LogTh.
const int kConsumers[] = {2, 3, 4, 5};

size_t heapInUse() { return mallinfo2().uordblks; }

// A scratch home with a one-line configuration for the local controller.
class Scratch {
public:
    Scratch()
    {
        char dir[] = "/tmp/kestrava-bench-queue-XXXXXX";
        if (mkdtemp(dir) == nullptr) {
            perror("mkdtemp");
            return;
        }
        mDir = dir;
        mIni = mDir + "/Kestrava.ini";
        std::ofstream(mIni) << "# benchmark controller\nUPSController=1\n";
    }
    ~Scratch()
    {
        if (mDir.empty())
            return;
        unlink(mIni.c_str());
        rmdir(mDir.c_str());
    }
    const std::string& ini() const { return mIni; }

private:
    std::string mDir;
    std::string mIni;
};

// A local controller: its own queue, clock and configuration map.
struct Controller {
    Scratch scratch;
    ManualClock clock;
    FileMap config;
    StCTrl ctrl;
    Controller() : config(scratch.ini()), ctrl(&clock, &config) {}
};

EVENTMSGINFO makeEvent(int to, int code)
{
    EVENTMSGINFO ev;
    memset(&ev, 0, sizeof ev);
    ev.to = to;
    ev.code = code;
    ev.count = 2;
    ev.params[0] = to;
    ev.params[1] = code;
    return ev;
}

// Counts the events the consumers took and wakes the producer when a target
// count is reached.
class Tally {
public:
    void took()
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (++mTaken >= mTarget)
            mDone.notify_one();
    }
    void waitFor(long target)
    {
        std::unique_lock<std::mutex> lock(mLock);
        mTarget = target;
        mDone.wait(lock, [&] { return mTaken >= mTarget; });
    }
    long taken()
    {
        std::lock_guard<std::mutex> guard(mLock);
        return mTaken;
    }

private:
    std::mutex mLock;
    std::condition_variable mDone;
    long mTaken = 0;
    long mTarget = 0;
};

// Worker threads that loop on GetEvent with their own numbers, as the
// daemon's threads do, until each gets the stop code.
class Consumers {
public:
    Consumers(StCTrl* ctrl, int count, Tally* tally) : mCtrl(ctrl)
    {
        for (int i = 0; i < count; ++i) {
            int me = kConsumers[i];
            mNumbers.push_back(me);
            mThreads.emplace_back([ctrl, me, tally] {
                EVENTMSGINFO ev;
                for (;;) {
                    ctrl->GetEvent(&ev, me);
                    if (ev.code == kStopCode)
                        return;
                    tally->took();
                }
            });
        }
    }
    ~Consumers()
    {
        for (int me : mNumbers) {
            EVENTMSGINFO stop = makeEvent(me, kStopCode);
            mCtrl->SetEvent(&stop);
        }
        for (std::thread& t : mThreads)
            t.join();
    }
    int number(int i) const { return mNumbers[static_cast<size_t>(i)]; }
    int count() const { return static_cast<int>(mNumbers.size()); }

private:
    StCTrl* mCtrl;
    std::vector<int> mNumbers;
    std::vector<std::thread> mThreads;
};

// One thread posts and takes its own events: the bare cost of the queue
// (two 1036-byte copies, the locks and the wake-up signal).
void BM_SameThreadRoundTrip(benchmark::State& state)
{
    Controller c;
    EVENTMSGINFO ev = makeEvent(5, kBenchCode);
    EVENTMSGINFO out;
    for (auto _ : state) {
        c.ctrl.SetEvent(&ev);
        c.ctrl.GetEvent(&out, 5);
        benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SameThreadRoundTrip);

// The producer posts one event and waits until the consumer thread has taken
// it: the hand-off latency through the wake-up condition.
void BM_OneConsumerHandOff(benchmark::State& state)
{
    Controller c;
    Tally tally;
    Consumers consumers(&c.ctrl, 1, &tally);
    EVENTMSGINFO ev = makeEvent(consumers.number(0), kBenchCode);
    long sent = 0;
    for (auto _ : state) {
        c.ctrl.SetEvent(&ev);
        tally.waitFor(++sent);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_OneConsumerHandOff)->UseRealTime();

// The producer posts a burst of events for one consumer and waits until all
// are taken: the throughput of a single busy worker.
void BM_OneConsumerBurst(benchmark::State& state)
{
    const int burst = static_cast<int>(state.range(0));
    Controller c;
    Tally tally;
    Consumers consumers(&c.ctrl, 1, &tally);
    EVENTMSGINFO ev = makeEvent(consumers.number(0), kBenchCode);
    long sent = 0;
    for (auto _ : state) {
        for (int i = 0; i < burst; ++i)
            c.ctrl.SetEvent(&ev);
        sent += burst;
        tally.waitFor(sent);
    }
    state.SetItemsProcessed(state.iterations() * burst);
}
BENCHMARK(BM_OneConsumerBurst)->Arg(1000)->UseRealTime();

// Several consumers, one batch of events per iteration. interleaved: the
// addressees take turns (a, b, c, a, b, c, ...), so the head changes owner
// after every event; grouped: all events of one consumer, then all of the
// next, so the head changes owner only count - 1 times.
void runConsumers(benchmark::State& state, bool interleaved)
{
    const int count = static_cast<int>(state.range(0));
    const int perConsumer = 4;
    const int batch = count * perConsumer;
    Controller c;
    Tally tally;
    Consumers consumers(&c.ctrl, count, &tally);
    std::vector<EVENTMSGINFO> events;
    for (int i = 0; i < batch; ++i) {
        int who = interleaved ? i % count : i / perConsumer;
        events.push_back(makeEvent(consumers.number(who), kBenchCode));
    }
    int switches = 0;
    for (int i = 1; i < batch; ++i)
        if (events[static_cast<size_t>(i)].to != events[static_cast<size_t>(i) - 1].to)
            ++switches;
    long sent = 0;
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        for (EVENTMSGINFO& ev : events)
            c.ctrl.SetEvent(&ev);
        sent += batch;
        tally.waitFor(sent);
    }
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    const double taken = static_cast<double>(batch) * static_cast<double>(state.iterations());
    state.SetItemsProcessed(state.iterations() * batch);
    state.counters["owner_changes"] = switches;
    state.counters["ms_per_event"] = taken > 0 ? ms / taken : 0.0;
    // Wall time of a batch in units of the 100 ms back-off: the consumers
    // back off together, so a batch takes whole back-off rounds, while the
    // events themselves cost microseconds (see BM_OneConsumerBurst).
    state.counters["backoff_rounds"] =
        state.iterations() > 0 ? ms / (100.0 * static_cast<double>(state.iterations())) : 0.0;
}

void BM_InterleavedConsumers(benchmark::State& state) { runConsumers(state, true); }
void BM_GroupedConsumers(benchmark::State& state) { runConsumers(state, false); }
BENCHMARK(BM_InterleavedConsumers)->DenseRange(2, 4)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GroupedConsumers)->DenseRange(2, 4)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

// A backlog of queued events: the time to queue and drain it and the heap it
// takes while queued (the queue keeps whole 1036-byte records).
void BM_Backlog(benchmark::State& state)
{
    const int backlog = static_cast<int>(state.range(0));
    Controller c;
    EVENTMSGINFO ev = makeEvent(5, kBenchCode);
    EVENTMSGINFO out;
    double bytesPerEvent = 0;
    for (auto _ : state) {
        const size_t before = heapInUse();
        for (int i = 0; i < backlog; ++i)
            c.ctrl.SetEvent(&ev);
        const size_t after = heapInUse();
        bytesPerEvent = after > before ? static_cast<double>(after - before) / backlog : 0.0;
        for (int i = 0; i < backlog; ++i)
            c.ctrl.GetEvent(&out, 5);
        benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations() * backlog);
    state.counters["heap_B_per_event"] = bytesPerEvent;
}
BENCHMARK(BM_Backlog)->Arg(100)->Arg(10000)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv)
{
    std::printf("Kestrava event queue: StCTrl::SetEvent/GetEvent on a local controller.\n"
                "Interleaved/Grouped N: N consumer threads, 4 events each per batch, addressees\n"
                "taking turns or grouped. A consumer that finds the head of the queue addressed to\n"
                "another thread backs off 100 ms; backoff_rounds = wall time of a batch / 100 ms.\n\n");
    if (!initBenchmarks(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    std::printf("\nEvent record: %zu bytes (EVENTMSGINFO), notification: %zu bytes; peak RSS %ld kB.\n",
                sizeof(EVENTMSGINFO), sizeof(_NOTIFYMSGINFO), usage.ru_maxrss);
    return 0;
}
