// Controller core: the global event queue, the status record and the builders.
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

TEST(StCTrlQueue, EventsAreTakenInOneGlobalOrderAcrossThreads)
{
    TempConfig cfg("UPSController=1\n");
    ManualClock clock;
    StCTrl ctrl(&clock, cfg.map());
    const int total = 10;
    for (int i = 0; i < total; ++i)
        post(ctrl, i % 2 ? 4 : 3, 200, i);
    // Event i can only be taken once every earlier event has left the queue,
    // so right after taking it at most total - 1 - i events remain. Each
    // thread also sees its own events in posting order.
    auto consumer = [&](int me) {
        int last = -1;
        for (int n = 0; n < total / 2; ++n) {
            EVENTMSGINFO ev;
            ctrl.GetEvent(&ev, me);
            const int i = ev.params[0];
            EXPECT_EQ(ev.to, me);
            EXPECT_LE(ctrl.queuedEvents(), static_cast<size_t>(total - 1 - i))
                << "event " << i << " was taken while an earlier one was still queued";
            EXPECT_GT(i, last);
            last = i;
        }
    };
    std::thread a(consumer, 3);
    std::thread b(consumer, 4);
    a.join();
    b.join();
    EXPECT_EQ(ctrl.queuedEvents(), 0u);
}

