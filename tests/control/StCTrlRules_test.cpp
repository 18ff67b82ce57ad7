// Notification rules of the controller core, driven with notifications on a manual clock; the tests
// compare the exact events it queues.
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
    // A member following `count` active controllers.
    void member(int count)
    {
        cfg.setConf("UPSController", "2");
        ctrl.SetMemberContCount(count);
        for (int k = 0; k < count; ++k)
            ctrl.SetMemberContActive(k, true), timing(k + 1, 30, 3);
    }
    void timing(int index, int wink, int minutes)
    {
        const std::string i = std::to_string(index);
        cfg.setConfNum("WinkTime" + i, wink), cfg.setConfNum("ShutdownTime" + i, minutes);
        cfg.setConfNum("AppTermTimeOut" + i, 20), cfg.setConfNum("ShutdownDelay" + i, 120);
        cfg.setConf("AppTermCommand" + i, "/bin/true");
        ctrl.setShutdownTiming(index - 1);
    }
    // Each input returns the events it queued.
    V notify(int code, const std::vector<int>& params)
    {
        _NOTIFYMSGINFO nt{code, 0, {}};
        for (int p : params)
            nt.params[nt.count++] = p;
        return ctrl.SetNotify(&nt), events();
    }
    // A power report for the owner's slot: condition, utility, elapsed seconds, the changed alarm codes.
    V report(int owner, int cond, int utility, int elapsed, std::vector<int> codes = {})
    {
        codes.insert(codes.begin(), {cond, utility, elapsed, 0});
        codes.push_back(owner);
        const bool own = owner == ThCtrlSlot0 && cfg.getConf("UPSController") != "2";
        return notify(own ? NtUpsPollResult : NtMemberPowerReport, codes);
    }
    V expire(int id, int owner) { return notify(NtTimerExpired, {id, 0, owner}); }
    V events() { return drainDescribed(ctrl); }
    // Events without the UPS link's own polling restart and status send.
    static V rules(const V& all)
    {
        V out;
        for (auto& e : all)
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
    EXPECT_EQ(rules(report(8, 4, 3, 0, {14, 357, 316, 14})),
              (V{"5:EvLog(500):8,1002,1000,316", "0:EvTimerStart(100):3," + at(30) + ",0,8"}));
    EXPECT_EQ(rules(report(8, 4, 3, 0)), V{}) << "further reports while winking start nothing";
    EXPECT_EQ(ctrl.power(0).phase, StCTrl::PhaseWink);

    // Restored during the wink: logged with the wink translations, the wink stops.
    clock.advance(10);
    EXPECT_EQ(rules(report(8, 4, 2, 0, {15, 657, 17})), (V{"5:EvLog(500):8,1003,1001,17", "0:EvTimerStop(102):3,8"}));
    EXPECT_EQ(ctrl.power(0).phase, StCTrl::PhaseNormal);
}

TEST_F(Rules, CountdownOfThreeMinutesEndsAfterThreeTicksAndShutsDown)
{
    controller();
    EXPECT_EQ(rules(report(8, 4, 3, 0)), V{"0:EvTimerStart(100):3," + at(30) + ",0,8"});
    clock.advance(30);
    EXPECT_EQ(expire(TmWink, 8), (V{"5:EvLog(500):8,357", "5:EvLog(500):8,14", "5:EvMeterLog(501):2",
                                    "5:EvLog(500):8,0,3", "5:EvPowerFailReport(300):3,8",
                                    "0:EvTimerStart(100):7," + at(60) + ",60,8"}));
    clock.advance(60);
    EXPECT_EQ(expire(TmCountdown, 8), (V{"5:EvLog(500):8,0,2", "5:EvPowerFailReport(300):2,8"}));
    clock.advance(60);
    EXPECT_EQ(expire(TmCountdown, 8), (V{"5:EvLog(500):8,1", "5:EvPowerFailReport(300):1,8"}));
    clock.advance(60);
    EXPECT_EQ(expire(TmCountdown, 8), (V{"0:EvTimerStop(102):7,8", "5:EvLog(500):8,3", "5:EvMeterLog(501):5",
                                         "2:EvUpsPowerOff(202):", "4:EvAppTerm(302):0", "0:EvTimerStop(102):12,8",
                                         appEndTimer()}));
    // A late tick changes nothing; power back now only marks the end pending.
    EXPECT_EQ(rules(expire(TmCountdown, 8)), V{});
    EXPECT_EQ(rules(report(8, 4, 2, 0)), V{});
    EXPECT_EQ(std::vector<int>({ctrl.power(0).reason, ctrl.power(0).phase}), std::vector<int>({1, StCTrl::PhaseAppEnd}));
    // The termination command was launched; its time is up: shut down.
    EXPECT_EQ(notify(NtAppCommandDone, {}), V{});
    ShutCNT info;
    EXPECT_EQ((ctrl.GetContInfo(&info), info.appEndStatus[0]), 1);
    clock.advance(20);
    EXPECT_EQ(expire(TmAppEnd, 8),
              (V{"0:EvTimerStop(102):17", "5:EvLog(500):8,208", "0:EvTimerStop(102):11", "4:EvHostShutdown(303):"}));
}

