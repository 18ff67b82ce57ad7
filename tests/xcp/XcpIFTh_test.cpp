// The serial link of the UPS interface: port set-up, framing, reply
// collection and checking, and the handling of the link's events.
#include <gtest/gtest.h>

#include <memory>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ScriptedSerialPort.h"
#include "tests/fakes/XcpLinkRig.h"
#include "tests/fakes/XcpUpsScript.h"
#include "xcp/UpsDataBlock.h"
#include "xcp/XcpIFTh.h"
#include "xcp/XcpTh.h"

namespace {
using P = ScriptedSerialPort;

class XcpLinkTest : public ::testing::Test, public XcpLinkRig {
protected:
    void SetUp() override
    {
        config.reset(new FileMap());
        config->setConf("DeviceName", "/dev/ttyS9");
        wire();
    }

    // Opens the port and sends one request with the given code and
    // arguments; returns the exchange's result.
    int exchange(unsigned char code, const std::string& args, std::string* reply)
    {
        if (link->portDescriptor() < 0) {
            EXPECT_EQ(1, link->portOpen());
        }
        link->commandBuffer().push_back(static_cast<char>(code));
        link->commandBuffer() += args;
        return link->communicateUps(reply);
    }

    // Events the controller queued, by code.
    std::vector<EVENTMSGINFO> drain() { return drainEvents(*ctrl); }
    static bool hasTimerStart(const std::vector<EVENTMSGINFO>& evs, int id)
    {
        for (const EVENTMSGINFO& e : evs)
            if (e.to == 0 && e.code == 100 && e.params[0] == id)
                return true;
        return false;
    }
};

TEST_F(XcpLinkTest, PortOpenSetsUpTheConfiguredDevice)
{
    EXPECT_EQ(-1, link->portDescriptor());
    EXPECT_EQ(1, link->portOpen());
    ASSERT_EQ(1u, port.openedPaths.size());
    EXPECT_EQ("/dev/ttyS9", port.openedPaths[0]);
    EXPECT_EQ(7, link->portDescriptor());
    EXPECT_TRUE(port.rts);
    EXPECT_GE(port.flushes, 2);

    // Closing lowers RTS and keeps the descriptor value.
    link->portClose();
    EXPECT_FALSE(port.rts);
    EXPECT_EQ(7, link->portDescriptor());

    port.openResult = -1;
    EXPECT_EQ(0, link->portOpen());
    EXPECT_EQ(-1, link->portDescriptor());

    port.openResult = 7;
    port.rawFails = true;
    EXPECT_EQ(0, link->portOpen());
}

TEST_F(XcpLinkTest, ModemLinesNeedAnOpenPort)
{
    int status = 0;
    EXPECT_FALSE(link->setRTS(true));
    EXPECT_FALSE(link->setDTR(true));
    EXPECT_FALSE(link->getModemStatus(&status));
    ASSERT_EQ(1, link->portOpen());
    port.modemStatus = 0xF0;
    EXPECT_TRUE(link->setDTR(true));
    EXPECT_TRUE(port.dtr);
    EXPECT_TRUE(link->getModemStatus(&status));
    EXPECT_EQ(0xF0, status);
    port.modemStatusFails = true;
    EXPECT_FALSE(link->getModemStatus(&status));
}

TEST_F(XcpLinkTest, UnknownSpeedSelectsHangUp)
{
    ASSERT_EQ(1, link->portOpen());
    link->setBaudrate(4800);
    EXPECT_EQ(4800, port.getSpeed());
    link->setBaudrate(57600);
    EXPECT_EQ(0, port.getSpeed());
}

TEST_F(XcpLinkTest, FrameCarriesLengthAndChecksum)
{
    ASSERT_EQ(1, link->portOpen());
    link->commandBuffer().push_back(0x31);
    const long before = port.nowMs();
    EXPECT_EQ(0, link->sendCommand());
    ASSERT_EQ(1u, port.writes.size());
    EXPECT_EQ("AB 01 31 23", P::hex(port.writes[0]));
    EXPECT_EQ(500, port.nowMs() - before);  // the write pause

    // Raw bytes go out unframed.
    EXPECT_EQ(1, link->sendCommand("\x1b", 1));
    EXPECT_EQ("1B", P::hex(port.writes[1]));
}

TEST_F(XcpLinkTest, FrameLongerThanTheLimitIsNotWritten)
{
    ASSERT_EQ(1, link->portOpen());
    ASSERT_EQ(8, link->maxCommandLength());
    std::string reply;
    // Code and four argument bytes: exactly 8 bytes with start, length, checksum.
    link->commandBuffer() += P::bytes({0x97, 1, 2, 3, 4});
    EXPECT_EQ(6, link->communicateUps(&reply));  // written, no answer
    ASSERT_EQ(1u, port.writes.size());
    EXPECT_EQ(8u, port.writes[0].size());
    link->commandBuffer() += P::bytes({0x97, 1, 2, 3, 4, 5});
    EXPECT_EQ(2, link->communicateUps(&reply));
    EXPECT_EQ(1u, port.writes.size());
    EXPECT_EQ(1u, link->commandBuffer().size());
}

TEST_F(XcpLinkTest, ClosedPortAndShortWrite)
{
    std::string reply;
    link->commandBuffer().push_back(0x33);
    EXPECT_EQ(1, link->sendCommand());
    EXPECT_EQ(1, ups->portAlert());
    EXPECT_EQ(1, link->recvData(&reply));
    EXPECT_EQ(1, link->sendCommand("\x1b", 1));
    EXPECT_TRUE(port.writes.empty());
    link->flush();

    port.shortWriteBy = 1;
    EXPECT_EQ(3, exchange(0x33, "", &reply));
}

TEST_F(XcpLinkTest, ThreeFramesAreConcatenated)
{
    port.queueReply(0x34, P::frame(4, 0x01, "abc") + P::frame(4, 0x02, "de") + P::frame(4, 0x83, "f"));
    std::string reply;
    EXPECT_EQ(0, exchange(0x34, "", &reply));
    EXPECT_EQ("abcdef", reply);
    EXPECT_EQ(1u, link->commandBuffer().size());
}

TEST_F(XcpLinkTest, FrameErrorsGiveTheirCodes)
{
    std::string reply;
    // Sequence 1 then 3.
    port.queueReply(0x34, P::frame(4, 0x01, "ab") + P::frame(4, 0x03, "cd"));
    EXPECT_EQ(8, exchange(0x34, "", &reply));
    // A single frame must carry 0x81: after sequence 1 nothing follows.
    port.queueReply(0x34, P::frame(4, 0x01, "ab"));
    EXPECT_EQ(4, exchange(0x34, "", &reply));
    // No start byte first, even with a good frame behind it.
    port.queueReply(0x34, "\x01" + P::reply(4, "ab"));
    EXPECT_EQ(4, exchange(0x34, "", &reply));
    // Block 5 in reply to "4".
    port.queueReply(0x34, P::reply(5, "ab"));
    EXPECT_EQ(5, exchange(0x34, "", &reply));
    // Bad checksum.
    std::string bad = P::reply(4, "ab");
    bad.back() = static_cast<char>(bad.back() + 1);
    port.queueReply(0x34, bad);
    EXPECT_EQ(7, exchange(0x34, "", &reply));
    // Expected blocks of other codes.
    port.queueReply(0xA0, P::reply(1, "id"));
    port.queueReply(0x43, P::reply(0x13, "t"));
    port.queueReply(0x40, P::reply(0x10, "c"));
    port.queueReply(0x89, P::reply(9, "ok"));
    reply.clear();
    EXPECT_EQ(0, exchange(0xA0, "", &reply));
    EXPECT_EQ(0, exchange(0x43, "", &reply));
    EXPECT_EQ(0, exchange(0x40, "", &reply));
    EXPECT_EQ(0, exchange(0x89, "", &reply));
    EXPECT_EQ("idtcok", reply);
}

TEST_F(XcpLinkTest, SilenceTimesOutAfterTheRetries)
{
    ASSERT_EQ(1, link->portOpen());
    std::string reply;
    const long before = port.nowMs();
    EXPECT_EQ(6, exchange(0x33, "", &reply));
    // 500 ms write pause, 40 retries of 50 ms, 150 ms after the exchange.
    EXPECT_EQ(500 + 40 * 50 + 150, port.nowMs() - before);

    // A read error counts as nothing read.
    port.readFails = true;
    EXPECT_EQ(6, exchange(0x33, "", &reply));
}

TEST_F(XcpLinkTest, SlowAndLateRepliesAreCollected)
{
    std::string reply;
    // First byte only after 2 s: within the 40 retries.
    port.queueReply(0x33, P::reply(3, "late"), 500 + 1900);
    EXPECT_EQ(0, exchange(0x33, "", &reply));
    EXPECT_EQ("late", reply);

    // A long reply trickling in three bytes every 50 ms.
    P::Reply slow;
    slow.bytes = P::reply(3, std::string(200, 'x'));
    slow.chunk = 3;
    slow.gapMs = 50;
    port.queueReply(0x33, slow);
    reply.clear();
    EXPECT_EQ(0, exchange(0x33, "", &reply));
    EXPECT_EQ(std::string(200, 'x'), reply);

    // A frame that stays incomplete.
    std::string cut = P::reply(3, "0123456789");
    port.queueReply(0x33, cut.substr(0, 8));
    const long before = port.nowMs();
    EXPECT_EQ(6, exchange(0x33, "", &reply));
    EXPECT_GE(port.nowMs() - before, 100 * 50);
}

TEST_F(XcpLinkTest, ZeroBytesInHeaderAndChecksumAreNotErrors)
{
    // Empty data (length 0) and a checksum that happens to be 0.
    std::string reply;
    port.queueReply(0x33, P::reply(3, ""));
    EXPECT_EQ(0, exchange(0x33, "", &reply));
    std::string data = "\x01";
    // 0xAB + 3 + 2 + 0x81 + 0x01 + x = 0 mod 256 -> x = 0xCE.
    data.push_back(static_cast<char>(0xCE));
    std::string f = P::reply(3, data);
    ASSERT_EQ(0, static_cast<unsigned char>(f.back()));
    port.queueReply(0x33, f);
    EXPECT_EQ(0, exchange(0x33, "", &reply));
    EXPECT_EQ(data, reply);
}

TEST_F(XcpLinkTest, ReplyLongerThanTheBufferIsCut)
{
    // Six full frames: the fifth would end beyond the 1210-byte buffer.
    std::string big;
    for (int seq = 1; seq <= 6; ++seq)
        big += P::frame(4, seq == 6 ? 0x86 : seq, std::string(255, static_cast<char>('a' + seq)));
    port.queueReply(0x34, big);
    std::string reply;
    EXPECT_EQ(6, exchange(0x34, "", &reply));
    EXPECT_EQ(4u * 255u, reply.size());

    // Four full frames (1040 bytes) fit.
    std::string fits;
    for (int seq = 1; seq <= 4; ++seq)
        fits += P::frame(4, seq == 4 ? 0x84 : seq, std::string(255, 'z'));
    port.queueReply(0x34, fits);
    reply.clear();
    EXPECT_EQ(0, exchange(0x34, "", &reply));
    EXPECT_EQ(4u * 255u, reply.size());
}

TEST_F(XcpLinkTest, PollEventReportsResultOrCommunicationError)
{
    XcpUpsScript ups0;
    ups0.install(port);
    ctrl->Set_State_UPS(2);
    ASSERT_EQ(1, link->portOpen());

    events->setXcpEvent(201);
    link->commStart();
    auto evs = drain();
    EXPECT_TRUE(hasTimerStart(evs, 2));  // polling goes on
    EXPECT_EQ(2, ctrl->GetStateUPS());

    port.clearReplies();
    events->setXcpEvent(201);
    link->commStart();
    evs = drain();
    EXPECT_EQ(3, ctrl->GetStateUPS());
    EXPECT_TRUE(hasTimerStart(evs, 1));
    EXPECT_EQ(1, ups->commAlert());
    EXPECT_EQ(1800000000, ups->commAlertTime());
}

TEST_F(XcpLinkTest, DetectEventReportsFoundOrNotFound)
{
    events->setXcpEvent(200);
    link->commStart();  // nothing answers
    EXPECT_EQ(1, ctrl->GetStateUPS());
    EXPECT_TRUE(hasTimerStart(drain(), 1));
    EXPECT_EQ(1, ups->commAlert());

    XcpUpsScript ups0;
    ups0.install(port);
    events->setXcpEvent(200);
    link->commStart();
    EXPECT_EQ(2, ctrl->GetStateUPS());
    EXPECT_TRUE(hasTimerStart(drain(), 2));
    EXPECT_EQ(0, ups->commAlert());
    EXPECT_EQ(0, ups->commAlertTime());
}

TEST_F(XcpLinkTest, RedetectEventOpensThePortOrDetects)
{
    ctrl->Set_State_UPS(3);
    port.openResult = -1;
    events->setXcpEvent(203);
    link->commStart();  // open fails: 2005, detect timer again
    EXPECT_EQ(1, ups->portAlert());
    EXPECT_TRUE(hasTimerStart(drain(), 1));
    EXPECT_EQ(3, ctrl->GetStateUPS());

    port.openResult = 7;
    events->setXcpEvent(203);
    link->commStart();  // opened: 2006 restores the link
    EXPECT_EQ(0, ups->portAlert());
    EXPECT_EQ(2, ctrl->GetStateUPS());
    EXPECT_TRUE(hasTimerStart(drain(), 2));
    EXPECT_TRUE(port.writes.empty());  // no detection on this event

    // Port open: detection decides.
    ctrl->Set_State_UPS(3);
    events->setXcpEvent(203);
    link->commStart();  // silent UPS: 2005
    EXPECT_TRUE(hasTimerStart(drain(), 1));
    EXPECT_EQ(3, ctrl->GetStateUPS());
    XcpUpsScript ups0;
    ups0.install(port);
    ups->setCommAlert(false);
    events->setXcpEvent(203);
    link->commStart();
    EXPECT_EQ(2, ctrl->GetStateUPS());
    EXPECT_EQ(0, ups->commAlert());
}

TEST_F(XcpLinkTest, StopEventRepeatsUntilAcceptedAndPostsNothing)
{
    ASSERT_EQ(1, link->portOpen());
    // Two silent attempts, then the UPS accepts.
    port.queueReply(0x8A, "");
    port.queueReply(0x8A, "");
    port.queueReply(0x8A, P::actionReply(0x8A));
    events->setXcpEvent(202);
    link->commStart();
    EXPECT_EQ(3u, port.framesWithCode(0x8A).size());
    EXPECT_EQ(3u, port.framesWithCode(0xCF).size());
    EXPECT_TRUE(drain().empty());

    // Unknown events are dropped.
    const size_t writes = port.writes.size();
    events->setXcpEvent(777);
    link->commStart();
    EXPECT_EQ(writes, port.writes.size());
    EXPECT_TRUE(drain().empty());
}
} // namespace
