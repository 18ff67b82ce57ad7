// Timer commands as the timer thread applies them: start, stop, stop all
// (with the 9001 follow-up), move, and the diagnostic for unknown codes.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "control/TimerIFTh.h"
#include "control/TimerTh.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/RecordingShell.h"
#include "tests/fakes/TempConfig.h"

namespace {

const time_t T0 = 1794000000;

class TimerThTest : public ::testing::Test {
protected:
    TimerThTest() : config("UPSController=1\n"), clock(T0)
    {
        ctrl.reset(new StCTrl(&clock, config.map()));
        timers.reset(new TimerIFTh(1, ctrl.get(), &clock));
        th.reset(new TimerTh(0, timers.get(), ctrl.get()));
    }

    void command(int code, std::initializer_list<int> params)
    {
        EVENTMSGINFO ev = eventRecord(0, code, params);
        th->Event_CK(&ev);
    }
    std::vector<EVENTMSGINFO> tickAt(time_t t)
    {
        clock.set(t);
        timers->TimeOut_func();
        return drainEvents(*ctrl);
    }

    TempConfig config;
    ManualClock clock;
    std::unique_ptr<StCTrl> ctrl;
    std::unique_ptr<TimerIFTh> timers;
    std::unique_ptr<TimerTh> th;
};

} // namespace

TEST_F(TimerThTest, StartStopAndMoveCommands)
{
    tickAt(T0);
    // 100: id, expiry, interval, owner.
    command(100, {30, int(T0 + 5), 0, 9});
    command(100, {31, int(T0 + 5), 0, 10});
    EXPECT_TRUE(timers->isActive(30));
    EXPECT_EQ(2, timers->runningTimers());

    // 102 stops one id; 104 moves another by the given seconds.
    command(102, {31, 10});
    EXPECT_FALSE(timers->isActive(31));
    command(102, {31});
    command(104, {30, 10});
    for (time_t t = T0 + 1; t < T0 + 15; ++t)
        EXPECT_TRUE(tickAt(t).empty()) << "at +" << (t - T0);
    std::vector<EVENTMSGINFO> ev = tickAt(T0 + 15);
    ASSERT_EQ(1u, ev.size());
    EXPECT_EQ(9, ev[0].to);
    EXPECT_EQ(603, ev[0].code);
    EXPECT_EQ(30, ev[0].params[0]);
    EXPECT_EQ(0, timers->runningTimers());

    // Moving an id that does not run starts nothing.
    command(104, {30, 10});
    EXPECT_FALSE(timers->isActive(30));
}

TEST_F(TimerThTest, StopAllNotifiesActiveSlotsOnlyWhenAsked)
{
    ctrl->SetMemberContActive(1, true);
    ctrl->SetMemberContActive(3, true);
    command(100, {2, int(T0 + 5), 0, 8});
    command(100, {17, int(T0 + 5), 30, 8});

    command(103, {0});
    EXPECT_EQ(0, timers->runningTimers());
    EXPECT_EQ(0u, ctrl->queuedEvents());

    command(100, {2, int(T0 + 5), 0, 8});
    command(103, {1});
    EXPECT_EQ(0, timers->runningTimers());
    std::vector<EVENTMSGINFO> ev = tickAt(T0);
    ASSERT_EQ(2u, ev.size());
    EXPECT_EQ(9, ev[0].to);
    EXPECT_EQ(803, ev[0].code);
    EXPECT_EQ(0, ev[0].count);
    EXPECT_EQ(11, ev[1].to);
    EXPECT_EQ(803, ev[1].code);
}

TEST_F(TimerThTest, UnknownCommandBroadcastsTheDiagnosticOnly)
{
    RecordingShell shell;
    ScopedShell installed(&shell);
    command(100, {30, int(T0 + 5), 0, 9});
    command(101, {30});
    command(0, {});
    const std::string wall = "wall \xe9\x96\x93\xe9\x81\x95\xe3\x81\x84";
    EXPECT_EQ((std::vector<std::string>{wall, wall}), shell.runCommands());
    EXPECT_TRUE(shell.launchedCommands().empty());
    EXPECT_TRUE(timers->isActive(30));
    EXPECT_EQ(0u, ctrl->queuedEvents());
}