TEST_F(Rules, SecondConditionEndsTheWinkAndShutsDown)
{
    controller();
    report(8, 4, 3, 0);
    EXPECT_EQ(rules(report(8, 5, 3, 0, {16})),
              (V{"5:EvLog(500):8,16", "0:EvTimerStop(102):3,8", "5:EvLog(500):8,357", "5:EvLog(500):8,14",
                 "5:EvMeterLog(501):2", "0:EvTimerStop(102):7,8", "5:EvLog(500):8,3", "5:EvMeterLog(501):5",
                 "2:EvUpsPowerOff(202):", "4:EvAppTerm(302):0", "0:EvTimerStop(102):12,8", appEndTimer()}));
    EXPECT_EQ(rules(report(8, 5, 3, 0)), V{});
}

TEST_F(Rules, AlarmListOfThreeHundredCodesIsSplit)
{
    controller();
    std::vector<int32_t> codes(300);
    std::string first = "5:EvLog(500):8", second = first;
    for (int i = 0; i < 300; ++i)
        (i < 254 ? first : second) += "," + std::to_string(codes[i] = 2000 + i);
    codes.insert(codes.begin() + 10, 2003);  // repeated: logged once
    ctrl.logAlarmCodes(codes.data(), static_cast<int>(codes.size()), 4, 2, 0, 8);
    EXPECT_EQ(events(), (V{first, second}));
}

TEST_F(Rules, ScheduledShutdownCountsDownByTimerRelays)
{
    member(1);
    EXPECT_EQ(notify(NtSchedule, {7, 0, 8}), V{}) << "more than five minutes: nothing yet";
    EXPECT_EQ(notify(NtSchedule, {5, 0, 8}),
              (V{"5:EvLog(500):8,204,5", "5:EvScheduleReport(304):5,8", "0:EvTimerStart(100):21," + at(60) + ",0,8"}));
    EXPECT_EQ(ctrl.ShutDownGetSCHStatus(0), 1);
    // The timer's expiry goes through the power thread and back one lower.
    clock.advance(60);
    EXPECT_EQ(expire(TmScheduleA, 8), V{"4:EvScheduleRelay(306):5,21,8"});
    EXPECT_EQ(notify(NtSchedule, {4, 21, 8}), (V{"5:EvLog(500):8,204,4", "5:EvScheduleReport(304):4,8",
                                                 "0:EvTimerStop(102):21", "0:EvTimerStart(100):25," + at(60) + ",0,8"}));
    EXPECT_EQ(notify(NtSchedule, {3, 0, 8}), (V{"5:EvLog(500):8,204,3", "5:EvScheduleReport(304):3,8",
                                                "0:EvTimerStop(102):25", "0:EvTimerStart(100):21," + at(60) + ",0,8"}));
    EXPECT_EQ(notify(NtSchedule, {3, 25, 8}), V{}) << "relay of the replaced timer: stale";

    // -1 calls it off.
    EXPECT_EQ(notify(NtSchedule, {-1, 0, 8}),
              (V{"5:EvLog(500):8,206", "5:EvScheduleCancelReport(305):8", "0:EvTimerStop(102):21"}));
    EXPECT_EQ(ctrl.ShutDownGetSCHStatus(0), 0);
    // Zero: the countdown ends with reason 2 and the schedule is over.
    notify(NtSchedule, {1, 0, 8});
    EXPECT_EQ(notify(NtSchedule, {0, 0, 8}),
              (V{"0:EvTimerStop(102):7,8", "5:EvMemberShutdownLog(505):0,2", "5:EvLog(500):8,3", "4:EvAppTerm(302):0",
                 "0:EvTimerStop(102):12,8", appEndTimer(), "0:EvTimerStop(102):21"}));
    EXPECT_EQ(notify(NtSchedule, {5, 0, 8}), V{});
}

// A member fed by several controllers shuts down only when no other followed controller still feeds
// it, judged from what each last reported.
class Redundant : public Rules {
protected:
    // Slots 0 and 1 reported utility power and output on; slot 2 is followed but never reported.
    void SetUp() override
    {
        member(3);
        for (int k = 0; k < 2; ++k)
            report(8 + k, 4, 2, 0), ctrl.SetOutPutStatus(true, true, k);
        events();
    }
    // What the member side does with a report of slot k saying utility lost: the rules, then the status.
    V fails(int k, int elapsed)
    {
        V out = report(8 + k, 4, 3, elapsed);
        return ctrl.ShutDownSetPFStatus(k, 1), out;
    }
};

