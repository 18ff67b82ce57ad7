// Controller core: the global event queue, delivery to running threads, the
// status record, the builders and the start.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "control/StCTrl.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempConfig.h"

namespace {
using V = std::vector<std::string>;

void post(StCTrl& ctrl, int to, int code, int p0 = 0)
{
    EVENTMSGINFO ev = eventRecord(to, code, {p0});
    ctrl.SetEvent(&ev);
}

_NOTIFYMSGINFO notification(int code, const std::vector<int>& params = {})
{
    _NOTIFYMSGINFO nt{code, 0, {}};
    for (int p : params)
        nt.params[nt.count++] = p;
    return nt;
}

TEST(StCTrlQueue, TheHeadBlocksEveryoneBehindItAndWaitersWake)
{
    TempConfig cfg("UPSController=1\n");
    ManualClock clock;
    StCTrl ctrl(&clock, cfg.map());
    // One global order: a head for a thread that does not take it holds up
    // the event behind it, whoever that is for.
    post(ctrl, 7, EvUpsDetect, 70);
    post(ctrl, ThPower, EvUpsPoll, 40);
    std::atomic<bool> got{false};
    std::thread four([&] {
        EVENTMSGINFO ev;
        ctrl.GetEvent(&ev, ThPower);
        got = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_FALSE(got.load()) << "thread 4 overtook the head of the queue";
    EVENTMSGINFO ev;
    ctrl.GetEvent(&ev, 7);
    four.join();

    // A waiter on the empty queue wakes for its event.
    std::thread waiter([&] {
        EVENTMSGINFO mine;
        ctrl.GetEvent(&mine, ThLog);
        EXPECT_EQ(mine.code, EvMeterLog);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    post(ctrl, ThLog, EvMeterLog);
    waiter.join();
}

TEST(StCTrlQueue, EventsForThreadsThatDoNotRunAreDroppedNotQueued)
{
    TempConfig cfg("UPSController=1\nAccessCode1=x\n");
    ManualClock clock;
    StCTrl ctrl(&clock, cfg.map());
    // A controller whose UPS never answered: the network threads never started.
    for (int n : {ThTimer, ThTimerIF, ThXcpIF, ThXcp, ThLog, ThPower, ThCui})
        ctrl.markRunning(n);
    _NOTIFYMSGINFO changed = notification(NtConfigChanged); // console change of "AccessCode1"
    ctrl.SetNotify(&changed);
    post(ctrl, ThLog, EvMeterLog, 7);
    EXPECT_EQ(drainDescribed(ctrl), V{"5:EvMeterLog(501):7"}) << "the change must not block the queue";
    EXPECT_FALSE(ctrl.delivers(ThCtrlSlot0));
    ctrl.markRunning(ThCtrlSlot0);
    ctrl.SetNotify(&changed);
    EXPECT_EQ(drainDescribed(ctrl), V{"8:EvConfigChanged(800):"});
}

TEST(StCTrlStatus, OutputReportsNeedSeveralControllersAndChangesReachTheLogOffTheController)
{
    ManualClock clock;
    TempConfig member("UPSController=2\n");
    StCTrl m(&clock, member.map());
    EXPECT_EQ(m.SetOutPutStatus(true, false, 0), 0) << "one controller: never a log code";
    m.SetMemberContCount(2);
    EXPECT_EQ(m.SetOutPutStatus(true, false, 1), LogOutputOnFirst);
    EXPECT_EQ(m.SetOutPutStatus(true, false, 1), 0);
    EXPECT_EQ(m.SetOutPutStatus(false, false, 1), LogOutputOff);
    EXPECT_EQ(m.SetOutPutStatus(true, false, 1), LogOutputOn);
    EXPECT_EQ(m.SetOutPutStatus(false, true, 2), 0) << "a quiet first report marks nothing";
    EXPECT_EQ(m.SetOutPutStatus(false, false, 2), LogOutputOffFirst);

    m.CheckContInfo();
    m.CheckContInfo(); // the snapshot now matches: no second report
    EXPECT_EQ(drainDescribed(m), V{"5:EvControllerInfo(504):"});
    TempConfig controller("UPSController=1\n");
    StCTrl c(&clock, controller.map());
    c.ShutDownSetPFStatus(0, 1);
    c.CheckContInfo();
    EXPECT_EQ(c.queuedEvents(), 0u);
}

TEST(StCTrlBuilders, TimerRecordsAndLogCodesRefusedOnceTheHostShutdownStarted)
{
    TempConfig cfg("UPSController=1\nAppTermTimeOut1=120\nShutdownDelay1=180\nAppTermCommand1=\"/bin/true --x\"\n");
    ManualClock clock(1000000);
    StCTrl ctrl(&clock, cfg.map());
    ctrl.refreshNow();
    ctrl.setShutdownTiming(0);
    EXPECT_EQ(ctrl.getRunCommand(0), "/bin/true --x"); // quotes removed
    EVENTMSGINFO ev;
    ctrl.setDummyAppTermTimerStart(&ev, ThCtrlSlot0); // 120 + 180 s
    EXPECT_EQ(describe(ev), "0:EvTimerStart(100):12,1000300,0,8");

    ctrl.StartShutdown(0, 1);
    for (int code : {LogCountdownMinute, LogScheduleWarning, LogScheduleCancelled, LogShutdownStarted, LogHostShutdown}) {
        EVENTMSGINFO rec{};
        rec.code = 4242;
        const bool refused = code < LogShutdownStarted || code == LogScheduleWarning || code == LogScheduleCancelled;
        EXPECT_EQ(ctrl.setPowerLogEvent(&rec, code, ThCtrlSlot0), !refused) << logCodeName(code);
        EXPECT_EQ(rec.code, refused ? 4242 : EvLog) << "a refused record stays untouched";
    }
}

TEST(StCTrlStart, LetsGoAndTheUpsLinkNotifications)
{
    TempConfig member("UPSController=2\nWinkTime3=45\nShutdownTime3=2\n");
    ManualClock clock(5000);
    StCTrl m(&clock, member.map());
    m.LetsGo(false);
    EXPECT_EQ(drainDescribed(m), V{"5:EvLog(500):1,6"});
    // Every controller slot starts with its own timing.
    EXPECT_EQ(m.getWinkTime(2), 45);
    EXPECT_EQ(m.getCountdownTime(2), 2);
    // A datagram goes to the slot thread the transport names; a quiet
    // network stops only the network's own timers.
    for (_NOTIFYMSGINFO nt : {notification(NtNetReceived, {ThCtrlSlot2}), notification(NtStopAllTimers)})
        m.SetNotify(&nt);
    EXPECT_EQ(drainDescribed(m), (V{"10:EvNetReceived(600):", "0:EvTimerStop(102):17", "0:EvTimerStop(102):18",
                                    "0:EvTimerStop(102):19", "0:EvTimerStop(102):20",
                                    "0:EvTimerStopAll(103):1,30,265"}));

    TempConfig cfg("UPSController=1\nDumpLogRate=5\n");
    StCTrl ctrl(&clock, cfg.map());
    ctrl.LetsGo(true);
    EXPECT_EQ(drainDescribed(ctrl), (V{"5:EvLog(500):1,6", "5:EvLog(500):1,265", "5:EvMeterLog(501):0",
                                       "0:EvTimerStart(100):16,6800,1800,8", "0:EvTimerStart(100):1,5005,0,8"}));
    auto notify = [&](int code, std::vector<int> params = {}) {
        _NOTIFYMSGINFO nt = notification(code, params);
        ctrl.SetNotify(&nt);
        return drainDescribed(ctrl);
    };
    const std::string detect = "0:EvTimerStart(100):1,5005,0,8", poll = "0:EvTimerStart(100):2,5005,0,8";
    EXPECT_EQ(notify(NtUpsNotDetected), (V{detect, "5:EvLog(500):8,10", "5:EvMeterLog(501):9"}));
    EXPECT_EQ(ctrl.GetStateUPS(), UpsNotDetected);
    EXPECT_EQ(notify(NtUpsNotDetected), V{detect}) << "a second failure only restarts detection";
    EXPECT_EQ(notify(NtUpsEstablished), (V{poll, "5:EvLog(500):8,11", "5:EvMeterLog(501):10",
                                           "0:EvTimerStop(102):11", "0:EvTimerStart(100):11,5300,300,8"}));
    EXPECT_EQ(notify(NtUpsCommError), (V{detect, "5:EvMeterLog(501):9", "5:EvLog(500):8,10"}));
    EXPECT_EQ(ctrl.GetStateUPS(), UpsCommError);
    EXPECT_EQ(notify(NtUpsCommError), V{}) << "already in error: ignored";
    EXPECT_EQ(notify(NtTimerExpired, {TmUpsDetect, 0, ThCtrlSlot0}), V{"2:EvUpsRedetect(203):"});
    EXPECT_EQ(notify(NtUpsCommRestored), (V{poll, "5:EvMeterLog(501):10", "5:EvLog(500):8,11"}));
    EXPECT_EQ(ctrl.GetStateUPS(), UpsCommunicating);
}
} // namespace
