// Timer list and tick: start/stop rules, clock jumps, periodic re-arming and
// expiry reports as they reach the controller's queue; the tick loop sleeping
// until the earliest expiry (in virtual time, and once on the real timerfd).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "control/StCTrl.h"
#include "control/TimerIFTh.h"
#include "core/Clock.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/ManualTimerWait.h"
#include "tests/fakes/TempConfig.h"

namespace {
using V = std::vector<std::string>;
const time_t T0 = 1794000000;
using Fired = std::pair<time_t, V>;

class TimerIFThTest : public ::testing::Test {
protected:
    TimerIFThTest() : config("UPSController=1\n"), clock(T0), ctrl(&clock, config.map()), timers(1, &ctrl, &clock) {}

    int start(int id, time_t expiry, int interval, int owner)
    {
        TimerMng tm{id, static_cast<int32_t>(expiry), interval, owner};
        return timers.Timer_Start(&tm);
    }
    V tickAt(time_t t)
    {
        clock.set(t);
        timers.TimeOut_func();
        return drainDescribed(ctrl);
    }
    // Ticks each second from `from` to `to`: the second of the first events (0: none) and those events.
    Fired firstFiring(time_t from, time_t to)
    {
        for (time_t t = from; t <= to; ++t)
            if (V events = tickAt(t); !events.empty())
                return {t, events};
        return {0, {}};
    }

    TempConfig config;
    ManualClock clock;
    StCTrl ctrl;
    TimerIFTh timers;
};

TEST_F(TimerIFThTest, StartStopCancelResetKeepOneTimerPerId)
{
    // A second start of a running id is ignored: the first expiry and owner stay.
    EXPECT_EQ(30, start(30, T0 + 60, 0, 9));
    EXPECT_EQ(30, start(30, T0 + 10, 0, 10));
    EXPECT_EQ(1, timers.runningTimers());
    EXPECT_EQ(firstFiring(T0, T0 + 70), Fired(T0 + 60, {"9:EvNetTimeout(603):30"}));
    EXPECT_FALSE(timers.isActive(30));

    // Stopping what does not run reports 1 and leaves the others alone; ids
    // outside the table are ignored by every operation.
    start(40, T0 + 500, 0, 8);
    EXPECT_EQ(1, timers.Timer_Stop(30) * timers.Timer_Stop(41) * timers.Timer_Stop(332));
    EXPECT_EQ(332, start(332, T0, 0, 8));
    EXPECT_EQ(0, timers.Timer_Cancel(-1) + timers.Timer_Reset(100000, 5) + timers.Timer_Stop(40));
    EXPECT_EQ(0, timers.runningTimers());

    // Stop-all covers ids 0..TmNet2Last; 331 is outside its walk.
    for (int id : {0, 5, 29, int(TmNet2Last), TmNet2Last + 1})
        start(id, T0 + 1000, 0, 8);
    timers.Timer_Cancel_All();
    EXPECT_TRUE(timers.runningTimers() == 1 && timers.isActive(TmNet2Last + 1));
}

TEST_F(TimerIFThTest, ClockJumpsShiftTimersButOneSecondStepsDoNot)
{
    tickAt(T0);
    // One hour forward: a 60-second timer keeps its 60 seconds.
    start(30, T0 + 60, 0, 9);
    EXPECT_TRUE(tickAt(T0 + 3600).empty());
    EXPECT_EQ(firstFiring(T0 + 3601, T0 + 3700), Fired(T0 + 3660, {"9:EvNetTimeout(603):30"}));

    // A one-second step is an ordinary tick: a timer due then fires.
    time_t t = T0 + 3700;
    tickAt(t), start(31, t + 1, 0, 9);
    EXPECT_EQ(tickAt(t + 1), V{"9:EvNetTimeout(603):31"});

    // A two-second step counts as missed ticks: timers are shifted by it.
    start(32, ++t + 2, 0, 9);
    EXPECT_TRUE(tickAt(t + 2).empty() && tickAt(t + 3).empty());
    EXPECT_EQ(tickAt(t + 4), V{"9:EvNetTimeout(603):32"});

    // Backward by 1000 s: the timer still runs its full 60 seconds.
    start(33, (t += 4) + 60, 0, 9);
    EXPECT_TRUE(tickAt(t - 1000).empty());
    EXPECT_EQ(firstFiring(t - 999, t - 900), Fired(t - 940, {"9:EvNetTimeout(603):33"}));
}

TEST_F(TimerIFThTest, PeriodicTimersRearmAndCatchUpOncePerTick)
{
    tickAt(T0);
    // Fell four intervals behind: one report per tick until caught up.
    start(35, T0 - 100, 30, 10), start(36, T0, 0, 10);
    EXPECT_EQ(tickAt(T0), (V{"10:EvNetTimeout(603):35", "10:EvNetTimeout(603):36"}));
    EXPECT_FALSE(timers.isActive(36));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(tickAt(T0), V{"10:EvNetTimeout(603):35"}) << "tick " << i;
    EXPECT_TRUE(tickAt(T0).empty() && tickAt(T0 + 1).empty());
    // Next due at T0 + 20, then every 30 s.
    EXPECT_EQ(firstFiring(T0 + 2, T0 + 30), Fired(T0 + 20, {"10:EvNetTimeout(603):35"}));
    EXPECT_EQ(firstFiring(T0 + 21, T0 + 60).first, T0 + 50);
}

TEST_F(TimerIFThTest, ExpiriesReachTheControllerInStartingOrder)
{
    tickAt(T0);
    for (int id : {30, 0, 2, 29, 331})
        start(id, T0 + 1, 0, id == 30 ? 9 : 8);
    // The poll timer (2) asks the UPS link for a poll; ids without a meaning
    // report nothing but are gone like any one-shot.
    EXPECT_EQ(tickAt(T0 + 1), (V{"9:EvNetTimeout(603):30", "2:EvUpsPoll(201):"}));
    EXPECT_EQ(0, timers.runningTimers());
}

// The tick loop on the manual clock: every wait runs the test's step, then
// sleeps (in virtual time) until the armed second.
class TimerLoopTest : public ::testing::Test {
protected:
    struct LoopTimer : TimerIFTh {
        using TimerIFTh::TimerIFTh;
        using TimerIFTh::thread_main;
    };

