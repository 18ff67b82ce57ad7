// Detection and polling of the UPS: plug-and-play, line-speed hunting,
// command list, capabilities step-up, the detection sequence with identity
// bookkeeping, the polling order and the poll-result notification.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "tests/fakes/ScriptedSerialPort.h"
#include "tests/fakes/TempDir.h"
#include "tests/fakes/XcpLinkRig.h"
#include "tests/fakes/XcpUpsScript.h"
#include "xcp/UpsDataBlock.h"
#include "xcp/XcpIFTh.h"
#include "xcp/XcpTh.h"

namespace {
using P = ScriptedSerialPort;

// A plug-and-play text "(" body XX ")" whose XX is the right sum.
std::string pnpText(const std::string& body)
{
    unsigned sum = '(' + ')';
    for (unsigned char c : body)
        sum += c;
    char digits[3];
    snprintf(digits, sizeof digits, "%02X", sum & 0xFF);
    return "(" + body + digits + ")";
}

class XcpDetectTest : public ::testing::Test, public XcpLinkRig {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(home.made());
        iniPath = home.file("Kestrava.ini");
        writeFile(iniPath, "# test\nUPSController=1\nDeviceName=/dev/ttyS9\nUPSFirmWare=\nUPSSerial=\n"
                           "ModelName=\nShutdownDelay1=120\nAppTermTimeOut1=180\n");
        config.reset(new FileMap(iniPath));
        wire();
    }
    std::string iniText() { return readFile(iniPath); }
    // Speeds at which the escape byte was written (one per rate tried).
    std::vector<int> escapeSpeeds()
    {
        std::vector<int> out;
        for (size_t i = 0; i < port.writes.size(); ++i)
            if (port.writes[i] == "\x1b")
                out.push_back(port.writeSpeeds[i]);
        return out;
    }

    TempDir home{"kestrava-xcp-"};
    std::string iniPath;
    XcpUpsScript script;
};

TEST_F(XcpDetectTest, PlugAndPlayIdentifiesAt1200WithoutHunting)
{
    script.install(port);
    port.dsrFollowsDtr = true;
    std::string text = pnpText("XCP1,KESTRAVA");
    // Bit 7 set on the line is ignored.
    text[3] = static_cast<char>(text[3] | 0x80);
    port.pnpText = text;
    ASSERT_EQ(1, link->portOpen());
    EXPECT_EQ(0, link->plugAndPlay());
    EXPECT_EQ(1200, link->currentBaudrate());
    EXPECT_EQ(1200, port.getSpeed());
    EXPECT_TRUE(escapeSpeeds().empty());
    EXPECT_EQ("Test UPS 1500", ups->getUnitName());
    EXPECT_EQ(std::vector<int>({0xA0}), port.codesWritten());
}

TEST_F(XcpDetectTest, PlugAndPlayFailuresLeadToHunting)
{
    script.install(port);
    port.dsrFollowsDtr = true;
    ASSERT_EQ(1, link->portOpen());

    std::string bad = pnpText("XCP1,KESTRAVA");
    bad[bad.size() - 2] = bad[bad.size() - 2] == '0' ? '1' : '0';
    port.pnpText = bad;
    EXPECT_EQ(7, link->plugAndPlay());
    port.pnpText = "XCP1,KESTRAVA";
    EXPECT_EQ(5, link->plugAndPlay());
    port.pnpText.clear();
    EXPECT_EQ(6, link->plugAndPlay());
    port.dsrFollowsDtr = false;
    EXPECT_EQ(4, link->plugAndPlay());
    port.modemStatusFails = true;
    EXPECT_EQ(3, link->plugAndPlay());
    EXPECT_TRUE(port.writes.empty());

    // The identification step hunts after a failed plug-and-play.
    port.modemStatusFails = false;
    port.dsrFollowsDtr = true;
    port.pnpText = bad;
    EXPECT_EQ(0, link->standardIDBlockRequest());
    EXPECT_EQ(std::vector<int>({9600}), escapeSpeeds());
    EXPECT_EQ(9600, link->currentBaudrate());
}

