// The UPS link end to end: the real daemon as a controller finds the UPS
// simulator on a pseudo-terminal by hunting the line speed, steps the speed
// up, records the UPS's identity in its configuration file, polls the UPS
// block by block, reports a UPS that falls silent and takes it up again when
// it answers. Everything runs in a temporary home directory with its own pid
// file, lock directory, a harmless shutdown command and a fake `wall`.
// The daemon's pauses are the real ones, so these tests take minutes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "tests/fakes/DaemonSandbox.h"

namespace {

const char kAuthFrame[] = "AB 04 CF 69 E8 D5 5C";
// Communication parameter: line speed 19200 (0x4B00).
const char kStepUpTo19200[] = "AB 05 98 00 01 00 4B 6C";
// The poll, block by block: "5", "4", "3", "A", ";".
const std::vector<std::string> kPollCycle = {"35", "34", "33", "41", "3B"};

// One line of the simulator's frame log without its time stamp:
// kind "RX", "TX" or "NOTE", then the text ("AB 01 35 1F",
// "AB 01 35 1F (ignored: silent)", "line speed 4800: answering").
struct LogLine {
    std::string kind;
    std::string text;
    // A received frame the simulator answered (or took, for frames without
    // an answer such as the authentication).
    bool taken() const { return kind == "RX" && text.find('(') == std::string::npos; }
    // Command code of a received frame ("35").
    std::string code() const { return kind == "RX" && text.size() >= 8 ? text.substr(6, 2) : std::string(); }
};

std::vector<LogLine> frameLog(const std::string& path)
{
    std::vector<LogLine> out;
    for (const std::string& line : readLines(path)) {
        // "YYYY-MM-DD HH:MM:SS.mmm KIND text"
        if (line.size() < 25)
            continue;
        std::string rest = line.substr(24);
        size_t space = rest.find(' ');
        if (space == std::string::npos)
            continue;
        out.push_back({rest.substr(0, space), rest.substr(space + 1)});
    }
    return out;
}

// The line speed named in an "(ignored: line speed N not accepted)" suffix
// or a "line speed N: answering" note; 0 when there is none.
int speedIn(const std::string& text)
{
    size_t at = text.find("line speed ");
    return at == std::string::npos ? 0 : atoi(text.c_str() + at + 11);
}

class UpsLink : public ::testing::Test, public DaemonSandbox {
protected:
    UpsLink() : DaemonSandbox("kestrava-link-", 250) {}

    void TearDown() override { finish(HasFailure()); }

    // Starts the simulator with the given options and the daemon on its
    // terminal.
    void start(const std::vector<std::string>& simOptions)
    {
        ASSERT_NO_FATAL_FAILURE(makeHome());
        startSimulator(simOptions);
        ASSERT_FALSE(ttyPath.empty()) << "the simulator printed no terminal path";
        writeConfiguration();
        startDaemon();
        ASSERT_GT(daemonPid, 0) << "the daemon wrote no pid file";
    }

    void writeConfiguration()
    {
        const int base = 30000 + (getpid() % 10000) * 3;
        std::ostringstream ini;
        ini << "UPSController=1\n"
            << "DeviceName=" << ttyPath << "\n"
            << "UPSFirmWare=\n"
            << "UPSSerial=\n"
            << "ModelName=\n"
            << "WinkTime1=600\n"
            << "ShutdownTime1=10\n"
            << "AppTermTimeOut1=30\n"
            << "ShutdownDelay1=120\n"
            << "AppTermCommand1=true\n"
            << homeKeys(base)
            << "GroupName=UpsLinkTest\n"
            << "AccessCode1=\n";
        writeHomeFiles(ini.str(), "#!/bin/sh\necho shutdown >> " + home + "shutdown-runs\n");
    }

    // Codes of the frames the simulator took, from log line `from` on.
    std::vector<std::string> takenCodes(const std::vector<LogLine>& log, size_t from = 0)
    {
        std::vector<std::string> out;
        for (size_t i = from; i < log.size(); ++i)
            if (log[i].taken())
                out.push_back(log[i].code());
        return out;
    }

    // Index of the first taken frame with this code at or after `from`; -1 if none.
    int findTaken(const std::vector<LogLine>& log, const std::string& code, size_t from = 0)
    {
        for (size_t i = from; i < log.size(); ++i)
            if (log[i].taken() && log[i].code() == code)
                return static_cast<int>(i);
        return -1;
    }

    // Number of taken "5" requests at or after `from`.
    int pollsSince(size_t from)
    {
        auto codes = takenCodes(frameLog(frames), from);
        int n = 0;
        for (const std::string& c : codes)
            n += c == "35" ? 1 : 0;
        return n;
    }

    // True when the codes (from the first "5" on) are whole poll cycles in
    // order, possibly ending with a partial one, with at least `cycles`
    // complete ones.
    static ::testing::AssertionResult pollsInOrder(const std::vector<std::string>& codes, int cycles)
    {
        size_t start = 0;
        while (start < codes.size() && codes[start] != "35")
            ++start;
        if (start == codes.size())
            return ::testing::AssertionFailure() << "no poll at all";
        int complete = 0;
        for (size_t i = start; i < codes.size(); ++i) {
            const std::string& want = kPollCycle[(i - start) % kPollCycle.size()];
            if (codes[i] != want)
                return ::testing::AssertionFailure() << "frame " << (i - start) << " of the polls is " << codes[i]
                                                     << ", expected " << want;
            if ((i - start) % kPollCycle.size() == kPollCycle.size() - 1)
                ++complete;
        }
        if (complete < cycles)
            return ::testing::AssertionFailure() << "only " << complete << " complete poll cycles";
        return ::testing::AssertionSuccess();
    }