    TimerLoopTest() : config("UPSController=1\n"), clock(T0), ctrl(&clock, config.map()), wait(clock),
                      timers(1, &ctrl, &clock, &wait) {}

    void start(int id, time_t expiry, int interval = 0)
    {
        TimerMng tm{id, static_cast<int32_t>(expiry), interval, 9};
        timers.Timer_Start(&tm);
    }
    // Runs the loop until the step returns false (at most 20 waits). Returns
    // what reached the queue, each batch with the second it came at.
    std::vector<Fired> run(std::function<bool(int n)> step)
    {
        std::vector<Fired> out;
        auto collect = [&] {
            if (V events = drainDescribed(ctrl); !events.empty())
                out.push_back({clock.now(), events});
        };
        wait.onWait = [&](int n) {
            collect();
            if (!step(n) || n >= 20)
                timers.requestStop();
        };
        timers.thread_main();
        collect();
        return out;
    }

    TempConfig config;
    ManualClock clock;
    StCTrl ctrl;
    ManualTimerWait wait;
    LoopTimer timers;
};

const V kFired30{"9:EvNetTimeout(603):30"}, kFired31{"9:EvNetTimeout(603):31"}, kFired32{"9:EvNetTimeout(603):32"};
const V kInfo{"5:EvControllerInfo(504):"};

TEST_F(TimerLoopTest, SleepsToTheEarliestExpiryWhichEarlierStartsAndMovesBringForward)
{
    // A periodic timer two intervals behind fires once per tick (ticks back
    // to back); then each timer fires at its own second: long sleeps shift
    // nothing, and a start or move during a sleep re-arms it.
    start(32, T0 - 7200, 3600), start(30, T0 + 1000);
    auto fired = run([&](int n) {
        if (n == 4) // sleeping towards T0 + 1000
            start(31, T0 + 10);
        if (clock.now() == T0 + 10)
            timers.Timer_Reset(30, -500);
        return clock.now() < T0 + 3600;
    });
    EXPECT_EQ(fired, (std::vector<Fired>{{T0, kFired32}, {T0, kFired32}, {T0, kFired32}, {T0 + 10, kFired31},
                                         {T0 + 500, kFired30}, {T0 + 3600, kFired32}}));
}

TEST_F(TimerLoopTest, ClockSetWakesAtOnceAndTimersKeepTheirRemainingTime)
{
    start(30, T0 + 60), start(31, T0 + 20);
    time_t armedAfterSet = 0;
    auto fired = run([&](int) {
        if (clock.now() == T0 + 20)
            wait.setClock(T0 + 3620); // an hour forward, 40 s before 30 is due
        else if (clock.now() == T0 + 3620)
            armedAfterSet = wait.armed(); // the tick ran with no sleep
        else if (clock.now() == T0 + 3660)
            start(32, T0 + 3661), wait.setClock(T0 + 3661); // +1 s: an ordinary tick
        return clock.now() != T0 + 3661;
    });
    EXPECT_EQ(armedAfterSet, T0 + 3660);
    EXPECT_EQ(fired, (std::vector<Fired>{{T0 + 20, kFired31}, {T0 + 3660, kFired30}, {T0 + 3661, kFired32}}));
}

TEST_F(TimerLoopTest, StatusCheckRunsBeforeTwoOfThreeTicks)
{
    // The record changes before every wait (a day apart, no timer running).
    config.map()->setConf("UPSController", "2");
    auto fired = run([&](int n) {
        ctrl.ShutDownSetSCHStatus(0, n);
        return n < 12;
    });
    std::string seen(12, '0');
    for (const Fired& f : fired)
        seen[(f.first - T0) / 86400] = f.second == kInfo ? '1' : '?';
    EXPECT_EQ(seen, "001101101101");
}

TEST_F(TimerLoopTest, MemberRecordChangeWakesTheStatusCheckAtOnce)
{
    config.map()->setConf("UPSController", "2");
    ctrl.setContInfoWake([this] { timers.wakeContInfo(); });
    auto fired = run([&](int n) {
        if (n == 4 || n == 6) // the second write repeats the value: no wake
            ctrl.ShutDownSetPFStatus(1, 1);
        return n < 7;
    });
    // Waits 1-3 and 6 sleep a day; 4 is woken and the check reports at once.
    EXPECT_EQ(fired, (std::vector<Fired>{{T0 + 3 * 86400, kInfo}}));
    EXPECT_EQ(clock.now(), T0 + 5 * 86400);
}

// The real wait (timerfd and eventfd) on the system clock, which nothing here
// sets; every wait is bounded.
TEST(TimerFdWaitTest, WakesForAnEarlierStartFromAnotherThreadAndForAStop)
{
    struct Loop : TimerIFTh {
        using TimerIFTh::TimerIFTh;
        void thread_main() override { TimerIFTh::thread_main(), ended.store(true); }
        std::atomic<bool> ended{false};
    };
    auto within10s = [](std::function<bool()> done) {
        for (int i = 0; i < 200; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(50)))
            if (done())
                return true;
        return false;
    };
    TempConfig config("UPSController=1\n");
    StCTrl ctrl(nullptr, config.map());
    Loop timers(1, &ctrl);
    const int32_t now = static_cast<int32_t>(Clock::system().now());
    TimerMng late{30, now + 3600, 0, 9}, soon{31, now + 1, 0, 9};
    timers.Timer_Start(&late);
    ASSERT_TRUE(timers.st());
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // armed for the hour by now, as a rule
    timers.Timer_Start(&soon);
    V fired;
    EXPECT_TRUE(within10s([&] { return !(fired = drainDescribed(ctrl)).empty(); }));
    EXPECT_EQ(fired, kFired31);
    timers.requestStop();
    if (!within10s([&] { return timers.ended.load(); }))
        abort(); // a loop that does not stop cannot be joined
    EXPECT_FALSE(timers.sp());
    EXPECT_TRUE(timers.isActive(30));
}

} // namespace