TEST_F(Redundant, FirstFailureWaitsAndTheSecondTakesTheHostDownWithItsOwnTiming)
{
    timing(2, 10, 1);
    // Slot 0 fails beyond its wink and countdown: slot 1 still feeds the host, so slot 0 waits for its
    // application end plus delay.
    EXPECT_EQ(fails(0, 210), (V{"5:EvLog(500):8,357", "5:EvLog(500):8,14", "0:EvTimerStop(102):7,8",
                                "0:EvTimerStart(100):12," + at(140) + ",0,8", "5:EvLog(500):8,217"}));
    EXPECT_EQ(ctrl.GetAppStatus(0), 1);
    // Slot 1 fails: its own wink (10 s) and countdown (1 minute) run; the last supply takes the host down.
    EXPECT_EQ(fails(1, 0), V{"0:EvTimerStart(100):4," + at(10) + ",0,9"});
    clock.advance(10);
    expire(TmWink + 1, 9);
    clock.advance(60);
    EXPECT_EQ(expire(TmCountdown + 1, 9),
              (V{"0:EvTimerStop(102):8,9", "5:EvMemberShutdownLog(505):1,1", "5:EvLog(500):9,3", "4:EvAppTerm(302):1",
                 "0:EvTimerStop(102):13,9", "0:EvTimerStart(100):13," + at(20) + ",0,9"}));
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
    ctrl.SetOutPutStatus(false, true, 1), ctrl.ShutDownSetPFStatus(0, 1);
    EXPECT_TRUE(ctrl.ISStartShutdown(0, 1));
}

TEST_F(Rules, MemberFailuresWithElapsedTimeInsideAndBeyondTheCountdownAndLaterReportsSuppressed)
{
    member(2);
    ctrl.SetOutPutStatus(true, true, 1);
    ctrl.SetOutPutStatus(true, true, 0), ctrl.ShutDownSetPFStatus(0, 1);
    // Slot 1: 100 s elapsed = 70 s into the countdown: one minute gone, the first report still given,
    // the next tick where that minute ends.
    EXPECT_EQ(report(9, 4, 3, 100, {14, 357, 316}),
              (V{"5:EvLog(500):9,316", "5:EvLog(500):9,357", "5:EvLog(500):9,14", "5:EvLog(500):9,0,2",
                 "5:EvPowerFailReport(300):2,9", "0:EvTimerStart(100):8," + at(50) + ",60,9"}));
    EXPECT_EQ(ctrl.power(1).failureStart, clock.now() - 100);
    // Slot 0: 30 s wink + 3 minutes gone, it takes the host down.
    EXPECT_EQ(report(8, 4, 3, 210, {14, 357}),
              (V{"5:EvLog(500):8,357", "5:EvLog(500):8,14", "0:EvTimerStop(102):7,8", "5:EvMemberShutdownLog(505):0,1",
                 "5:EvLog(500):8,3", "4:EvAppTerm(302):0", "0:EvTimerStop(102):12,8", appEndTimer()}));
    ASSERT_EQ(std::vector<int>({ctrl.GetAppStatus(0), ctrl.GetStartShutdownStatus()}), std::vector<int>({2, 1}));

    clock.advance(60);
    EXPECT_EQ(expire(TmCountdown + 1, 9), V{});
    EXPECT_EQ(notify(NtSchedule, {4, 0, 9}), V{"0:EvTimerStart(100):22," + at(60) + ",0,9"});
    EXPECT_EQ(report(9, 4, 2, 0), V{"0:EvTimerStop(102):8,9"});
    EXPECT_EQ(ctrl.power(1).phase, StCTrl::PhaseNormal);
}

TEST_F(Rules, MemberSideEndAndDaemonStop)
{
    member(2);
    ctrl.SetOutPutStatus(true, true, 0), ctrl.ShutDownSetPFStatus(0, 1);
    EXPECT_EQ(notify(NtMemberCountdownEnd3, {0, 0, 8}),
              (V{"0:EvTimerStop(102):7,8", "5:EvMemberShutdownLog(505):0,3", "5:EvLog(500):8,3", "4:EvAppTerm(302):0",
                 "0:EvTimerStop(102):12,8", appEndTimer()}));
    EXPECT_EQ(ctrl.power(0).memberEnded, 1);
    EXPECT_EQ(notify(NtDaemonStopping, {}),
              (V{"5:EvLog(500):1,7", "8:EvShutdownStatus(802):1,0", "9:EvShutdownStatus(802):1,1"}));

    // On a controller the stop also ends the meter timer, and tells the members only while the link is up.
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
    cfg.setConf("WinkTime1", "99999999999"), cfg.setConf("ShutdownTime1", "99999999999");
    testing::internal::CaptureStderr();
    ctrl.setShutdownTiming(0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kestrava: WinkTime1=99999999999 is out of range (0..86400); 86400 is used\n"
              "kestrava: ShutdownTime1=99999999999 is out of range (0..1440); 1440 is used\n");
    EXPECT_EQ(rules(report(8, 4, 3, 0)), V{"0:EvTimerStart(100):3," + at(86400) + ",0,8"}) << "a wink, not an end";
}

} // namespace