TEST_F(XcpDetectTest, PlugAndPlayProtocolTwoFallsBackToTheOldRequest)
{
    script.install(port);
    port.dsrFollowsDtr = true;
    port.pnpText = pnpText("XCP2,KESTRAVA");
    port.queueReply(0xA0, "garbage");
    ASSERT_EQ(1, link->portOpen());
    EXPECT_EQ(0, link->plugAndPlay());
    EXPECT_EQ(std::vector<int>({0xA0, 0x31}), port.codesWritten());
    EXPECT_EQ("Test UPS 1500", ups->getUnitName());

    // Without the "2" the failure stands.
    port.pnpText = pnpText("XCP1,KESTRAVA");
    port.queueReply(0xA0, "garbage");
    EXPECT_EQ(4, link->plugAndPlay());
}

TEST_F(XcpDetectTest, HuntingFindsTheRateOnTheFifthTry)
{
    script.install(port);
    port.answerSpeeds = {4800};
    ASSERT_EQ(1, link->portOpen());
    EXPECT_EQ(0, link->baudrateHunting());
    EXPECT_EQ(std::vector<int>({9600, 2400, 1200, 19200, 4800}), escapeSpeeds());
    EXPECT_EQ(4800, link->currentBaudrate());
    // Every rate: authentication, 0xA0, then "1" when 0xA0 failed.
    std::vector<int> expected;
    for (int i = 0; i < 4; ++i)
        expected.insert(expected.end(), {0xCF, 0xA0, 0x31});
    expected.insert(expected.end(), {0xCF, 0xA0});
    EXPECT_EQ(expected, port.codesWritten());
    ASSERT_FALSE(port.framesWithCode(0xCF).empty());
    std::string auth = port.framesWithCode(0xCF)[0];
    EXPECT_EQ("AB 04 CF 69 E8 D5", P::hex(auth.substr(0, 6)));
    EXPECT_EQ(7u, auth.size());

    // A UPS that answers only the old request is found with it.
    port.writes.clear();
    port.writeSpeeds.clear();
    port.answerSpeeds.clear();
    port.queueReply(0xA0, "");
    EXPECT_EQ(0, link->baudrateHunting());
    EXPECT_EQ(std::vector<int>({9600}), escapeSpeeds());
    EXPECT_EQ(std::vector<int>({0xCF, 0xA0, 0x31}), port.codesWritten());
}

TEST_F(XcpDetectTest, HuntingWithoutAnswerFailsWithTheLastCode)
{
    ASSERT_EQ(1, link->portOpen());
    EXPECT_EQ(6, link->baudrateHunting());
    EXPECT_EQ(std::vector<int>({9600, 2400, 1200, 19200, 4800, 600, 300}), escapeSpeeds());
    EXPECT_EQ(6, link->detect());
    EXPECT_EQ(1u, link->commandBuffer().size());
}

TEST_F(XcpDetectTest, CommandListCountMustMatch)
{
    ASSERT_EQ(1, link->portOpen());
    std::string list = P::bytes({10, 1, 0x31, 0x33, 0x34, 0x35, 0x36, 0x3B, 0x3C, 0x41, 0x42, 0x33});
    port.queueReply(0x40, P::reply(0x10, list));
    EXPECT_EQ(9, link->commandListBlockRequest());
    EXPECT_EQ(9u, link->supportedCommands().size());
    EXPECT_FALSE(link->isSupportCommand(0x89));

    script.commands = {0x31, 0x33};
    port.queueReply(0x40, P::reply(0x10, script.commandList()));
    EXPECT_EQ(0, link->commandListBlockRequest());
    EXPECT_TRUE(link->isSupportCommand(0x33));
    EXPECT_FALSE(link->isSupportCommand(0x34));
    // Unsupported block requests are skipped and count as success.
    const size_t writes = port.writes.size();
    EXPECT_EQ(0, link->standardMetersBlockRequest());
    EXPECT_EQ(writes, port.writes.size());
}

