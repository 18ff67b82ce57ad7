// Detection and polling of the UPS on a scripted serial line.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tests/fakes/TempDir.h"
#include "tests/fakes/XcpLinkRig.h"
#include "tests/fakes/XcpUpsScript.h"

namespace {
using P = ScriptedSerialPort;
using Codes = std::vector<int>;

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
        writeFile(home.file("Kestrava.ini"), "# test\nUPSController=1\nDeviceName=/dev/ttyS9\nUPSFirmWare=\n"
                                             "UPSSerial=\nModelName=\nShutdownDelay1=120\nAppTermTimeOut1=180\n");
        config.reset(new FileMap(home.file("Kestrava.ini")));
        wire();
        script.install(port);
    }
    void forget() { port.writes.clear(), port.writeSpeeds.clear(); }
    // Speeds at which the escape byte was written (one per rate tried).
    Codes escapeSpeeds()
    {
        Codes out;
        for (size_t i = 0; i < port.writes.size(); ++i)
            if (port.writes[i] == "\x1b")
                out.push_back(port.writeSpeeds[i]);
        return out;
    }

    TempDir home{"kestrava-xcp-"};
    XcpUpsScript script;
};

TEST_F(XcpDetectTest, PlugAndPlay)
{
    port.dsrFollowsDtr = true;
    std::string text = pnpText("XCP1,KESTRAVA");
    text[3] = static_cast<char>(text[3] | 0x80);  // bit 7 on the line is ignored
    port.pnpText = text;
    ASSERT_EQ(1, link->portOpen());
    EXPECT_EQ(0, link->plugAndPlay());
    EXPECT_EQ(std::make_pair(1200, 1200), std::make_pair(port.getSpeed(), link->currentBaudrate()));
    EXPECT_EQ("Test UPS 1500", ups->getUnitName());
    EXPECT_EQ(Codes{0xA0}, port.codesWritten());  // identified without hunting

    // Protocol 2: a failed 0xA0 falls back to the old request; protocol 1 stands.
    forget();
    port.pnpText = pnpText("XCP2,KESTRAVA");
    port.queueReply(0xA0, "garbage");
    EXPECT_EQ(0, link->plugAndPlay());
    EXPECT_EQ((Codes{0xA0, 0x31}), port.codesWritten());
    port.pnpText = pnpText("XCP1,KESTRAVA");
    port.queueReply(0xA0, "garbage");
    EXPECT_EQ(4, link->plugAndPlay());

    // A bad sum or no DSR fails without a write; identification then hunts.
    forget();
    std::string bad = pnpText("XCP1,KESTRAVA");
    bad[bad.size() - 2] = bad[bad.size() - 2] == '0' ? '1' : '0';
    port.pnpText = bad;
    EXPECT_EQ(7, link->plugAndPlay());
    port.dsrFollowsDtr = false;
    EXPECT_EQ(4, link->plugAndPlay());
    EXPECT_TRUE(port.writes.empty());
    port.dsrFollowsDtr = true;
    EXPECT_EQ(0, link->standardIDBlockRequest());
    EXPECT_EQ(Codes{9600}, escapeSpeeds());
}

TEST_F(XcpDetectTest, HuntingTriesTheRatesInOrder)
{
    ASSERT_EQ(1, link->portOpen());
    port.answerSpeeds = {50};  // never answers
    EXPECT_EQ(6, link->baudrateHunting());
    EXPECT_EQ((Codes{9600, 2400, 1200, 19200, 4800, 600, 300}), escapeSpeeds());
    // Every rate: authentication, 0xA0, then "1" when 0xA0 failed.
    const Codes codes = port.codesWritten();
    ASSERT_EQ(21u, codes.size());
    EXPECT_EQ((Codes{0xCF, 0xA0, 0x31}), Codes(codes.begin() + 18, codes.end()));
}

TEST_F(XcpDetectTest, CommandListCountMustMatch)
{
    ASSERT_EQ(1, link->portOpen());
    // Ten announced, nine distinct: 9.
    port.queueReply(0x40, P::reply(0x10, P::bytes({10, 1, 0x31, 0x33, 0x34, 0x35, 0x36, 0x3B, 0x3C, 0x41, 0x42, 0x33})));
    EXPECT_EQ(9, link->commandListBlockRequest());

    script.commands = {0x31, 0x33};
    port.queueReply(0x40, P::reply(0x10, script.commandList()));
    EXPECT_EQ(0, link->commandListBlockRequest());
    EXPECT_TRUE(link->isSupportCommand(0x33) && !link->isSupportCommand(0x34));
    // Unsupported block requests are skipped and count as success.
    const size_t writes = port.writes.size();
    EXPECT_EQ(0, link->standardMetersBlockRequest());
    EXPECT_EQ(writes, port.writes.size());
}

