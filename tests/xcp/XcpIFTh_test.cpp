// The serial link of the UPS interface: port set-up, framing, reply
// collection and checking, and the handling of the link's events.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/fakes/EventRecords.h"
#include "tests/fakes/XcpLinkRig.h"
#include "tests/fakes/XcpUpsScript.h"

namespace {
using P = ScriptedSerialPort;

class XcpLinkTest : public ::testing::Test, public XcpLinkRig {
protected:
    void SetUp() override { wire(); }
    // Opens the port if needed and sends one request; the exchange's result.
    int exchange(unsigned char code, std::string* reply)
    {
        if (link->portDescriptor() < 0) {
            EXPECT_EQ(1, link->portOpen());
        }
        link->commandBuffer().push_back(static_cast<char>(code));
        return link->communicateUps(reply);
    }
    // Runs one link event; the events the controller queued for it.
    std::vector<std::string> run(int event)
    {
        events->setXcpEvent(event);
        link->commStart();
        return drainDescribed(*ctrl);
    }
    // Runs one link event; true when it (re)started the timer with that id
    // (1: detect again, 2: poll).
    bool runStarts(int event, int timerId)
    {
        for (const std::string& e : run(event))
            if (e.rfind("0:EvTimerStart(100):" + std::to_string(timerId) + ",", 0) == 0)
                return true;
        return false;
    }
};

TEST_F(XcpLinkTest, PortOpenSetsUpTheConfiguredDevice)
{
    // Nothing goes out on a closed port; the port alert is raised.
    std::string reply;
    link->commandBuffer().push_back(0x33);
    const int sent = link->sendCommand(), alert = ups->portAlert();
    EXPECT_EQ(std::vector<int>({1, 1, 1, 1}), std::vector<int>({sent, alert, link->recvData(&reply), link->sendCommand("\x1b", 1)}));
    EXPECT_TRUE(port.writes.empty());

    EXPECT_EQ(1, link->portOpen());
    EXPECT_EQ(std::vector<std::string>{"/dev/ttyS9"}, port.openedPaths);
    EXPECT_TRUE(port.rts);
    link->portClose();  // lowers RTS, keeps the descriptor value
    EXPECT_FALSE(port.rts);
    EXPECT_EQ(7, link->portDescriptor());

    port.openResult = -1;
    EXPECT_EQ(0, link->portOpen());
    EXPECT_EQ(-1, link->portDescriptor());
    port.openResult = 7;
    port.rawFails = true;
    EXPECT_EQ(0, link->portOpen());
}

TEST_F(XcpLinkTest, FramesCarryLengthAndChecksumWithinTheLimit)
{
    ASSERT_EQ(1, link->portOpen());
    link->commandBuffer().push_back(0x31);
    const long before = port.nowMs();
    EXPECT_EQ(0, link->sendCommand());
    EXPECT_EQ("AB 01 31 23", P::hex(port.writes.at(0)));
    EXPECT_EQ(500, port.nowMs() - before);  // the write pause
    EXPECT_EQ(1, link->sendCommand("\x1b", 1));  // raw bytes go out unframed
    EXPECT_EQ("1B", P::hex(port.writes.at(1)));

    // Code and four argument bytes make exactly the 8-byte limit; one more is refused.
    ASSERT_EQ(8, link->maxCommandLength());
    std::string reply;
    link->commandBuffer().resize(1);  // the start byte
    link->commandBuffer() += P::bytes({0x97, 1, 2, 3, 4});
    EXPECT_EQ(6, link->communicateUps(&reply));  // written, no answer
    EXPECT_EQ(8u, port.writes.at(2).size());
    link->commandBuffer() += P::bytes({0x97, 1, 2, 3, 4, 5});
    EXPECT_EQ(2, link->communicateUps(&reply));
    EXPECT_EQ(3u, port.writes.size());
    EXPECT_EQ(1u, link->commandBuffer().size());
    port.shortWriteBy = 1;
    EXPECT_EQ(3, exchange(0x33, &reply));
}

TEST_F(XcpLinkTest, RepliesAreCheckedFrameByFrame)
{
    std::string reply;
    port.queueReply(0x34, P::frame(4, 0x01, "abc") + P::frame(4, 0x02, "de") + P::frame(4, 0x83, "f"));
    EXPECT_EQ(0, exchange(0x34, &reply));
    EXPECT_EQ("abcdef", reply);
    EXPECT_EQ(1u, link->commandBuffer().size()); // only the start byte is left

    // Sequence gap, a lone frame without 0x81, no start byte first, wrong block, bad checksum.
    std::string badSum = P::reply(4, "ab");
    badSum.back() = static_cast<char>(badSum.back() + 1);
    const std::pair<std::string, int> bad[] = {{P::frame(4, 0x01, "ab") + P::frame(4, 0x03, "cd"), 8},
                                               {P::frame(4, 0x01, "ab"), 4}, {"\x01" + P::reply(4, "ab"), 4},
                                               {P::reply(5, "ab"), 5}, {badSum, 7}};
    for (const auto& b : bad) {
        port.queueReply(0x34, b.first);
        EXPECT_EQ(b.second, exchange(0x34, &reply)) << P::hex(b.first);
    }

    // Empty data and a checksum of 0 are not errors:
    // 0xAB + 3 + 2 + 0x81 + 0x01 + x = 0 mod 256 -> x = 0xCE.
    port.queueReply(0x33, P::reply(3, ""));
    EXPECT_EQ(0, exchange(0x33, &reply));
    const std::string data = P::bytes({0x01, 0xCE});
    ASSERT_EQ(0, P::reply(3, data).back());
    port.queueReply(0x33, P::reply(3, data));
    reply.clear();
    EXPECT_EQ(0, exchange(0x33, &reply));
    EXPECT_EQ(data, reply);
}

TEST_F(XcpLinkTest, SilenceLateAndTrickledReplies)
{
    ASSERT_EQ(1, link->portOpen());
    std::string reply;
    long before = port.nowMs();
    EXPECT_EQ(6, exchange(0x33, &reply));
    // 500 ms write pause, 40 retries of 50 ms, 150 ms after the exchange.
    EXPECT_EQ(500 + 40 * 50 + 150, port.nowMs() - before);
    port.readFails = true;  // a read error counts as nothing read
    EXPECT_EQ(6, exchange(0x33, &reply));
    port.readFails = false;

    port.queueReply(0x33, P::reply(3, "late"), 500 + 1900);  // within the 40 retries
    EXPECT_EQ(0, exchange(0x33, &reply));
    EXPECT_EQ("late", reply);
    P::Reply slow;
    slow.bytes = P::reply(3, std::string(200, 'x'));
    slow.chunk = 3;
    port.queueReply(0x33, slow);
    reply.clear();
    EXPECT_EQ(0, exchange(0x33, &reply));
    EXPECT_EQ(std::string(200, 'x'), reply);
    port.queueReply(0x33, P::reply(3, "0123456789").substr(0, 8));  // stays incomplete
    before = port.nowMs();
    EXPECT_EQ(6, exchange(0x33, &reply));
    EXPECT_GE(port.nowMs() - before, 100 * 50);
}

// The windows block on the line: a handful of reads and waits per exchange
// (a 50 ms polling loop makes dozens), with their limits unchanged.
TEST_F(XcpLinkTest, WindowsWaitOnTheLineAndKeepTheirLimits)
{
    ASSERT_EQ(1, link->portOpen());
    std::string reply;
    // {reply, result, reads, waits, time}: the count of read() and
    // waitReadable() calls and the virtual time of one exchange.
    auto measure = [&](const P::Reply& r) {
        port.queueReply(0x33, r);
        port.reads = port.waits = 0;
        reply.clear();
        const long before = port.nowMs();
        const int result = exchange(0x33, &reply);
        port.flush();  // bytes that came too late must not answer the next exchange
        return std::vector<long>{result, port.reads, port.waits, port.nowMs() - before};
    };
    const std::string full = P::reply(3, "abc");
    EXPECT_EQ(std::vector<long>({0, 2, 0, 500 + 500 + 150}), measure(P::Reply{full}));
    EXPECT_EQ(std::vector<long>({6, 1, 1, 500 + 2000 + 150}), measure(P::Reply{""}));
    // First bytes just at the 2 s limit still count; a millisecond later not.
    EXPECT_EQ(std::vector<long>({0, 3, 1, 500 + 2000 + 500 + 150}), measure(P::Reply{full, 500 + 2000}));
    EXPECT_EQ(6, measure(P::Reply{full, 500 + 2001})[0]);
    // The rest of a frame must come before the 5 s limit, which starts after
    // the write pause and the collecting window.
    EXPECT_EQ(std::vector<long>({0, 3, 1, 500 + 500 + 4999 + 150}), measure(P::Reply{full, 0, 4, 1000 + 4999}));
    EXPECT_EQ(std::vector<long>({6, 2, 1, 500 + 500 + 5000 + 150}), measure(P::Reply{full, 0, 4, 1000 + 5000}));
    // A genuine zero checksum costs one 50 ms wait; a failing line ends the
    // wait at once instead of spinning on it.
    const std::vector<long> zeroSum = measure(P::Reply{P::reply(3, P::bytes({0x01, 0xCE}))});
    EXPECT_EQ(std::vector<long>({0, 3, 1, 500 + 500 + 50 + 150}), zeroSum);
    port.readFails = true;
    EXPECT_EQ(std::vector<long>({6, 2, 1, 500 + 150}), measure(P::Reply{""}));
    port.readFails = false;

    // Twelve pieces of two bytes 120 ms apart, across the collecting window
    // (five read at its start, four at its end) and the frame's wait (one
    // wait and one read for each of the last three).
    const std::string data = "0123456789abcdefghi";
    const std::vector<long> pieces = measure(P::Reply{P::reply(3, data), 0, 2, 120});
    EXPECT_EQ(data, reply);
    EXPECT_EQ(std::vector<long>({0, 2 + 3, 3, 11 * 120 + 150}), pieces);
}

TEST_F(XcpLinkTest, ReplyLongerThanTheBufferIsCut)
{
    // Six full frames: the fifth would end beyond the 1210-byte buffer; four fit.
    for (int frames : {6, 4}) {
        std::string big;
        for (int seq = 1; seq <= frames; ++seq)
            big += P::frame(4, seq == frames ? 0x80 + seq : seq, std::string(255, static_cast<char>('a' + seq)));
        port.queueReply(0x34, big);
        std::string reply;
        EXPECT_EQ(frames == 6 ? 6 : 0, exchange(0x34, &reply));
        EXPECT_EQ(4u * 255u, reply.size());
    }
}

TEST_F(XcpLinkTest, DetectAndPollEventsReportTheOutcome)
{
    using State = std::pair<int, int>; // UPS state, communication alert
    EXPECT_TRUE(runStarts(200, 1));    // detection, nothing answers
    EXPECT_EQ(State(1, 1), State(ctrl->GetStateUPS(), ups->commAlert()));
    XcpUpsScript script;
    script.install(port);
    EXPECT_TRUE(runStarts(200, 2));
    EXPECT_TRUE(runStarts(201, 2)); // a good poll: polling goes on
    EXPECT_EQ(State(2, 0), State(ctrl->GetStateUPS(), ups->commAlert()));
    port.clearReplies();
    EXPECT_TRUE(runStarts(201, 1)); // a failed poll: communication error
    EXPECT_EQ(State(3, 1), State(ctrl->GetStateUPS(), ups->commAlert()));
}

TEST_F(XcpLinkTest, RedetectEventOpensThePortOrDetectsAndTheStopReopensALostOne)
{
    ctrl->Set_State_UPS(3);
    port.openResult = -1;
    EXPECT_TRUE(runStarts(203, 1));  // open fails: 2005, detect timer again
    EXPECT_EQ(1, ups->portAlert());
    port.openResult = 7;
    EXPECT_TRUE(runStarts(203, 2));  // opened: 2006 restores the link without detection
    EXPECT_EQ(0, ups->portAlert());
    EXPECT_EQ(2, ctrl->GetStateUPS());
    EXPECT_TRUE(port.writes.empty());

    // Port open: detection decides.
    ctrl->Set_State_UPS(3);
    EXPECT_TRUE(runStarts(203, 1));  // silent UPS: 2005
    XcpUpsScript script;
    script.install(port);
    EXPECT_TRUE(runStarts(203, 2));
    EXPECT_EQ(2, ctrl->GetStateUPS());

    // The stop opens a lost line again at the speed it had.
    port.hungUp = true;
    EXPECT_TRUE(run(202).empty());
    EXPECT_EQ(3u, port.openedPaths.size());
    EXPECT_EQ(19200, port.writeSpeeds.back());
    EXPECT_EQ(1u, port.framesWithCode(0x8A).size());
}

TEST_F(XcpLinkTest, StopEventRepeatsUntilAcceptedAndPostsNothing)
{
    ASSERT_EQ(1, link->portOpen());
    port.queueReply(0x8A, "");  // two silent attempts, then the UPS accepts
    port.queueReply(0x8A, "");
    port.queueReply(0x8A, P::actionReply(0x8A));
    EXPECT_TRUE(run(202).empty());
    EXPECT_EQ(3u, port.framesWithCode(0x8A).size());
    EXPECT_EQ(3u, port.framesWithCode(0xCF).size());

    const size_t writes = port.writes.size();
    EXPECT_TRUE(run(777).empty());  // unknown events are dropped
    EXPECT_EQ(writes, port.writes.size());
}
} // namespace