TEST_F(XcpDetectTest, CapabilitiesStepUpToTheFastestHigherSpeed)
{
    script.install(port);
    ASSERT_EQ(1, link->portOpen());
    port.answerSpeeds = {9600};
    ASSERT_EQ(0, link->baudrateHunting());
    ASSERT_EQ(9600, link->currentBaudrate());
    port.answerSpeeds.clear();

    script.capSpeeds = {2400, 9600, 19200};
    script.maxCommandLength = 12;
    port.queueReply(0x42, P::reply(0x12, script.capabilities()));
    port.writes.clear();
    EXPECT_EQ(0, link->communicationCapabilitiesBlockRequest());
    EXPECT_EQ("AB 02 42 00", P::hex(port.writes.at(0).substr(0, 4)));
    auto steps = port.framesWithCode(0x98);
    ASSERT_EQ(1u, steps.size());
    EXPECT_EQ("AB 05 98 00 01 00 4B", P::hex(steps[0].substr(0, 7)));
    EXPECT_EQ(19200, port.getSpeed());
    EXPECT_EQ(12, link->maxCommandLength());

    // Nothing above the current rate: nothing tried.
    script.capSpeeds = {2400, 9600};
    port.queueReply(0x42, P::reply(0x12, script.capabilities()));
    port.writes.clear();
    EXPECT_EQ(0, link->communicationCapabilitiesBlockRequest());
    EXPECT_TRUE(port.framesWithCode(0x98).empty());

    // An unacknowledged step-up still switches the local speed.
    script.capSpeeds = {19200, 4800, 38400};
    port.queueReply(0x42, P::reply(0x12, script.capabilities()));
    port.queueReply(0x98, "");
    EXPECT_EQ(0, link->communicationCapabilitiesBlockRequest());
    EXPECT_EQ(38400, port.getSpeed());
}

TEST_F(XcpDetectTest, DetectionRunsTheStepsAndRecordsTheIdentity)
{
    script.install(port);
    EXPECT_EQ(0, link->detect());
    EXPECT_EQ(7, link->portDescriptor());
    EXPECT_EQ(0, ups->portAlert());

    std::vector<int> codes = port.codesWritten();
    std::vector<int> expected = {0xCF, 0xA0,                                  // hunting at 9600
                                 0x40, 0x42, 0xCF, 0x98,                      // list, step-up
                                 0x36, 0x3C, 0x43, 0x41,                      // static blocks
                                 0xCF, 0x97, 0xCF, 0x97,                      // outlet parameters
                                 0xCF, 0x93, 0xCF, 0x89, 0xCF, 0x93, 0xCF, 0x89};
    EXPECT_EQ(expected, codes);
    auto params = port.framesWithCode(0x97);
    ASSERT_EQ(2u, params.size());
    EXPECT_EQ("AB 05 97 02 01 00 00", P::hex(params[0].substr(0, 7)));
    EXPECT_EQ("AB 05 97 02 02 00 00", P::hex(params[1].substr(0, 7)));
    EXPECT_EQ("AB 04 93 00 00 02", P::hex(port.framesWithCode(0x93)[1].substr(0, 6)));
    EXPECT_EQ("AB 02 89 02", P::hex(port.framesWithCode(0x89)[1].substr(0, 4)));

    EXPECT_EQ("2.15(230-KS)", config->getConf("UPSFirmWare"));
    EXPECT_EQ("SN-0042", config->getConf("UPSSerial"));
    EXPECT_EQ("Test UPS 1500", config->getConf("ModelName"));
    std::string ini = iniText();
    EXPECT_NE(std::string::npos, ini.find("UPSFirmWare= 2.15(230-KS)"));
    EXPECT_NE(std::string::npos, ini.find("UPSSerial= SN-0042"));
    EXPECT_NE(std::string::npos, ini.find("ModelName= Test UPS 1500"));
    EXPECT_NE(std::string::npos, ini.find("# test"));
}

