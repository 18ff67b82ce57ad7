// UPS data benchmarks: the per-call cost of the block parsers the UPS link
// runs on every detection and poll (setStandardIDBlock, setMeters,
// setActionLevel + checkAlarm), on blocks built by the UPS simulator's own
// model, so they have the layout and contents a real poll brings. Two UPSs:
// "typical" (the simulator's default 22 supported alarms) and "all_alarms"
// (every one of the 230 alarms supported, the largest map XCP can announce).
// A last run drives XcpIFTh::polling() against an in-memory line that answers
// like the simulator, with the link's fixed pauses only added up, to set the
// processor time of a poll against the pauses the link takes on purpose.
#include <benchmark/benchmark.h>

#include "bench/BenchMain.h"

#include <cstdio>
#include <cstring>
#include <malloc.h>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <vector>

#include "control/Records.h"
#include "tools/upssim/SimOptions.h"
#include "tools/upssim/UpsModel.h"
#include "tools/upssim/XcpFrameCodec.h"
#include "xcp/SerialPort.h"
#include "xcp/Sleeper.h"
#include "xcp/UpsDataBlock.h"
#include "xcp/XcpIFTh.h"

namespace {

const int kAlarmUtilityFail = 57;
const int kAlarmUtilityNotPresent = 59;

size_t heapInUse() { return mallinfo2().uordblks; }

std::string text(const upssim::Bytes& b) { return std::string(b.begin(), b.end()); }

// The blocks of one simulated UPS, as the UPS link receives them.
struct Blocks {
    std::string id;
    std::string meters;
    std::string status;
    std::string outlets;
    std::string battery;
    std::string alarmsNormal;   // no alarm active
    std::string alarmsFailure;  // utility failed (alarms 57 and 59)
    int supported = 0;
};

Blocks makeBlocks(bool allAlarms)
{
    upssim::SimOptions options;
    if (allAlarms) {
        options.supportedAlarms.clear();
        for (int a = 0; a < 230; ++a)
            options.supportedAlarms.insert(a);
    }
    upssim::UpsModel model(options);
    Blocks b;
    b.id = text(model.identificationBlock());
    b.meters = text(model.metersBlock());
    b.status = text(model.statusBlock());
    b.outlets = text(model.outletBlock(0));
    b.battery = text(model.batteryTestBlock());
    b.alarmsNormal = text(model.alarmBlock());
    std::string error;
    model.setAlarm(kAlarmUtilityFail, true, &error);
    model.setAlarm(kAlarmUtilityNotPresent, true, &error);
    b.alarmsFailure = text(model.alarmBlock());
    b.supported = static_cast<int>(options.supportedAlarms.size());
    return b;
}

Blocks gTypical;
Blocks gAll;

const Blocks& blocksOf(int which) { return which == 0 ? gTypical : gAll; }

const unsigned char* bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }

// Identification block: identity, meter map and alarm map (on detection).
void BM_SetStandardIDBlock(benchmark::State& state, int which)
{
    const Blocks& b = blocksOf(which);
    UpsDataBlock ups;
    for (auto _ : state)
        ups.setStandardIDBlock(b.id);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(b.id.size()));
    state.counters["block_bytes"] = static_cast<double>(b.id.size());
}
BENCHMARK_CAPTURE(BM_SetStandardIDBlock, typical, 0);
BENCHMARK_CAPTURE(BM_SetStandardIDBlock, all_alarms, 1);

// Meters block: eight meters of integer, scaled and float formats (each poll).
void BM_SetMeters(benchmark::State& state)
{
    UpsDataBlock ups;
    ups.setStandardIDBlock(gTypical.id);
    for (auto _ : state)
        ups.setMeters(gTypical.meters);
    state.counters["block_bytes"] = static_cast<double>(gTypical.meters.size());
}
BENCHMARK(BM_SetMeters);

// Alarm states and the change check of each poll. steady: the same states
// every poll (the usual case); changing: utility fails and returns on
// alternate polls, so every check records changes and the poll result lists
// the codes (changedAlarmCodes, as the poll-result notification takes them).
void BM_ActionLevelCheckAlarm(benchmark::State& state, int which, bool changing)
{
    const Blocks& b = blocksOf(which);
    UpsDataBlock ups;
    ups.setStandardIDBlock(b.id);
    int32_t codes[256];
    bool failure = false;
    for (auto _ : state) {
        const std::string& states = changing && failure ? b.alarmsFailure : b.alarmsNormal;
        ups.setActionLevel(bytes(states), static_cast<int>(states.size()), 0);
        ups.checkAlarm(0);
        if (changing) {
            benchmark::DoNotOptimize(ups.changedAlarmCodes(0, codes, 251));
            failure = !failure;
        }
    }
    state.counters["alarms"] = b.supported;
}
BENCHMARK_CAPTURE(BM_ActionLevelCheckAlarm, typical_steady, 0, false);
BENCHMARK_CAPTURE(BM_ActionLevelCheckAlarm, typical_changing, 0, true);
BENCHMARK_CAPTURE(BM_ActionLevelCheckAlarm, all_alarms_steady, 1, false);
BENCHMARK_CAPTURE(BM_ActionLevelCheckAlarm, all_alarms_changing, 1, true);