TEST(StCTrlQueue, HeadForAnIdleThreadBlocksEveryoneBehindItAndWaitersWake)
{
    TempConfig cfg("UPSController=1\n");
    ManualClock clock;
    StCTrl ctrl(&clock, cfg.map());
    post(ctrl, 7, 1, 70);
    post(ctrl, 4, 2, 40);
    std::atomic<bool> got{false};
    std::thread four([&] {
        EVENTMSGINFO ev;
        ctrl.GetEvent(&ev, 4);
        EXPECT_EQ(ev.params[0], 40);
        got = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_FALSE(got.load()) << "thread 4 overtook the head of the queue";
    EVENTMSGINFO ev;
    ctrl.GetEvent(&ev, 7);  // the idle thread finally takes its event
    EXPECT_EQ(ev.params[0], 70);
    four.join();
    EXPECT_TRUE(got.load());
    EXPECT_EQ(ctrl.queuedEvents(), 0u);

    // A waiter on the empty queue wakes for its event.
    std::thread waiter([&] {
        EVENTMSGINFO mine;
        ctrl.GetEvent(&mine, 5);
        EXPECT_EQ(mine.code, 501);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    post(ctrl, 5, 501);
    waiter.join();
}

TEST(StCTrlStatus, OutputReportsNeedSeveralControllers)
{
    TempConfig cfg("UPSController=2\n");
    ManualClock clock;
    StCTrl ctrl(&clock, cfg.map());
    // One controller: never a log code.
    EXPECT_EQ(ctrl.SetOutPutStatus(true, false, 0), 0);
    EXPECT_EQ(ctrl.SetOutPutStatus(false, false, 0), 0);
    EXPECT_EQ(ctrl.SetOutPutStatus(true, false, 0), 0);

    ctrl.SetMemberContCount(2);
    // Slot 1: first report of "on" is 237, repeating it is silent, then off is 234.
    EXPECT_EQ(ctrl.SetOutPutStatus(true, false, 1), 237);
    EXPECT_EQ(ctrl.SetOutPutStatus(true, false, 1), 0);
    EXPECT_EQ(ctrl.SetOutPutStatus(false, false, 1), 234);
    EXPECT_EQ(ctrl.SetOutPutStatus(true, false, 1), 235);
    // Slot 2: first report of "off" is 236; a quiet first report marks nothing.
    EXPECT_EQ(ctrl.SetOutPutStatus(false, true, 2), 0);
    EXPECT_EQ(ctrl.SetOutPutStatus(false, false, 2), 236);
    EXPECT_EQ(ctrl.SetOutPutStatus(true, true, 2), 0);
}

TEST(StCTrlStatus, ContInfoChangesAreReportedOnlyOffTheControllerRole)
{
    ManualClock clock;
    TempConfig controller("UPSController=1\n");
    StCTrl c(&clock, controller.map());
    c.ShutDownSetPFStatus(0, 1);
    c.CheckContInfo();
    EXPECT_EQ(c.queuedEvents(), 0u);

    TempConfig member("UPSController=2\n");
    StCTrl m(&clock, member.map());
    m.CheckContInfo();
    EXPECT_EQ(m.queuedEvents(), 0u);
    m.ShutDownSetCommStatus(1, 2);
    m.CheckContInfo();
    m.CheckContInfo();  // the snapshot now matches: no second report
    EXPECT_EQ(drainDescribed(m), V{"5:EvControllerInfo(504):"});
}

TEST(StCTrlBuilders, TimerRecordsCarryTheConfiguredTimes)
{
    TempConfig cfg("UPSController=1\nAppTermTimeOut1=120\nShutdownDelay1=180\nAppTermCommand1=\"/bin/true --x\"\n"
                   "DumpLogRate=10\n");
    ManualClock clock(1000000);
    StCTrl ctrl(&clock, cfg.map());
    ctrl.refreshNow();
    ctrl.setShutdownTiming(0);
    EXPECT_EQ(ctrl.getRunCommand(0), "/bin/true --x");  // quotes removed

    EVENTMSGINFO ev;
    ctrl.setDummyAppTermTimerStart(&ev, 8);  // 120 + 180 s
    EXPECT_EQ(describe(ev), "0:EvTimerStart(100):12,1000300,0,8");
    // The log-deletion "stop" builder keeps the id and times the record held.
    ctrl.setLogDeleteTimerStopEvent(&ev);
    EXPECT_EQ(describe(ev), "0:EvTimerStart(100):12,1000300,0,8");
    ctrl.setMeterTimerStartEvent(&ev);
    EXPECT_EQ(describe(ev), "0:EvTimerStart(100):11,1000600,600,8");
}

TEST(StCTrlBuilders, CountdownAndScheduleLogCodesAreRefusedOnceTheHostShutdownStarted)
{
    TempConfig cfg("UPSController=1\n");
    ManualClock clock;
    StCTrl ctrl(&clock, cfg.map());
    ctrl.StartShutdown(0, 1);
    ASSERT_EQ(ctrl.GetStartShutdownStatus(), 1);
    for (int code : {0, 1, 2, 204, 206}) {
        EVENTMSGINFO ev{};
        ev.code = 4242;
        EXPECT_FALSE(ctrl.setPowerLogEvent(&ev, code, 8)) << code;
        EXPECT_EQ(ev.code, 4242) << "a refused record must stay untouched";
    }
    for (int code : {3, 7, 208, 217}) {
        EVENTMSGINFO ev{};
        EXPECT_TRUE(ctrl.setPowerLogEvent(&ev, code, 8)) << code;
        EXPECT_EQ(ev.params[1], code);
    }
}

TEST(StCTrlStart, LetsGoOnAControllerStartsLoggingDeletionAndDetection)
{
    TempConfig cfg("UPSController=1\n");
    ManualClock clock(5000);
    StCTrl ctrl(&clock, cfg.map());
    ctrl.LetsGo(true);
    EXPECT_EQ(drainDescribed(ctrl),
              (V{"5:EvLog(500):1,6", "5:EvLog(500):1,265", "5:EvMeterLog(501):0", "0:EvTimerStart(100):16,6800,1800,8", "0:EvTimerStart(100):1,5005,0,8"}));

    TempConfig member("UPSController=2\n");
    StCTrl m(&clock, member.map());
    m.LetsGo(false);
    EXPECT_EQ(drainDescribed(m), V{"5:EvLog(500):1,6"});
}

TEST(StCTrlUpsLink, NotificationsMoveTheUpsState)
{
    TempConfig cfg("UPSController=1\nDumpLogRate=5\n");
    ManualClock clock(7000);
    StCTrl ctrl(&clock, cfg.map());
    auto notify = [&](int code, std::vector<int> params = {}) {
        _NOTIFYMSGINFO nt{code, 0, {}};
        for (int p : params)
            nt.params[nt.count++] = p;
        ctrl.SetNotify(&nt);
        return drainDescribed(ctrl);
    };
    EXPECT_EQ(notify(NtUpsNotDetected), (V{"0:EvTimerStart(100):1,7005,0,8", "5:EvLog(500):8,10", "5:EvMeterLog(501):9"}));  // not found
    EXPECT_EQ(ctrl.GetStateUPS(), 1);
    EXPECT_EQ(notify(NtUpsNotDetected), V{"0:EvTimerStart(100):1,7005,0,8"});  // a second failure only restarts detection
    EXPECT_EQ(notify(NtUpsEstablished), (V{"0:EvTimerStart(100):2,7005,0,8", "5:EvLog(500):8,11", "5:EvMeterLog(501):10", "0:EvTimerStop(102):11", "0:EvTimerStart(100):11,7300,300,8"}));
    EXPECT_EQ(ctrl.GetStateUPS(), 2);
    EXPECT_EQ(notify(NtUpsCommError), (V{"0:EvTimerStart(100):1,7005,0,8", "5:EvMeterLog(501):9", "5:EvLog(500):8,10"}));
    EXPECT_EQ(ctrl.GetStateUPS(), 3);
    EXPECT_EQ(notify(NtUpsCommError), V{});  // already in error: ignored
    EXPECT_EQ(notify(NtTimerExpired, {1, 0, 8}), V{"2:EvUpsRedetect(203):"});  // the detect timer now asks for 203
    EXPECT_EQ(notify(NtUpsCommRestored), (V{"0:EvTimerStart(100):2,7005,0,8", "5:EvMeterLog(501):10", "5:EvLog(500):8,11"}));
    EXPECT_EQ(ctrl.GetStateUPS(), 2);
}
} // namespace