TEST_F(XcpDetectTest, DetectionSkipsUnlistedCommandsAndStopsAtFailures)
{
    script.commands = {0x31, 0x33, 0x34, 0x35, 0x36, 0x3B, 0x3C, 0x40, 0x41, 0x42, 0x43, 0x8A, 0xA0, 0xCF};
    script.install(port);
    EXPECT_EQ(0, link->detect());
    EXPECT_TRUE(port.framesWithCode(0x97).empty());
    EXPECT_TRUE(port.framesWithCode(0x93).empty());
    EXPECT_TRUE(port.framesWithCode(0x89).empty());
    EXPECT_TRUE(port.framesWithCode(0x98).empty());

    // An outlet command that is not echoed ends detection with 7.
    XcpUpsScript full;
    port.clearReplies();
    full.install(port);
    port.queueReply(0x93, P::actionReply(0x89));
    EXPECT_EQ(7, link->detect());
    EXPECT_TRUE(port.framesWithCode(0x89).empty());
}

TEST_F(XcpDetectTest, PollingReadsTheBlocksInOrder)
{
    script.install(port);
    ASSERT_EQ(0, link->detect());
    port.writes.clear();
    EXPECT_EQ(0, link->polling());
    EXPECT_EQ(std::vector<int>({0x35, 0x34, 0x33, 0x41, 0x3B}), port.codesWritten());
    EXPECT_EQ(1800000000, ups->lastCheckTime(0));
    EXPECT_EQ("\"230.0\",\"230.1\",\"54.2\",\"50.0\",\"450.0\",\"25.0\"", ups->getMeterMessage());

    // The first failure ends the poll without the alarm check.
    clock.advance(10);
    port.writes.clear();
    port.queueReply(0x33, "");
    EXPECT_EQ(6, link->polling());
    EXPECT_EQ(std::vector<int>({0x35, 0x34, 0x33}), port.codesWritten());
    EXPECT_EQ(1800000000, ups->lastCheckTime(0));
}

TEST_F(XcpDetectTest, PollResultsReportAlarmChangesOnce)
{
    script.install(port);
    ASSERT_EQ(0, link->detect());
    _NOTIFYMSGINFO nt;
    auto items = [&nt]() { return std::vector<int>(nt.params, nt.params + nt.count); };

    ASSERT_EQ(0, link->polling());
    link->checkNotify(&nt);
    EXPECT_EQ(2002, nt.code);
    EXPECT_EQ(std::vector<int>({4, 2, 0, 1, 8}), items());  // outlets came on
    ASSERT_EQ(0, link->polling());
    link->checkNotify(&nt);
    EXPECT_EQ(std::vector<int>({4, 2, 0, 0, 8}), items());

    script.activeAlarms = {59};
    script.updateAlarms(port);
    ASSERT_EQ(0, link->polling());
    link->checkNotify(&nt);
    EXPECT_EQ(std::vector<int>({4, 3, 0, 0, 14, 8}), items());
    ASSERT_EQ(0, link->polling());
    link->checkNotify(&nt);
    EXPECT_EQ(std::vector<int>({4, 3, 0, 0, 8}), items());

    script.activeAlarms = {56, 57};
    script.outletState = 0;
    script.install(port);
    ASSERT_EQ(0, link->polling());
    link->checkNotify(&nt);
    EXPECT_EQ(std::vector<int>({5, 3, 0, 1, 16, 357, 15, 8}), items());

    script.activeAlarms = {};
    script.updateAlarms(port);
    ASSERT_EQ(0, link->polling());
    link->checkNotify(&nt);
    EXPECT_EQ(std::vector<int>({4, 2, 0, 0, 17, 657, 8}), items());
}
} // namespace