// Everything a poll stores, without the line: alarms, meters, status,
// outlets, battery test, the alarm check and the outlet change test.
void BM_PollBlocks(benchmark::State& state, int which)
{
    const Blocks& b = blocksOf(which);
    UpsDataBlock ups;
    ups.setStandardIDBlock(b.id);
    for (auto _ : state) {
        ups.setActionLevel(bytes(b.alarmsNormal), static_cast<int>(b.alarmsNormal.size()), 0);
        ups.setMeters(b.meters);
        ups.setUpsStatus(b.status);
        ups.setOutlets(b.outlets);
        ups.setBatteryData(b.battery);
        ups.checkAlarm(0);
        benchmark::DoNotOptimize(ups.CheckSegStatus());
    }
}
BENCHMARK_CAPTURE(BM_PollBlocks, typical, 0);
BENCHMARK_CAPTURE(BM_PollBlocks, all_alarms, 1);

// A serial line with the simulated UPS behind it: every framed command is
// answered at once with the simulator's reply frames.
class SimulatedLine : public SerialPort {
public:
    explicit SimulatedLine(upssim::UpsModel* model) : mModel(model) {}
    int open(const std::string&) override
    {
        mOpen = true;
        return 3;
    }
    void close() override { mOpen = false; }
    bool isOpen() const override { return mOpen; }
    bool makeRaw() override { return true; }
    bool setSpeed(int rate) override
    {
        mSpeed = rate;
        return true;
    }
    int getSpeed() const override { return mSpeed; }
    int read(unsigned char* buf, int max) override
    {
        int n = static_cast<int>(mPending.size() - mRead);
        if (n > max)
            n = max;
        if (n > 0)
            std::memcpy(buf, mPending.data() + mRead, static_cast<size_t>(n));
        mRead += static_cast<size_t>(n);
        return n;
    }
    bool waitReadable(int) override { return mRead < mPending.size(); }
    long nowMs() const override { return 0; }
    int write(const unsigned char* buf, int count) override
    {
        if (count >= 4 && buf[0] == 0xAB) {
            upssim::Bytes args(buf + 3, buf + count - 1);
            upssim::UpsModel::Reply reply = mModel->handle(buf[2], args, 0, &mNotes);
            mNotes.clear();
            if (reply.send) {
                upssim::Bytes wire = upssim::XcpFrameCodec::encodeReply(reply.block, reply.data);
                mPending.insert(mPending.end(), wire.begin(), wire.end());
            }
        }
        return count;
    }
    void flush() override
    {
        mPending.clear();
        mRead = 0;
    }
    bool setRTS(bool) override { return true; }
    bool setDTR(bool) override { return true; }
    bool getModemStatus(int* status) override
    {
        *status = kClearToSend | kDataSetReady;
        return true;
    }
    bool clearBreak() override { return true; }

private:
    upssim::UpsModel* mModel;
    std::vector<std::string> mNotes;
    upssim::Bytes mPending;
    size_t mRead = 0;
    bool mOpen = false;
    int mSpeed = 0;
};

// Adds up the pauses instead of taking them.
class PauseCounter : public Sleeper {
public:
    void sleepMs(int ms) override { total += ms; }
    long total = 0;
};

// One poll through the link: five framed exchanges (alarms, meters, status,
// outlets, battery test), each reply walked and checked, parsed into the UPS
// data, then the poll-result notification filled.
void BM_PollThroughLink(benchmark::State& state)
{
    upssim::SimOptions options;
    upssim::UpsModel model(options);
    SimulatedLine line(&model);
    PauseCounter pauses;
    UpsDataBlock upsData;
    UpsDataBlock* ups = &upsData;
    ups->setStandardIDBlock(gTypical.id);
    FileMap* noConfig = nullptr;
    XcpIFTh link(3, nullptr, &line, &noConfig, &ups, nullptr, &pauses);
    if (link.portOpen() != 1) {
        state.SkipWithError("the simulated line did not open");
        return;
    }
    _NOTIFYMSGINFO nt;
    int failures = 0;
    for (auto _ : state) {
        if (link.polling() != XcpIFTh::XcpOk)
            ++failures;
        link.checkNotify(&nt);
        benchmark::DoNotOptimize(nt);
    }
    const double polls = static_cast<double>(state.iterations());
    state.counters["paused_ms_per_poll"] = polls > 0 ? static_cast<double>(pauses.total) / polls : 0.0;
    state.counters["failed_polls"] = failures;
}
BENCHMARK(BM_PollThroughLink)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv)
{

    gTypical = makeBlocks(false);
    gAll = makeBlocks(true);
    std::printf("Kestrava UPS data: block parsers on the simulator's blocks.\n"
                "typical = %d supported alarms, all_alarms = %d; identification block %zu / %zu bytes,\n"
                "meters block %zu bytes, alarm states %zu / %zu bytes.\n\n",
                gTypical.supported, gAll.supported, gTypical.id.size(), gAll.id.size(), gTypical.meters.size(),
                gTypical.alarmsNormal.size(), gAll.alarmsNormal.size());
    if (!initBenchmarks(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    const size_t before = heapInUse();
    std::unique_ptr<UpsDataBlock> ups(new UpsDataBlock());
    ups->setStandardIDBlock(gAll.id);
    ups->setOutlets(gAll.outlets);
    const size_t after = heapInUse();
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    std::printf("\nUPS data record: %zu bytes (sizeof UpsDataBlock); identified with all 230 alarms and "
                "with its outlet table it holds %.1f kB of heap, the record included. Peak RSS %ld kB.\n",
                sizeof(UpsDataBlock), after > before ? static_cast<double>(after - before) / 1024.0 : 0.0,
                usage.ru_maxrss);
    return 0;
}