    std::string upsCommText() { return readFile(home + "upsCommInfo.tmp"); }
};

TEST_F(UpsLink, HuntsStepsUpIdentifiesPollsAndRecoversFromSilence)
{
    start({"--speeds", "4800"});
    if (HasFatalFailure())
        return;

    // Detection: four rates without an answer, then 4800.
    ASSERT_TRUE(waitFor([&] { return findTaken(frameLog(frames), "CF") >= 0; }, 90))
        << "the daemon never reached the UPS at its speed";
    auto log = frameLog(frames);
    std::vector<int> tried;
    int lastNoted = 0;
    for (const LogLine& l : log) {
        if (l.kind == "NOTE" && l.text.find(": answering") != std::string::npos)
            lastNoted = speedIn(l.text);
        if (l.kind == "RX" && l.text.rfind(kAuthFrame, 0) == 0) {
            if (l.taken()) {
                tried.push_back(lastNoted);
                break;
            }
            tried.push_back(speedIn(l.text));
        }
    }
    EXPECT_EQ(std::vector<int>({9600, 2400, 1200, 19200, 4800}), tried);

    // Identity written into the configuration file.
    ASSERT_TRUE(waitFor([&] { return readFile(home + "Kestrava.ini").find("ModelName= K") != std::string::npos; }, 90))
        << "the identity never reached Kestrava.ini";
    std::string ini = readFile(home + "Kestrava.ini");
    EXPECT_NE(std::string::npos, ini.find("UPSFirmWare= 2.15(230-KS)\n")) << ini;
    EXPECT_NE(std::string::npos, ini.find("UPSSerial= KS15SIM000000001\n")) << ini;
    EXPECT_NE(std::string::npos, ini.find("ModelName= Kestrava SimUPS 1500\n")) << ini;

    // The capabilities raised the line to 19200.
    log = frameLog(frames);
    int stepUp = -1;
    for (size_t i = 0; i < log.size(); ++i)
        if (log[i].taken() && log[i].text == kStepUpTo19200)
            stepUp = static_cast<int>(i);
    EXPECT_GE(stepUp, 0) << "no step-up to 19200";

    // Polling, poll after poll, in the block order.
    const int detected = findTaken(log, "89");
    ASSERT_GE(detected, 0) << "detection did not reach the outlet commands";
    ASSERT_TRUE(waitFor([&] { return pollsSince(static_cast<size_t>(detected)) >= 3; }, 60))
        << "fewer than three polls after detection";
    EXPECT_TRUE(pollsInOrder(takenCodes(frameLog(frames), static_cast<size_t>(detected) + 1), 2));
    EXPECT_NE(std::string::npos, upsCommText().find("UPS Monitor Established")) << upsCommText();

    // The UPS falls silent: communication error.
    ASSERT_TRUE(simCommand("silent on"));
    ASSERT_TRUE(waitFor([&] { return upsCommText().find("UPS Communication Error") != std::string::npos; }, 40))
        << "no communication error reported; text: " << upsCommText();

    // It speaks again: detected again, polling resumes.
    const size_t quietEnd = frameLog(frames).size();
    ASSERT_TRUE(simCommand("silent off"));
    ASSERT_TRUE(waitFor([&] { return upsCommText().find("UPS Communication Established") != std::string::npos; },
                        120))
        << "communication never restored; text: " << upsCommText();
    log = frameLog(frames);
    const int again = findTaken(log, "89", quietEnd);
    ASSERT_GE(again, 0) << "no new detection after the silence";
    EXPECT_GE(findTaken(log, "A0", quietEnd), 0);
    ASSERT_TRUE(waitFor([&] { return pollsSince(static_cast<size_t>(again)) >= 2; }, 60))
        << "polling did not resume";
    EXPECT_TRUE(pollsInOrder(takenCodes(frameLog(frames), static_cast<size_t>(again) + 1), 1));
    EXPECT_TRUE(pidAlive(daemonPid));
}

TEST_F(UpsLink, StepsUpOnlyToTheFastestOfferedSpeed)
{
    start({"--speeds", "9600", "--cap-speeds", "2400,9600,19200"});
    if (HasFatalFailure())
        return;
    ASSERT_TRUE(waitFor([&] { return findTaken(frameLog(frames), "35") >= 0; }, 90))
        << "the daemon never polled the UPS";
    auto log = frameLog(frames);
    std::vector<std::string> stepUps;
    for (const LogLine& l : log)
        if (l.kind == "RX" && l.code() == "98")
            stepUps.push_back(l.text);
    ASSERT_EQ(1u, stepUps.size());
    EXPECT_EQ(kStepUpTo19200, stepUps[0]);
    // Everything after the step-up went at 19200 and was answered.
    bool at19200 = false;
    for (const LogLine& l : log) {
        if (l.kind == "NOTE" && speedIn(l.text) != 0)
            at19200 = speedIn(l.text) == 19200 && l.text.find(": answering") != std::string::npos;
    }
    EXPECT_TRUE(at19200);
    EXPECT_EQ(std::string::npos, log.back().text.find("ignored"));
}

} // namespace
