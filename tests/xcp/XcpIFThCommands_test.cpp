// The UPS action commands: frames with their arguments, the authentication
// before each, the support test and the echo test of the reply.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/fakes/ChildProcess.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/XcpLinkRig.h"
#include "tests/fakes/XcpUpsScript.h"

namespace {
using P = ScriptedSerialPort;

class XcpCommandTest : public ::testing::Test, public XcpLinkRig {
protected:
    void SetUp() override
    {
        wire();
        config->setConf("ShutdownDelay1", "120");
        config->setConf("AppTermTimeOut1", "180");
        ctrl->setShutdownTiming(0);
        ASSERT_EQ(1, link->portOpen());
        XcpUpsScript().install(port);
    }
    // Sets the supported commands as a command list reply would.
    void listCommands(std::vector<int> codes)
    {
        XcpUpsScript ups;
        ups.commands = codes;
        port.queueReply(0x40, P::reply(0x10, ups.commandList()));
        ASSERT_EQ(0, link->commandListBlockRequest());
        port.writes.clear();
    }
    // The frame without its checksum, after checking the checksum.
    static std::string body(const std::string& frame)
    {
        unsigned sum = 0;
        for (unsigned char c : frame)
            sum += c;
        EXPECT_EQ(0u, sum & 0xFF) << P::hex(frame);
        return P::hex(frame.substr(0, frame.size() - 1));
    }
};

TEST_F(XcpCommandTest, FramesCarryTheirArgumentsAfterAuthentication)
{
    EXPECT_EQ(0, link->upsStop());
    ASSERT_EQ(2u, port.writes.size());
    EXPECT_EQ("AB 04 CF 69 E8 D5", body(port.writes[0]));
    EXPECT_EQ("AB 03 8A 2C 01 9B", P::hex(port.writes[1]));  // 120 + 180 = 0x012C, low byte first
    port.writes.clear();
    EXPECT_EQ(0, link->delayedLoadPowerOffAndRestartRequest(2));
    EXPECT_EQ("AB 04 8A 2C 01 02", body(port.writes.at(1)));
    port.writes.clear();
    config->setConf("ShutdownDelay1", "65000");  // 66000 mod 65536 = 0x01D0
    config->setConf("AppTermTimeOut1", "1000");
    ctrl->setShutdownTiming(0);
    EXPECT_EQ(0, link->upsStop());
    EXPECT_EQ("AB 03 8A D0 01", body(port.writes.at(1)));

    port.writes.clear();
    EXPECT_EQ(std::vector<int>({0, 0}), std::vector<int>({link->setUPSOn(0), link->setUPSOn(2)}));
    ASSERT_EQ(4u, port.writes.size());
    EXPECT_EQ("AB 01 89 | AB 02 89 02", body(port.writes[1]) + " | " + body(port.writes[3]));

    port.writes.clear();
    link->setMaxCommandLength(16);
    EXPECT_EQ(0, link->setScheduledUPSOnOff(1));
    EXPECT_EQ("AB 04 93 00 00 01", body(port.framesWithCode(0x93).at(0)));
    EXPECT_EQ(0, link->setCommunicationParameter(19200));  // switching without an answer: XcpIFThDetect_test
    EXPECT_EQ("AB 05 98 00 01 00 4B", body(port.framesWithCode(0x98).at(0)));
}

TEST_F(XcpCommandTest, RepliesMustEchoAndUnlistedCommandsAreSkipped)
{
    port.queueReply(0x93, P::actionReply(0x89));
    EXPECT_EQ(7, link->setScheduledUPSOnOff(1));
    port.queueReply(0x89, P::reply(9, "\x31"));
    EXPECT_EQ(7, link->setUPSOn(0));
    port.queueReply(0x8A, "");
    EXPECT_EQ(6, link->upsStop());
    EXPECT_EQ(1u, link->commandBuffer().size());

    // A failed authentication stops the command.
    port.shortWriteBy = 1;
    EXPECT_EQ(std::vector<int>({3, 3, 3}),
              std::vector<int>({link->setUPSOn(1), link->upsStop(), link->setCommunicationParameter(19200)}));
    // Only the frames of the exchanges above.
    EXPECT_EQ(std::vector<size_t>({1, 1, 0}), std::vector<size_t>({port.framesWithCode(0x8A).size(), port.framesWithCode(0x89).size(),
                                                                    port.framesWithCode(0x98).size()}));

    // Unlisted commands are skipped, but the stop is always sent.
    port.shortWriteBy = 0;
    listCommands({0x31, 0xCF, 0x8A});
    EXPECT_EQ(std::vector<int>({0, 0, 0, 0}), std::vector<int>({link->setUPSOn(1), link->setScheduledUPSOnOff(1),
                                                                link->sendOutletParameter(1), link->setCommunicationParameter(19200)}));
    EXPECT_TRUE(port.writes.empty());
    EXPECT_NE(19200, port.getSpeed());

    listCommands({0x31, 0xCF});
    EXPECT_EQ(0, link->upsStop());
    EXPECT_EQ(1u, port.framesWithCode(0x8A).size());
    listCommands({0x31});  // authentication is skipped when not listed
    EXPECT_EQ(0, link->upsStop());
    EXPECT_EQ(std::vector<int>({0x8A}), port.codesWritten());
}

TEST_F(XcpCommandTest, StopEventGivesUpOnAFrameLimitItCannotMeet)
{
    // The authentication frame has 7 bytes: a UPS taking at most 6 can
    // never get the stop. The event ends (bounded here) with one log line.
    link->setMaxCommandLength(6);
    events->setXcpEvent(202);
    std::atomic<bool> done{false};
    ::testing::internal::CaptureStderr();
    std::thread t([&] {
        link->commStart();
        done = true;
    });
    const bool ended = waitFor([&] { return done.load(); }, 5, 10);
    const std::string err = ::testing::internal::GetCapturedStderr();
    if (!ended) {
        t.detach();  // spinning: the process ends with the failure
        FAIL() << "the stop event spins";
    }
    t.join();
    EXPECT_EQ("kestrava: UPS stop not sent: the UPS accepts command frames of at most 6 bytes\n", err);
    EXPECT_TRUE(port.writes.empty());
    EXPECT_TRUE(drainDescribed(*ctrl).empty());
}
} // namespace