TEST_F(XcpDetectTest, CapabilitiesStepUpToTheFastestHigherSpeed)
{
    ASSERT_EQ(1, link->portOpen());
    port.answerSpeeds = {9600};
    ASSERT_EQ(0, link->baudrateHunting());
    port.answerSpeeds.clear();

    auto offer = [this](std::vector<int> speeds) {
        script.capSpeeds = speeds;
        port.queueReply(0x42, P::reply(0x12, script.capabilities()));
        forget();
        return link->communicationCapabilitiesBlockRequest();
    };
    script.maxCommandLength = 12;
    EXPECT_EQ(0, offer({2400, 9600, 19200}));
    EXPECT_EQ("AB 02 42 00", P::hex(port.writes.at(0).substr(0, 4)));
    EXPECT_EQ(1u, port.framesWithCode(0x98).size());
    EXPECT_EQ(std::make_pair(19200, 12), std::make_pair(port.getSpeed(), int(link->maxCommandLength())));
    EXPECT_EQ(0, offer({2400, 9600}));  // nothing higher: nothing tried
    EXPECT_TRUE(port.framesWithCode(0x98).empty());
    port.queueReply(0x98, "");  // an unacknowledged step-up still switches
    EXPECT_EQ(0, offer({19200, 4800, 38400}));
    EXPECT_EQ(38400, port.getSpeed());
}

TEST_F(XcpDetectTest, DetectionRunsTheStepsRecordsTheIdentityAndStopsAtFailures)
{
    EXPECT_EQ(0, link->detect());
    EXPECT_EQ(0, ups->portAlert());
    const Codes expected = {0xCF, 0xA0,                                  // hunting at 9600
                            0x40, 0x42, 0xCF, 0x98,                      // list, step-up
                            0x36, 0x3C, 0x43, 0x41,                      // static blocks
                            0xCF, 0x97, 0xCF, 0x97,                      // outlet parameters
                            0xCF, 0x93, 0xCF, 0x89, 0xCF, 0x93, 0xCF, 0x89};
    EXPECT_EQ(expected, port.codesWritten());
    for (int outlet : {1, 2})
        EXPECT_EQ("AB 05 97 02 0" + std::to_string(outlet) + " 00 00", P::hex(port.framesWithCode(0x97).at(outlet - 1).substr(0, 7)));

    const std::string ini = home.read("Kestrava.ini");
    for (const char* line : {"UPSFirmWare= 2.15(230-KS)", "UPSSerial= SN-0042", "ModelName= Test UPS 1500", "# test"})
        EXPECT_NE(std::string::npos, ini.find(line)) << line;
    EXPECT_EQ("SN-0042", config->getConf("UPSSerial"));

    // An outlet command that is not echoed ends detection with 7.
    forget();
    port.queueReply(0x93, P::actionReply(0x89));
    EXPECT_EQ(7, link->detect());
    EXPECT_TRUE(port.framesWithCode(0x89).empty());

    // Nothing answers at any rate: the hunt's last code.
    port.clearReplies();
    EXPECT_EQ(6, link->detect());
}

TEST_F(XcpDetectTest, PollingReadsTheBlocksInOrderAndReportsAlarmChangesOnce)
{
    ASSERT_EQ(0, link->detect());
    forget();
    // One poll; the 2002 notification's items.
    auto poll = [this]() {
        EXPECT_EQ(0, link->polling());
        _NOTIFYMSGINFO nt;
        link->checkNotify(&nt);
        EXPECT_EQ(2002, nt.code);
        return Codes(nt.params, nt.params + nt.count);
    };
    EXPECT_EQ((Codes{4, 2, 0, 1, 8}), poll());  // outlets came on
    EXPECT_EQ((Codes{0x35, 0x34, 0x33, 0x41, 0x3B}), port.codesWritten());
    EXPECT_EQ(1800000000, ups->lastCheckTime(0));
    EXPECT_EQ("\"230.0\",\"230.1\",\"54.2\",\"50.0\",\"450.0\",\"25.0\"", ups->getMeterMessage());
    script.activeAlarms = {59};
    script.updateAlarms(port);
    EXPECT_EQ((Codes{4, 3, 0, 0, 14, 8}), poll());
    EXPECT_EQ((Codes{4, 3, 0, 0, 8}), poll());  // no change: five items
    script.activeAlarms = {56, 57};
    script.outletState = 0;
    script.install(port);
    EXPECT_EQ((Codes{5, 3, 0, 1, 16, 357, 15, 8}), poll());
    script.activeAlarms = {};
    script.updateAlarms(port);
    EXPECT_EQ((Codes{4, 2, 0, 0, 17, 657, 8}), poll());

    // The first failure ends the poll without the alarm check.
    clock.advance(10);
    port.queueReply(0x33, "");
    EXPECT_EQ(6, link->polling());
    EXPECT_EQ(1800000000, ups->lastCheckTime(0));
}
} // namespace
