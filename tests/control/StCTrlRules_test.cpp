// Notification rules of the controller core, driven with notifications on a
// manual clock; the tests compare the exact events it queues.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"

namespace {
using V = std::vector<std::string>;

class Rules : public ::testing::Test {
protected:
    Rules() : ctrl(&clock, &cfg) {}

    void controller() { cfg.setConf("UPSController", "1"); timing(1, 30, 3); }
    // A member following `count` active controllers (all on battery, outputs on).
    void member(int count, bool onBattery = false)
    {
        cfg.setConf("UPSController", "2");
        ctrl.SetMemberContCount(count);
        for (int k = 0; k < count; ++k) {
            ctrl.SetMemberContActive(k, true);
            timing(k + 1, 30, 3);
            if (onBattery) {
                ctrl.SetOutPutStatus(true, true, k);
                ctrl.ShutDownSetPFStatus(k, 1);
            }
        }
    }
    void timing(int index, int wink, int minutes)
    {
        const std::string i = std::to_string(index);
        cfg.setConfNum("WinkTime" + i, wink);
        cfg.setConfNum("ShutdownTime" + i, minutes);
        cfg.setConfNum("AppTermTimeOut" + i, 20);
        cfg.setConfNum("ShutdownDelay" + i, 120);
        cfg.setConf("AppTermCommand" + i, "/bin/true");
        ctrl.setShutdownTiming(index - 1);
    }
    void notify(int code, const std::vector<int>& params)
    {
        _NOTIFYMSGINFO nt{};
        nt.code = code;
        for (int p : params)
            nt.params[nt.count++] = p;
        ctrl.SetNotify(&nt);
    }
    // A power report for the owner's slot: condition, utility, elapsed
    // seconds, then the changed alarm codes.
    void report(int owner, int cond, int utility, int elapsed, std::vector<int> codes = {})
    {
        codes.insert(codes.begin(), {cond, utility, elapsed, 0});
        codes.push_back(owner);
        notify(owner == ThCtrlSlot0 && cfg.getConf("UPSController") != "2" ? NtUpsPollResult : NtMemberPowerReport,
               codes);
    }
    void expire(int id, int owner) { notify(NtTimerExpired, {id, 0, owner}); }
    V events() { return drainDescribed(ctrl); }
    // Events without the UPS link's own polling restart and status send.
    V ruleEvents()
    {
        V out;
        for (auto& e : events())
            if (e.rfind("0:EvTimerStart(100):2,", 0) != 0 && e != "8:EvSendUpsStatus(602):")
                out.push_back(e);
        return out;
    }
    std::string at(int seconds) { return std::to_string(clock.now() + seconds); }
    // The application-end timer of slot 0 (owner 8) started at the host shutdown.
    std::string appEndTimer() { return "0:EvTimerStart(100):12," + at(20) + ",0,8"; }

