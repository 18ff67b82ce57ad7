// A power failure end to end (DaemonSandbox): utility lost (alarm 59) leads
// through wink and a one-minute countdown to the UPS's delayed power-off,
// the termination command and the host shutdown; power back cancels it.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "tests/fakes/DaemonSandbox.h"

namespace {

// Times (seconds since the epoch, as written by `date +%s.%N`) of the runs recorded in a file.
std::vector<double> runTimes(const std::string& path)
{
    std::vector<double> out;
    for (const auto& l : readLines(path))
        out.push_back(strtod(l.c_str(), nullptr));
    return out;
}

bool contains(const std::vector<std::string>& lines, const std::string& part)
{
    return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return l.find(part) != std::string::npos; });
}

class PowerFailure : public ::testing::Test, public DaemonSandbox {
protected:
    PowerFailure() : DaemonSandbox("kestrava-pf-", 200) {}
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(startController({}, "WinkTime1=2\nShutdownTime1=1\nAppTermTimeOut1=3\nShutdownDelay1=297\n"
                                                    "AppTermCommand1=date +%s.%N >> " + appRuns +
                                                    "\nGroupName=PowerFailureTest\nSetUpID=*KESTRAVATEST\nMemberIDData=0\n"));
    }
    void TearDown() override { finish(HasFailure()); }

    // Raises alarm 59 and waits for the poll that reports it; the time then.
    time_t raiseUtilityFailure()
    {
        size_t mark = frameLog().size();
        EXPECT_TRUE(simCommand("alarm set 59"));
        return waitFor([&] { return findTaken(frameLog(), "35", mark) >= 0; }, 30) ? time(nullptr) : 0;
    }

    // kestrava-console status against the daemon (args after "status").
    ChildRun status(const std::vector<std::string>& more = {})
    {
        std::vector<std::string> args = {KESTRAVA_BINARY_DIR "/kestrava-console", "--config", home + "Kestrava.ini",
                                         "status"};
        args.insert(args.end(), more.begin(), more.end());
        return runProgram(home, args);
    }

    std::string appRuns = home + "app-runs", shutdownRuns = home + "shutdown-runs";
};

// Power back inside the countdown cancels it; the next loss runs to the end.
TEST_F(PowerFailure, PowerBackCancelsTheCountdownAndTheNextLossEndsInPowerOffAndHostShutdown)
{
    // The console's status: on utility, exit 0 for a monitoring check.
    ChildRun st = status();
    EXPECT_EQ(st.status, 0) << st.out << st.err;
    EXPECT_NE(st.out.find("UPS: Kestrava SimUPS 1500 ("), std::string::npos) << st.out;
    EXPECT_NE(st.out.find("Power: on utility\nBattery: "), std::string::npos) << st.out;

    const time_t reported = raiseUtilityFailure();
    ASSERT_GT(reported, 0) << "no poll after the alarm was raised";
    // The alarm by name, on battery, the wink or countdown, exit 1 (once
    // the poll's result has gone through the rules); the JSON form parses.
    EXPECT_TRUE(waitFor([&] {
        st = status();
        return st.out.find("Power: on battery\n") != std::string::npos &&
               st.out.find("Alarms: 59 Utility not present\nCountdown: controller 1: ") != std::string::npos;
    }, 10)) << st.out;
    EXPECT_EQ(st.status, 1);
    if (access("/usr/bin/python3", X_OK) == 0) {
        ChildRun json = runProgram(home, {"/bin/sh", "-c", KESTRAVA_BINARY_DIR "/kestrava-console --config " + home +
                                                               "Kestrava.ini status --json | /usr/bin/python3 -m json.tool"});
        EXPECT_EQ(json.status, 0) << json.err;
        EXPECT_NE(json.out.find("\"name\": \"Utility not present\""), std::string::npos) << json.out;
    }
    std::this_thread::sleep_for(std::chrono::seconds(20));
    ASSERT_TRUE(simCommand("alarm clear 59"));
    // Past the moment the countdown would have ended, with room to spare.
    std::this_thread::sleep_until(std::chrono::system_clock::from_time_t(reported + 80));
    EXPECT_LT(findTaken(frameLog(), "8A"), 0) << "the UPS was told to power off";
    EXPECT_TRUE(runTimes(appRuns).empty() && runTimes(shutdownRuns).empty());
    EXPECT_TRUE(contains(eventLog(), "Power has been restored.") && contains(readLines(home + "wall.txt"), "Power has been restored."))
        << ::testing::PrintToString(eventLog());

    // Wink 2 s and one countdown minute, then the power-off (with restart, delay 297 + 3 = 300 s = 0x012C)
    // right after the authorisation.
    ASSERT_GT(raiseUtilityFailure(), 0) << "no poll after the alarm was raised again";
    int off = -1;
    ASSERT_TRUE(waitFor([&] { return (off = findTaken(frameLog(), "8A")) >= 0; }, 120)) << "no power-off reached the UPS";
    auto log = frameLog();
    EXPECT_EQ(log[off - 1].text + " | " + log[off].text, "AB 04 CF 69 E8 D5 5C | AB 03 8A 2C 01 9B");

    ASSERT_TRUE(waitFor([&] { return !runTimes(shutdownRuns).empty(); }, 30)) << "the host shutdown never ran";
    // Nothing runs twice; the host shutdown comes after the termination command.
    std::this_thread::sleep_for(std::chrono::seconds(5));
    auto app = runTimes(appRuns), down = runTimes(shutdownRuns);
    ASSERT_EQ(std::make_pair(app.size(), down.size()), std::make_pair(size_t(1), size_t(1)));
    EXPECT_LT(app[0], down[0]);
    log = frameLog();
    EXPECT_EQ(std::count_if(log.begin(), log.end(), [](const FrameLine& l) { return l.taken() && l.code() == "8A"; }), 1)
        << "the power-off was sent more than once";

    const std::vector<std::string> events = eventLog();
    for (const char* line : {"Utility power not present (within wink time).", "will shut down in 1 minute",
                             "Host shutdown started.", "Running the host shutdown command."})
        EXPECT_TRUE(contains(events, line)) << line << " in " << ::testing::PrintToString(events);
}

} // namespace
