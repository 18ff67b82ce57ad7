// Controller core: the global event queue, the status record and the builders.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempConfig.h"

namespace {

EVENTMSGINFO event(int to, int code, int p0 = 0) { return eventRecord(to, code, {p0}); }

} // namespace

TEST(StCTrlQueue, EventsAreTakenInOneGlobalOrderAcrossThreads)
{
    TempConfig cfg("UPSController=1\n");
    ManualClock clock;
    StCTrl ctrl(&clock, cfg.map());

    const int total = 10;
    for (int i = 0; i < total; ++i) {
        EVENTMSGINFO ev = event(i % 2 ? 4 : 3, 200, i);
        ctrl.SetEvent(&ev);
    }
    // Event i can only be taken once every earlier event has left the queue,
    // so right after taking it at most total - 1 - i events remain (others
    // may have been taken meanwhile, never fewer removed). Each thread also
    // sees its own events in posting order.
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

TEST(StCTrlQueue, HeadForAnIdleThreadBlocksEveryoneBehindIt)
{
    TempConfig cfg("UPSController=1\n");
    ManualClock clock;
    StCTrl ctrl(&clock, cfg.map());

    EVENTMSGINFO head = event(7, 1, 70);
    EVENTMSGINFO behind = event(4, 2, 40);
    ctrl.SetEvent(&head);
    ctrl.SetEvent(&behind);

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
    ctrl.GetEvent(&ev, 7); // the idle thread finally takes its event
    EXPECT_EQ(ev.params[0], 70);
    four.join();
    EXPECT_TRUE(got.load());
    EXPECT_EQ(ctrl.queuedEvents(), 0u);
}

TEST(StCTrlQueue, WaiterOnEmptyQueueWakesForItsEvent)
{
    TempConfig cfg("UPSController=1\n");
    ManualClock clock;
    StCTrl ctrl(&clock, cfg.map());
    std::thread waiter([&] {
        EVENTMSGINFO ev;
        ctrl.GetEvent(&ev, 5);
        EXPECT_EQ(ev.code, 501);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EVENTMSGINFO ev = event(5, 501);
    ctrl.SetEvent(&ev);
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
    {
        TempConfig cfg("UPSController=1\n");
        StCTrl ctrl(&clock, cfg.map());
        ctrl.ShutDownSetPFStatus(0, 1);
        ctrl.CheckContInfo();
        EXPECT_EQ(ctrl.queuedEvents(), 0u);
    }
    {
        TempConfig cfg("UPSController=2\n");
        StCTrl ctrl(&clock, cfg.map());
        ctrl.CheckContInfo();
        EXPECT_EQ(ctrl.queuedEvents(), 0u);
        ctrl.ShutDownSetCommStatus(1, 2);
        ctrl.CheckContInfo();
        ctrl.CheckContInfo(); // the snapshot now matches: no second report
        auto events = drainEvents(ctrl);
        ASSERT_EQ(events.size(), 1u);
        EXPECT_EQ(events[0].to, 5);
        EXPECT_EQ(events[0].code, 504);
    }
}

TEST(StCTrlBuilders, TimerAndLogBuildersFillTheDocumentedRecords)
{
    TempConfig cfg("UPSController=1\nWinkTime1=60\nShutdownTime1=5\nAppTermTimeOut1=120\nShutdownDelay1=180\n"
                   "AppTermCommand1=\"/bin/true --x\"\nDumpLogRate=10\n");
    ManualClock clock(1000000);
    StCTrl ctrl(&clock, cfg.map());
    ctrl.refreshNow();
    ctrl.setShutdownTiming(0);
    EXPECT_EQ(ctrl.getWinkTime(0), 60);
    EXPECT_EQ(ctrl.getCountdownTime(0), 5);
    EXPECT_EQ(ctrl.getAppEndTime(0), 120);
    EXPECT_EQ(ctrl.getShutdownDelay(0), 180);
    EXPECT_EQ(ctrl.getRunCommand(0), "/bin/true --x");

    EVENTMSGINFO ev;
    ctrl.setWinkTimerStartEvent(&ev, 10, 8);
    EXPECT_EQ(ev.to, 0);
    EXPECT_EQ(ev.code, 100);
    EXPECT_EQ(ev.count, 4);
    EXPECT_EQ(ev.params[0], 3);
    EXPECT_EQ(ev.params[1], 1000000 + 60 - 10);
    EXPECT_EQ(ev.params[2], 0);
    EXPECT_EQ(ev.params[3], 8);

    ctrl.setShutdownTimerStartEvent(&ev, 15, 8);
    EXPECT_EQ(ev.params[0], 7);
    EXPECT_EQ(ev.params[1], 1000000 - 15 + 60);
    EXPECT_EQ(ev.params[2], 60);

    ctrl.setDummyAppTermTimerStart(&ev, 8);
    EXPECT_EQ(ev.params[0], 12);
    EXPECT_EQ(ev.params[1], 1000000 + 300);

    // The log-deletion "stop" builder keeps the id and times the record held.
    ctrl.setDummyAppTermTimerStart(&ev, 8);
    ctrl.setLogDeleteTimerStopEvent(&ev);
    EXPECT_EQ(ev.code, 100);
    EXPECT_EQ(ev.count, 4);
    EXPECT_EQ(ev.params[0], 12);
    EXPECT_EQ(ev.params[1], 1000000 + 300);
    EXPECT_EQ(ev.params[3], 8);

    ctrl.setMeterTimerStartEvent(&ev);
    EXPECT_EQ(ev.code, 100);
    EXPECT_EQ(ev.params[0], 11);
    EXPECT_EQ(ev.params[1], 1000000 + 600);
    EXPECT_EQ(ev.params[2], 600);

    ctrl.power(0).remaining = 4;
    ASSERT_TRUE(ctrl.setPowerLogEvent(&ev, 0, 8));
    EXPECT_EQ(ev.to, 5);
    EXPECT_EQ(ev.code, 500);
    EXPECT_EQ(ev.count, 3);
    EXPECT_EQ(ev.params[0], 8);
    EXPECT_EQ(ev.params[1], 0);
    EXPECT_EQ(ev.params[2], 4);
    ASSERT_TRUE(ctrl.setPowerLogEvent(&ev, 11, 8));
    EXPECT_EQ(ev.count, 2);

    int32_t list[] = {14, 357, 15};
    EXPECT_EQ(StCTrl::searchNo(list, 3, 357), 0);
    EXPECT_EQ(StCTrl::searchNo(list, 3, 16), 1);
    EXPECT_EQ(StCTrl::searchNo(list, 0, 14), 1);
}

TEST(StCTrlStart, LetsGoOnAControllerStartsLoggingDeletionAndDetection)
{
    TempConfig cfg("UPSController=1\n");
    ManualClock clock(5000);
    StCTrl ctrl(&clock, cfg.map());
    ctrl.LetsGo(true);
    auto ev = drainEvents(ctrl);
    ASSERT_EQ(ev.size(), 5u);
    EXPECT_EQ(ev[0].code, 500);
    EXPECT_EQ(ev[0].params[0], 1);
    EXPECT_EQ(ev[0].params[1], 6);
    EXPECT_EQ(ev[1].params[1], 265);
    EXPECT_EQ(ev[2].code, 501);
    EXPECT_EQ(ev[2].count, 1);
    EXPECT_EQ(ev[2].params[0], 0);
    EXPECT_EQ(ev[3].code, 100);
    EXPECT_EQ(ev[3].params[0], 16);
    EXPECT_EQ(ev[3].params[1], 5000 + 1800);
    EXPECT_EQ(ev[3].params[2], 1800);
    EXPECT_EQ(ev[4].code, 100);
    EXPECT_EQ(ev[4].params[0], 1);
    EXPECT_EQ(ev[4].params[1], 5005);

    TempConfig member("UPSController=2\n");
    StCTrl m(&clock, member.map());
    m.LetsGo(false);
    auto mev = drainEvents(m);
    ASSERT_EQ(mev.size(), 1u);
    EXPECT_EQ(mev[0].params[1], 6);
}

TEST(StCTrlUpsLink, NotificationsMoveTheUpsState)
{
    TempConfig cfg("UPSController=1\nDumpLogRate=5\n");
    ManualClock clock(7000);
    StCTrl ctrl(&clock, cfg.map());
    _NOTIFYMSGINFO nt{};

    nt.code = 2001;
    ctrl.SetNotify(&nt);
    EXPECT_EQ(ctrl.GetStateUPS(), 1);
    auto ev = drainEvents(ctrl);
    ASSERT_EQ(ev.size(), 3u); // detect timer, log 10, meter control 9
    EXPECT_EQ(ev[0].params[0], 1);
    EXPECT_EQ(ev[1].params[1], 10);
    EXPECT_EQ(ev[2].params[0], 9);

    nt.code = 2001; // a second failure only restarts detection
    ctrl.SetNotify(&nt);
    EXPECT_EQ(drainEvents(ctrl).size(), 1u);

    nt.code = 2000;
    ctrl.SetNotify(&nt);
    EXPECT_EQ(ctrl.GetStateUPS(), 2);
    ev = drainEvents(ctrl);
    ASSERT_EQ(ev.size(), 5u); // polling timer, log 11, meter control 10, meter timer stop + start
    EXPECT_EQ(ev[0].params[0], 2);
    EXPECT_EQ(ev[1].params[1], 11);
    EXPECT_EQ(ev[2].params[0], 10);
    EXPECT_EQ(ev[3].code, 102);
    EXPECT_EQ(ev[4].code, 100);
    EXPECT_EQ(ev[4].params[0], 11);

    nt.code = 2003;
    ctrl.SetNotify(&nt);
    EXPECT_EQ(ctrl.GetStateUPS(), 3);
    EXPECT_EQ(drainEvents(ctrl).size(), 3u);
    ctrl.SetNotify(&nt); // already in error: ignored
    EXPECT_EQ(drainEvents(ctrl).size(), 0u);

    // The detect timer now asks for event 203 instead of 200.
    nt.code = 1000;
    nt.count = 3;
    nt.params[0] = 1;
    nt.params[1] = 0;
    nt.params[2] = 8;
    ctrl.SetNotify(&nt);
    ev = drainEvents(ctrl);
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].to, 2);
    EXPECT_EQ(ev[0].code, 203);

    nt = _NOTIFYMSGINFO{};
    nt.code = 2006;
    ctrl.SetNotify(&nt);
    EXPECT_EQ(ctrl.GetStateUPS(), 2);
    ev = drainEvents(ctrl);
    ASSERT_EQ(ev.size(), 3u);
    EXPECT_EQ(ev[0].params[0], 2);
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