    ManualClock clock;
    FileMap cfg;
    StCTrl ctrl;
};

TEST_F(Rules, RestorationInsideTheWinkStopsIt)
{
    controller();
    report(8, 4, 3, 0, {14, 357, 316, 14});
    EXPECT_EQ(ruleEvents(), (V{"5:EvLog(500):8,1002,1000,316", "0:EvTimerStart(100):3," + at(30) + ",0,8"}));
    EXPECT_EQ(ctrl.power(0).phase, StCTrl::PhaseWink);
    EXPECT_EQ(ctrl.power(0).failureStart, clock.now());
    report(8, 4, 3, 0);  // further reports while winking start nothing
    EXPECT_EQ(ruleEvents(), V{});

    // Restored during the wink: logged with the wink translations, the wink stops.
    clock.advance(10);
    report(8, 4, 2, 0, {15, 657, 17});
    EXPECT_EQ(ruleEvents(), (V{"5:EvLog(500):8,1003,1001,17", "0:EvTimerStop(102):3,8"}));
    EXPECT_EQ(ctrl.power(0).phase, StCTrl::PhaseNormal);
}

TEST_F(Rules, MemberFailureWithElapsedTimeInsideTheCountdown)
{
    member(2);
    // Slot 1: 100 s elapsed = 70 s into the countdown: one minute gone, the
    // first report still given, the next tick where that minute ends.
    report(9, 4, 3, 100, {14, 357, 316});
    EXPECT_EQ(events(), (V{"5:EvLog(500):9,316", "5:EvLog(500):9,357", "5:EvLog(500):9,14", "5:EvLog(500):9,0,2",
                           "5:EvPowerFailReport(300):2,9", "0:EvTimerStart(100):8," + at(50) + ",60,9"}));
    EXPECT_EQ(ctrl.power(1).phase, StCTrl::PhaseCountdown);
    EXPECT_EQ(ctrl.power(1).remaining, 2);
    EXPECT_EQ(ctrl.power(1).failureStart, clock.now() - 100);
}

TEST_F(Rules, CountdownOfThreeMinutesEndsAfterThreeTicksAndShutsDown)
{
    controller();
    report(8, 4, 3, 0);
    EXPECT_EQ(ruleEvents(), V{"0:EvTimerStart(100):3," + at(30) + ",0,8"});
    clock.advance(30);
    expire(TmWink, 8);
    EXPECT_EQ(events(), (V{"5:EvLog(500):8,357", "5:EvLog(500):8,14", "5:EvMeterLog(501):2", "5:EvLog(500):8,0,3",
                           "5:EvPowerFailReport(300):3,8", "0:EvTimerStart(100):7," + at(60) + ",60,8"}));
    clock.advance(60);
    expire(TmCountdown, 8);
    EXPECT_EQ(events(), (V{"5:EvLog(500):8,0,2", "5:EvPowerFailReport(300):2,8"}));
    clock.advance(60);
    expire(TmCountdown, 8);
    EXPECT_EQ(events(), (V{"5:EvLog(500):8,1", "5:EvPowerFailReport(300):1,8"}));
    clock.advance(60);
    expire(TmCountdown, 8);
    EXPECT_EQ(events(), (V{"0:EvTimerStop(102):7,8", "5:EvLog(500):8,3", "5:EvMeterLog(501):5",
                           "2:EvUpsPowerOff(202):", "4:EvAppTerm(302):0", "0:EvTimerStop(102):12,8", appEndTimer()}));
    EXPECT_EQ(ctrl.power(0).phase, StCTrl::PhaseEnded);
    EXPECT_EQ(ctrl.power(0).reason, 1);

    // A late tick changes nothing; power back now only marks the end pending.
    expire(TmCountdown, 8);
    report(8, 4, 2, 0);
    EXPECT_EQ(ruleEvents(), V{});
    EXPECT_EQ(ctrl.power(0).phase, StCTrl::PhaseAppEnd);
    // The termination command was launched; its time is up: shut down.
    notify(NtAppCommandDone, {});
    ShutCNT info;
    ctrl.GetContInfo(&info);
    EXPECT_EQ(info.appEndStatus[0], 1);
    clock.advance(20);
    expire(TmAppEnd, 8);
    EXPECT_EQ(events(),
              (V{"0:EvTimerStop(102):17", "5:EvLog(500):8,208", "0:EvTimerStop(102):11", "4:EvHostShutdown(303):"}));
}

TEST_F(Rules, SecondConditionEndsTheWinkAndShutsDown)
{
    controller();
    report(8, 4, 3, 0);
    events();
    report(8, 5, 3, 0, {16});
    EXPECT_EQ(ruleEvents(),
              (V{"5:EvLog(500):8,16", "0:EvTimerStop(102):3,8", "5:EvLog(500):8,357", "5:EvLog(500):8,14",
                 "5:EvMeterLog(501):2", "0:EvTimerStop(102):7,8", "5:EvLog(500):8,3", "5:EvMeterLog(501):5",
                 "2:EvUpsPowerOff(202):", "4:EvAppTerm(302):0", "0:EvTimerStop(102):12,8", appEndTimer()}));
    EXPECT_EQ(ctrl.power(0).phase, StCTrl::PhaseEnded);
    report(8, 5, 3, 0);
    EXPECT_EQ(ruleEvents(), V{});
}

TEST_F(Rules, AlarmListOfThreeHundredCodesIsSplit)
{
    controller();
    std::vector<int32_t> codes;
    for (int i = 0; i < 300; ++i)
        codes.push_back(2000 + i);
    codes.insert(codes.begin() + 10, 2003);  // repeated: logged once
    ctrl.logAlarmCodes(codes.data(), static_cast<int>(codes.size()), 4, 2, 0, 8);
    auto list = [](int from, int to) {
        std::string s = "5:EvLog(500):8";
        for (int c = from; c <= to; ++c)
            s += "," + std::to_string(c);
        return s;
    };
    EXPECT_EQ(events(), (V{list(2000, 2253), list(2254, 2299)}));
}

TEST_F(Rules, ScheduledShutdownCountsDownByTimerRelays)
{
    member(1);
    notify(NtSchedule, {7, 0, 8});  // more than five minutes: nothing yet
    EXPECT_EQ(events(), V{});
    notify(NtSchedule, {5, 0, 8});
    EXPECT_EQ(events(),
              (V{"5:EvLog(500):8,204,5", "5:EvScheduleReport(304):5,8", "0:EvTimerStart(100):21," + at(60) + ",0,8"}));
    EXPECT_EQ(ctrl.ShutDownGetSCHStatus(0), 1);

    // The timer's expiry goes through the power thread and back one lower.
    clock.advance(60);
    expire(TmScheduleA, 8);
    EXPECT_EQ(events(), V{"4:EvScheduleRelay(306):5,21,8"});
    notify(NtSchedule, {4, 21, 8});
    EXPECT_EQ(events(), (V{"5:EvLog(500):8,204,4", "5:EvScheduleReport(304):4,8", "0:EvTimerStop(102):21",
                           "0:EvTimerStart(100):25," + at(60) + ",0,8"}));
    notify(NtSchedule, {3, 0, 8});
    EXPECT_EQ(events(), (V{"5:EvLog(500):8,204,3", "5:EvScheduleReport(304):3,8", "0:EvTimerStop(102):25",
                           "0:EvTimerStart(100):21," + at(60) + ",0,8"}));
    notify(NtSchedule, {3, 25, 8});  // relay of the replaced timer: stale
    EXPECT_EQ(events(), V{});

    // -1 calls it off.
    notify(NtSchedule, {-1, 0, 8});
    EXPECT_EQ(events(), (V{"5:EvLog(500):8,206", "5:EvScheduleCancelReport(305):8", "0:EvTimerStop(102):21"}));
    EXPECT_EQ(ctrl.ShutDownGetSCHStatus(0), 0);

    // Zero: the countdown ends with reason 2 and the schedule is over.
    notify(NtSchedule, {1, 0, 8});
    events();
    notify(NtSchedule, {0, 0, 8});
    EXPECT_EQ(events(), (V{"0:EvTimerStop(102):7,8", "5:EvMemberShutdownLog(505):0,2", "5:EvLog(500):8,3",
                           "4:EvAppTerm(302):0", "0:EvTimerStop(102):12,8", appEndTimer(), "0:EvTimerStop(102):21"}));
    EXPECT_EQ(ctrl.power(0).reason, 2);
    notify(NtSchedule, {5, 0, 8});
    EXPECT_EQ(events(), V{});
}

// A member fed by several controllers shuts down only when no other
// followed controller still feeds it, judged from what each last reported.
class Redundant : public Rules {
protected:
    // Slots 0 and 1 reported utility power and output on; slot 2 is
    // followed but its controller never reported.
    void SetUp() override
    {
        member(3);
        for (int k = 0; k < 2; ++k) {
            report(8 + k, 4, 2, 0);
            ctrl.SetOutPutStatus(true, true, k);
        }
        events();
    }
    // What the member side does with a power report of slot k saying
    // utility lost: the rules first, then the slot's power status.
    void fails(int k, int elapsed)
    {
        report(8 + k, 4, 3, elapsed);
        ctrl.ShutDownSetPFStatus(k, 1);
    }
};

TEST_F(Redundant, FirstFailureWaitsAndTheSecondTakesTheHostDownWithItsOwnTiming)
{
    timing(2, 10, 1);
    // Slot 0 fails beyond its wink and countdown: slot 1 still feeds the
    // host, so slot 0 waits for its application end plus delay.
    fails(0, 210);
    EXPECT_EQ(events(), (V{"5:EvLog(500):8,357", "5:EvLog(500):8,14", "0:EvTimerStop(102):7,8",
                           "0:EvTimerStart(100):12," + at(140) + ",0,8", "5:EvLog(500):8,217"}));
    EXPECT_EQ(ctrl.GetAppStatus(0), 1);
    // Slot 1 fails: its own wink (10 s) and countdown (1 minute) run, then
    // it is the last supply and takes the host down.
    fails(1, 0);
    EXPECT_EQ(events(), V{"0:EvTimerStart(100):4," + at(10) + ",0,9"});
    clock.advance(10);
    expire(TmWink + 1, 9);
    events();
    clock.advance(60);
    expire(TmCountdown + 1, 9);
    EXPECT_EQ(events(), (V{"0:EvTimerStop(102):8,9", "5:EvMemberShutdownLog(505):1,1", "5:EvLog(500):9,3",
                           "4:EvAppTerm(302):1", "0:EvTimerStop(102):13,9",
                           "0:EvTimerStart(100):13," + at(20) + ",0,9"}));
    EXPECT_EQ(ctrl.GetStartShutdownStatus(), 1);
}

TEST_F(Redundant, TheOtherOrderDecidesAlike)
{
    ctrl.ShutDownSetPFStatus(1, 1);
    EXPECT_FALSE(ctrl.ISStartShutdown(1, 1));
    ctrl.ShutDownSetPFStatus(0, 1);
    EXPECT_TRUE(ctrl.ISStartShutdown(0, 1));
    EXPECT_EQ(events(), V{"5:EvMemberShutdownLog(505):0,1"});
}

TEST_F(Redundant, AControllerWithItsOutputOffFeedsNothing)
{
    ctrl.SetOutPutStatus(false, true, 1);
    ctrl.ShutDownSetPFStatus(0, 1);
    EXPECT_TRUE(ctrl.ISStartShutdown(0, 1));
}

TEST_F(Rules, FailureBeyondWinkAndCountdownEndsAtOnceAndLaterReportsAreSuppressed)
{
    member(2);
    ctrl.SetOutPutStatus(true, true, 0);
    ctrl.SetOutPutStatus(true, true, 1);
    ctrl.ShutDownSetPFStatus(0, 1);
    report(9, 4, 3, 30); // slot 1 counts down
    events();
    report(8, 4, 3, 210, {14, 357}); // slot 0: 30 s wink + 3 minutes gone, it takes the host down
    EXPECT_EQ(events(),
              (V{"5:EvLog(500):8,357", "5:EvLog(500):8,14", "0:EvTimerStop(102):7,8", "5:EvMemberShutdownLog(505):0,1",
                 "5:EvLog(500):8,3", "4:EvAppTerm(302):0", "0:EvTimerStop(102):12,8", appEndTimer()}));
    EXPECT_EQ(ctrl.power(0).phase, StCTrl::PhaseEnded);
    EXPECT_EQ(ctrl.power(0).reason, 1);
    EXPECT_EQ(ctrl.GetAppStatus(0), 2);
    ASSERT_EQ(ctrl.GetStartShutdownStatus(), 1);

    clock.advance(60);
    expire(TmCountdown + 1, 9);
    EXPECT_EQ(events(), V{});
    notify(NtSchedule, {4, 0, 9});
    EXPECT_EQ(events(), V{"0:EvTimerStart(100):22," + at(60) + ",0,9"});
    report(9, 4, 2, 0);
    EXPECT_EQ(events(), V{"0:EvTimerStop(102):8,9"});
    EXPECT_EQ(ctrl.power(1).phase, StCTrl::PhaseNormal);
}

TEST_F(Rules, MemberSideEndAndDaemonStop)
{
    member(2);
    ctrl.SetOutPutStatus(true, true, 0);
    ctrl.ShutDownSetPFStatus(0, 1);
    notify(NtMemberCountdownEnd3, {0, 0, 8});
    EXPECT_EQ(events(), (V{"0:EvTimerStop(102):7,8", "5:EvMemberShutdownLog(505):0,3", "5:EvLog(500):8,3",
                           "4:EvAppTerm(302):0", "0:EvTimerStop(102):12,8", appEndTimer()}));
    EXPECT_EQ(ctrl.power(0).reason, 3);
    EXPECT_EQ(ctrl.power(0).memberEnded, 1);
    notify(NtDaemonStopping, {});
    EXPECT_EQ(events(), (V{"5:EvLog(500):1,7", "8:EvShutdownStatus(802):1,0", "9:EvShutdownStatus(802):1,1"}));

    // On a controller the stop also ends the meter timer, and tells the
    // members only while the UPS link is up.
    StCTrl c(&clock, &cfg);
    cfg.setConf("UPSController", "1");
    for (int state : {UpsNoContact, UpsCommunicating}) {
        c.Set_State_UPS(state);
        _NOTIFYMSGINFO stop{NtDaemonStopping, 0, {}};
        c.SetNotify(&stop);
        V expected{"0:EvTimerStop(102):11", "5:EvMeterLog(501):1", "5:EvLog(500):1,7"};
        if (state == UpsCommunicating)
            expected.push_back("8:EvShutdownStatus(802):0,0");
        EXPECT_EQ(drainDescribed(c), expected) << upsStateName(state);
    }
}

TEST_F(Rules, HugeTimingValuesAreBoundedWithALogLine)
{
    controller();
    cfg.setConf("WinkTime1", "99999999999");
    cfg.setConf("ShutdownTime1", "99999999999");
    testing::internal::CaptureStderr();
    ctrl.setShutdownTiming(0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kestrava: WinkTime1=99999999999 is out of range (0..86400); 86400 is used\n"
              "kestrava: ShutdownTime1=99999999999 is out of range (0..1440); 1440 is used\n");
    report(8, 4, 3, 0);
    EXPECT_EQ(ruleEvents(), V{"0:EvTimerStart(100):3," + at(86400) + ",0,8"}) << "a wink, not an end";
}

} // namespace
