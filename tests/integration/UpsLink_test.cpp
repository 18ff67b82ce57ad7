// The UPS link end to end, the real daemon against the UPS simulator in a
// DaemonSandbox: identity and polls through the faults the simulator plays
// (line speeds: XcpIFThDetect_test, TermiosSerialPort_test). Takes minutes.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/fakes/DaemonSandbox.h"

namespace {

// The poll, block by block: "5", "4", "3", "A", ";".
const std::vector<std::string> kPollCycle = {"35", "34", "33", "41", "3B"};
const char kLost[] = "UPS communication error.";
const char kBack[] = "UPS communication established.";

class UpsLink : public ::testing::Test, public DaemonSandbox {
protected:
    UpsLink() : DaemonSandbox("kestrava-link-", 250) {}

    void TearDown() override { finish(HasFailure()); }

    // The event log's lines about the link.
    std::vector<std::string> linkLines()
    {
        std::vector<std::string> out;
        for (const std::string& l : eventLog())
            if (l.find("UPS communication") != std::string::npos)
                out.push_back(l);
        return out;
    }

    // Plays a fault and waits for the link to be lost and re-established.
    void loseAndRecover(const std::string& fault)
    {
        const size_t before = linkLines().size();
        ASSERT_TRUE(simCommand(fault)) << fault;
        ASSERT_TRUE(waitFor([&] { return linkLines().size() >= before + 2; }, 60))
            << fault << ": link not lost and re-established; " << ::testing::PrintToString(linkLines());
    }

    // Codes of the frames the simulator took, from log line `from` on.
    std::vector<std::string> takenCodes(size_t from = 0)
    {
        auto log = frameLog();
        std::vector<std::string> out;
        for (size_t i = from; i < log.size(); ++i)
            if (log[i].taken())
                out.push_back(log[i].code());
        return out;
    }

    // Waits until the frames taken after `from` hold `cycles` whole polls,
    // then checks that from the first "5" on they are poll cycles in order.
    ::testing::AssertionResult pollsInOrder(size_t from, long cycles)
    {
        std::vector<std::string> codes;
        waitFor(
            [&] {
                codes = takenCodes(from);
                return std::count(codes.begin(), codes.end(), "3B") >= cycles;
            },
            60);
        std::vector<std::string> polls(std::find(codes.begin(), codes.end(), "35"), codes.end()), expected;
        while (expected.size() < polls.size())
            expected.insert(expected.end(), kPollCycle.begin(), kPollCycle.end());
        expected.resize(polls.size());
        if (polls != expected || std::count(polls.begin(), polls.end(), "3B") < cycles)
            return ::testing::AssertionFailure() << ::testing::PrintToString(polls);
        return ::testing::AssertionSuccess();
    }
};

// Bad checksum, wrong sequence, truncated reply, a silent UPS and a hang-up
// (device gone, then back) each lose the link once; a reply split by a
// pause the daemon waits out loses nothing. A model name carrying a line
// break and a key must not reach the configuration file as a command.
TEST_F(UpsLink, FaultsLoseTheLinkOnceEachAndASplitReplyNothing)
{
    ASSERT_NO_FATAL_FAILURE(startController({"--cap-speeds", "9600", "--outlets", "0", "--model",
                                             "SimUPS\\r\\nAppTermCommand1=echo injected"},
                                            "UPSFirmWare=\nUPSSerial=\nModelName=\nWinkTime1=600\nAppTermCommand1=true\n"));
    const std::string ini = readFile(home + "Kestrava.ini");
    EXPECT_NE(std::string::npos, ini.find("UPSFirmWare= 2.15(230-KS)\nUPSSerial= KS15SIM000000001\nModelName=\n"))
        << ini;
    std::vector<std::string> keys;
    for (const std::string& l : readLines(home + "Kestrava.ini"))
        keys.push_back(l.substr(0, l.find('=')));
    EXPECT_EQ(std::vector<std::string>({"UPSController", "DeviceName", "UPSFirmWare", "UPSSerial", "ModelName",
                                        "WinkTime1", "AppTermCommand1", "Path", "DumpLogRate", "DumpLogDays",
                                        "CuiPort", "IPAddress", "CtrlPort1", "MemberPort", "AccessCode1"}),
              keys);
    EXPECT_NE(std::string::npos, ini.find("\nAppTermCommand1=true\n"));
    for (const char* fault : {"fault checksum", "fault sequence", "fault truncate"})
        ASSERT_NO_FATAL_FAILURE(loseAndRecover(fault));
    size_t mark = frameLog().size();
    ASSERT_TRUE(simCommand("fault split 1500"));
    EXPECT_TRUE(pollsInOrder(mark, 1));

    auto log = frameLog();
    EXPECT_TRUE(std::any_of(log.begin() + mark, log.end(), [](const FrameLine& l) {
        return l.kind == "NOTE" && l.text.find("reply split") != std::string::npos;
    })) << "the split reply was never played";

    ASSERT_NO_FATAL_FAILURE(loseAndRecover("fault silent 2"));
    mark = frameLog().size();
    ASSERT_NO_FATAL_FAILURE(loseAndRecover("hangup 7000"));
    EXPECT_TRUE(pollsInOrder(mark, 1));
    std::vector<std::string> expected = {kBack};
    for (int fault = 0; fault < 5; ++fault)
        expected.insert(expected.end(), {kLost, kBack});
    EXPECT_EQ(expected, linkLines());
    EXPECT_EQ("UPS Communication Established\n", readFile(home + "upsCommInfo.tmp"));
    EXPECT_EQ(ini, readFile(home + "Kestrava.ini"));
    EXPECT_TRUE(pidAlive(daemonPid));
}

} // namespace
