// The UPS action commands: frames with their arguments, the authentication
// before each, the support test and the echo test of the reply.
#include <gtest/gtest.h>

#include <memory>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "tests/fakes/ScriptedSerialPort.h"
#include "tests/fakes/XcpLinkRig.h"
#include "xcp/UpsDataBlock.h"
#include "xcp/XcpIFTh.h"
#include "xcp/XcpTh.h"

namespace {
using P = ScriptedSerialPort;

class XcpCommandTest : public ::testing::Test, public XcpLinkRig {
protected:
    void SetUp() override
    {
        config.reset(new FileMap());
        config->setConf("DeviceName", "/dev/ttyS9");
        config->setConf("ShutdownDelay1", "120");
        config->setConf("AppTermTimeOut1", "180");
        wire();
        ctrl->setShutdownTiming(0);
        ASSERT_EQ(1, link->portOpen());
        for (unsigned char code : {0x89, 0x8A, 0x93, 0x97, 0x98})
            port.standingReply(code, P::actionReply(code));
    }

    // Sets the supported commands as a command list reply would.
    void listCommands(std::initializer_list<int> codes)
    {
        std::string list;
        list.push_back(static_cast<char>(codes.size()));
        list.push_back(1);
        for (int c : codes)
            list.push_back(static_cast<char>(c));
        port.queueReply(0x40, P::reply(0x10, list));
        ASSERT_EQ(0, link->commandListBlockRequest());
        port.writes.clear();
    }

    // The frame without its checksum, and whether the checksum is right.
    static std::string body(const std::string& frame)
    {
        unsigned sum = 0;
        for (unsigned char c : frame)
            sum += c;
        EXPECT_EQ(0u, sum & 0xFF) << P::hex(frame);
        return P::hex(frame.substr(0, frame.size() - 1));
    }
};

TEST_F(XcpCommandTest, StopSendsTheDelayedPowerOffAfterAuthentication)
{
    EXPECT_EQ(0, link->upsStop());
    ASSERT_EQ(2u, port.writes.size());
    EXPECT_EQ("AB 04 CF 69 E8 D5", body(port.writes[0]));
    // 120 + 180 = 300 = 0x012C, low byte first.
    EXPECT_EQ("AB 03 8A 2C 01", body(port.writes[1]));
    EXPECT_EQ("AB 03 8A 2C 01 9B", P::hex(port.writes[1]));

    port.writes.clear();
    EXPECT_EQ(0, link->delayedLoadPowerOffAndRestartRequest(2));
    EXPECT_EQ("AB 04 8A 2C 01 02", body(port.writes.at(1)));
}

TEST_F(XcpCommandTest, StopDelayIsCutTo16Bits)
{
    config->setConf("ShutdownDelay1", "65000");
    config->setConf("AppTermTimeOut1", "1000");
    ctrl->setShutdownTiming(0);
    EXPECT_EQ(0, link->upsStop());
    // 66000 mod 65536 = 464 = 0x01D0.
    EXPECT_EQ("AB 03 8A D0 01", body(port.writes.at(1)));
}

TEST_F(XcpCommandTest, StopIsSentEvenWhenNotListed)
{
    listCommands({0x31, 0xCF});
    EXPECT_EQ(0, link->upsStop());
    EXPECT_EQ(1u, port.framesWithCode(0x8A).size());

    // Authentication is skipped when the UPS does not list it.
    listCommands({0x31});
    EXPECT_EQ(0, link->upsStop());
    EXPECT_EQ(std::vector<int>({0x8A}), port.codesWritten());
}

TEST_F(XcpCommandTest, UpsOnWithAndWithoutSegment)
{
    EXPECT_EQ(0, link->setUPSOn(0));
    EXPECT_EQ(0, link->setUPSOn(2));
    ASSERT_EQ(4u, port.writes.size());
    EXPECT_EQ("AB 01 89", body(port.writes[1]));
    EXPECT_EQ("AB 02 89 02", body(port.writes[3]));
}

TEST_F(XcpCommandTest, OutletAndScheduleFrames)
{
    link->setMaxCommandLength(16);
    EXPECT_EQ(0, link->setScheduledUPSOnOff(0));
    EXPECT_EQ(0, link->setScheduledUPSOnOff(1));
    EXPECT_EQ(0, link->sendOutletParameter(3));
    auto sched = port.framesWithCode(0x93);
    ASSERT_EQ(2u, sched.size());
    EXPECT_EQ("AB 03 93 00 00", body(sched[0]));
    EXPECT_EQ("AB 04 93 00 00 01", body(sched[1]));
    EXPECT_EQ("AB 05 97 02 03 00 00", body(port.framesWithCode(0x97).at(0)));
}

TEST_F(XcpCommandTest, ReplyMustEchoTheCommand)
{
    port.queueReply(0x93, P::actionReply(0x89));
    EXPECT_EQ(7, link->setScheduledUPSOnOff(1));
    port.queueReply(0x89, P::reply(9, std::string(1, '\x31')));
    EXPECT_EQ(7, link->setUPSOn(0));
    port.queueReply(0x8A, "");
    EXPECT_EQ(6, link->upsStop());
    EXPECT_EQ(1u, link->commandBuffer().size());
}

TEST_F(XcpCommandTest, UnlistedCommandsAreSkipped)
{
    listCommands({0x31, 0xCF, 0x8A});
    EXPECT_EQ(0, link->setUPSOn(1));
    EXPECT_EQ(0, link->setScheduledUPSOnOff(1));
    EXPECT_EQ(0, link->sendOutletParameter(1));
    EXPECT_EQ(0, link->setCommunicationParameter(19200));
    EXPECT_TRUE(port.writes.empty());
    EXPECT_NE(19200, port.getSpeed());
}

TEST_F(XcpCommandTest, FailedAuthenticationStopsTheCommand)
{
    port.shortWriteBy = 1;
    EXPECT_EQ(3, link->setUPSOn(1));
    EXPECT_EQ(3, link->upsStop());
    EXPECT_EQ(3, link->setCommunicationParameter(19200));
    EXPECT_TRUE(port.framesWithCode(0x89).empty());
    EXPECT_TRUE(port.framesWithCode(0x8A).empty());
    EXPECT_TRUE(port.framesWithCode(0x98).empty());
}

TEST_F(XcpCommandTest, SpeedChangeSwitchesWhateverTheAnswer)
{
    port.queueReply(0x98, "");
    EXPECT_EQ(0, link->setCommunicationParameter(19200));
    EXPECT_EQ("AB 05 98 00 01 00 4B", body(port.framesWithCode(0x98).at(0)));
    EXPECT_EQ(19200, port.getSpeed());
    EXPECT_EQ(0, link->setCommunicationParameter(2400));
    EXPECT_EQ("AB 05 98 00 01 60 09", body(port.framesWithCode(0x98).at(1)));
    EXPECT_EQ(2400, port.getSpeed());
}
} // namespace
