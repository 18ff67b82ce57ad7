// Timer commands as the timer thread applies them: start, stop, stop all
// (with the 9001 follow-up) and move.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "control/StCTrl.h"
#include "control/TimerIFTh.h"
#include "control/TimerTh.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempConfig.h"

namespace {
using V = std::vector<std::string>;
const int T0 = 1794000000;

class TimerThTest : public ::testing::Test {
protected:
    TimerThTest() : config("UPSController=1\n"), clock(T0), ctrl(&clock, config.map()), timers(1, &ctrl, &clock),
                    th(0, &timers, &ctrl) {}

    void command(int code, const std::vector<int>& params)
    {
        EVENTMSGINFO ev = eventRecord(ThTimer, code, params);
        th.Event_CK(&ev);
    }
    V tickAt(time_t t)
    {
        clock.set(t);
        timers.TimeOut_func();
        return drainDescribed(ctrl);
    }

    TempConfig config;
    ManualClock clock;
    StCTrl ctrl;
    TimerIFTh timers;
    TimerTh th;
};

TEST_F(TimerThTest, StartStopMoveAndStopAllCommands)
{
    tickAt(T0);
    command(EvTimerStart, {30, T0 + 5, 0, 9});  // id, expiry, interval, owner
    command(EvTimerStart, {31, T0 + 5, 0, 10});
    command(EvTimerStop, {31, 10});  // stops one id
    EXPECT_FALSE(timers.isActive(31));
    command(EvTimerStop, {31});
    command(EvTimerShift, {30, 10});  // moves another by the seconds
    for (time_t t = T0 + 1; t < T0 + 15; ++t)
        EXPECT_TRUE(tickAt(t).empty()) << "at +" << (t - T0);
    EXPECT_EQ(tickAt(T0 + 15), V{"9:EvNetTimeout(603):30"});
    EXPECT_EQ(0, timers.runningTimers());
    command(EvTimerShift, {30, 10});  // moving an id that does not run starts nothing
    EXPECT_FALSE(timers.isActive(30));

    // Stop all notifies the active member slots only when asked to.
    ctrl.SetMemberContActive(1, true);
    ctrl.SetMemberContActive(3, true);
    command(EvTimerStart, {2, T0 + 5, 0, 8});
    command(EvTimerStart, {17, T0 + 5, 30, 8});
    command(EvTimerStopAll, {0});
    EXPECT_EQ(0, timers.runningTimers());
    EXPECT_EQ(0u, ctrl.queuedEvents());
    // With a range only the timers in it stop (a countdown and a
    // communication-error timer outlive the network's reply time-outs).
    for (int id : {7, 30, 265, 266})
        command(EvTimerStart, {id, T0 + 1000, 0, 8});
    command(EvTimerStopAll, {1, 30, 265});
    EXPECT_TRUE(timers.isActive(7) && timers.isActive(266));
    EXPECT_EQ(2, timers.runningTimers());
    EXPECT_EQ(tickAt(T0), (V{"9:EvTimersStopped(803):", "11:EvTimersStopped(803):"}));
}
} // namespace
