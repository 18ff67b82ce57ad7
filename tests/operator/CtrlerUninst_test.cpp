// The uninstall exchange on the in-memory network in virtual time (each pause lets the controllers
// answer), against our controller and scripted ones.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ipc/DG2Message.h"
#include "operator/CtrlerUninst.h"
#include "tests/fakes/ControllerProtocolRig.h"
#include "tests/fakes/DG2Builder.h"
#include "tests/fakes/FakeUdpNetwork.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Ints = std::vector<int>;
using Answer = std::function<std::vector<DG2MessageType>(const DG2MessageType& request, const UdpDatagramInfo& from)>;
const char kOwn[] = "127.0.0.5";
const int kAllPasses = CtrlerUninst::kMaxRequests * CtrlerUninst::kPolls;

// A controller: answers what reached its socket (no `answer`: silent).
struct Controller {
    std::unique_ptr<FakeUdpNetwork::Socket> socket;
    Answer answer;
    Ints received; // message numbers, in order

    void serve()
    {
        DG2MessageType m;
        UdpDatagramInfo from;
        while (std::memset(&m, 0, sizeof m), socket->receive(&m, sizeof m, from) == UdpStatus::Ok) {
            ASSERT_EQ(DG2CheckReceived(&m, from.size, DG2Role::Controller), DG2Drop::DG2Accepted);
            received.push_back(m.msgNo);
            for (const DG2MessageType& reply : answer ? answer(m, from) : std::vector<DG2MessageType>{}) {
                const std::string wire = DG2Builder(reply).wire();
                socket->send(wire.data(), wire.size(), from.address, from.port);
            }
        }
    }
};

struct Exchange {
    FakeUdpNetwork net;
    std::vector<std::unique_ptr<Controller>> controllers;
    std::function<void()> onPause;
    int pauses = 0;
    unsigned char results[4] = {9, 9, 9, 9};

    Controller& add(const char* address, uint16_t port, Answer answer)
    {
        controllers.emplace_back(new Controller{net.socket(), std::move(answer), {}});
        Controller& c = *controllers.back();
        EXPECT_TRUE(c.socket->open() == UdpStatus::Ok && c.socket->bind(address, port) == UdpStatus::Ok);
        return c;
    }
    int run(const std::vector<std::pair<std::string, uint16_t>>& list)
    {
        char addrs[4][32] = {}, own[32] = {};
        unsigned short ports[4] = {};
        for (size_t i = 0; i < list.size(); ++i)
            std::strncpy(addrs[i], list[i].first.c_str(), 31), ports[i] = list[i].second;
        std::strncpy(own, kOwn, 31);
        CtrlerUninst::Seams seams;
        seams.makeSocket = [this] { return std::unique_ptr<UdpSocket>(net.socket()); };
        seams.pause = [this](int ms) {
            EXPECT_EQ(ms, CtrlerUninst::kPollPauseMs);
            ++pauses;
            if (onPause)
                onPause();
            for (auto& c : controllers)
                c->serve();
        };
        return CtrlerUninst(seams).Uninst_func(uint8_t(list.size()), &addrs[0][0], ports, own, 3069, results);
    }
    std::vector<Bytes> sentByMember() const
    {
        std::vector<Bytes> out;
        for (const auto& d : net.sent())
            if (d.fromAddress == kOwn && d.fromPort == 3069)
                out.push_back(d.bytes);
        return out;
    }
};

// Answers 129 and 130 with the given results under the name 127.0.0.1.
Answer scripted(uint8_t result129, uint8_t result130 = 0)
{
    return [=](const DG2MessageType& m, const UdpDatagramInfo&) {
        return std::vector<DG2MessageType>{DG2Builder(m).result(m.msgNo == DG2::MsgPresence ? result129 : result130)
                                               .from("127.0.0.1", DG2::KindControllerAlt).to(kOwn, DG2::KindMember)
                                               .msg()};
    };
}

// The request byte by byte: controller's address at 6, the member's at 40,
// kinds 17 and 81, all else zero; 130 carries the member's address and port.
Bytes expectedRequest(uint8_t msg)
{
    Bytes b(DG2::kHeaderSize + (msg == DG2::MsgUninstall ? 70 : 0), 0);
    b[0] = 0xD2, b[1] = 0xFF, b[2] = msg, b[38] = 17, b[72] = 81;
    std::memcpy(&b[6], "127.0.0.1", 9);
    std::memcpy(&b[40], kOwn, 9);
    if (msg == DG2::MsgUninstall) {
        b[82] = 70;
        std::memcpy(&b[84 + 32], kOwn, 9);
        std::memcpy(&b[84 + 64], "3069", 4);
    }
    return b;
}

} // namespace

TEST(CtrlerUninst, OurControllerConfirmsInTheFirstPassWithTwoDatagramsAndForgetsTheMember)
{
    // Named by its address, or by an identity text the member does not know (then the reply is matched
    // by where it came from).
    for (const char* name : {"127.0.0.1", "*ABCD"}) {
        ControllerProtocolRig rig(ControllerProtocolRig::with(ControllerProtocolRig::defaultIni(), "IPAddress=127.0.0.1",
                                                              std::string("IPAddress=") + name));
        rig.receive(ControllerProtocolRig::registration(kOwn, 3069), kOwn, 3069);
        rig.transmit();
        ASSERT_NE(rig.slotOf(kOwn), 0);

        Exchange x;
        x.add("127.0.0.1", 3052, [&rig](const DG2MessageType& m, const UdpDatagramInfo& from) {
            rig.receive(m, from.address, from.port);
            std::vector<DG2MessageType> out;
            for (const IPC_DATA_REC& rec : rig.transmit())
                out.push_back(rec.msg);
            return out;
        });
        EXPECT_EQ(Ints({x.run({{"127.0.0.1", 3052}}), x.results[0]}), Ints({0, 0})) << name;
        EXPECT_EQ(x.sentByMember(), (std::vector<Bytes>{expectedRequest(129), expectedRequest(130)})) << name;
        EXPECT_LT(x.pauses, CtrlerUninst::kPolls) << "done within the first pass";
        EXPECT_EQ(rig.slotOf(kOwn), 0) << "the controller forgot the member";
    }
}

TEST(CtrlerUninst, ARefusingControllerGetsNo130AndASilentOneFour129sOverFourPasses)
{
    Exchange x;
    Controller& refusing = x.add("127.0.0.1", 3052, scripted(255));
    Controller& quiet = x.add("127.0.0.2", 3052, nullptr);
    EXPECT_EQ(Ints({x.run({{"127.0.0.1", 3052}, {"127.0.0.2", 3052}}), x.results[0], x.results[1]}), Ints({0, 1, 1}));
    EXPECT_EQ(refusing.received, Ints{129});
    EXPECT_EQ(quiet.received, Ints(4, 129));
    EXPECT_EQ(x.pauses, kAllPasses);

    // A 130 answered with 255: seen, but not removed.
    Exchange y;
    y.add("127.0.0.1", 3052, scripted(0, 255));
    EXPECT_EQ(Ints({y.run({{"127.0.0.1", 3052}}), y.results[0], int(y.sentByMember().size())}), Ints({0, 1, 2}));
}

TEST(CtrlerUninst, ControllersSharingAnAddressTextEachTakeOnlyTheirOwnReply)
{
    for (bool firstAnswers : {true, false}) {
        Exchange x;
        Controller& a = x.add("127.0.0.1", 3052, firstAnswers ? scripted(0) : nullptr);
        Controller& b = x.add("127.0.0.1", 3053, scripted(0));
        EXPECT_EQ(Ints({x.run({{"127.0.0.1", 3052}, {"127.0.0.1", 3053}}), x.results[0], x.results[1]}),
                  Ints({0, firstAnswers ? 0 : 1, 0}));
        EXPECT_EQ(a.received, firstAnswers ? Ints({129, 130}) : Ints(4, 129));
        EXPECT_EQ(b.received, Ints({129, 130}));
    }
}

TEST(CtrlerUninst, JunkAndStrangersAreIgnoredAndNoSocketMeansEveryResultFails)
{
    // Around a silent controller: a header cut short, a wrong magic, a member's datagram and a reply
    // under another name from elsewhere.
    Exchange x;
    x.add("127.0.0.1", 3052, nullptr);
    UdpSocket& stranger = *x.add("127.0.0.9", 3052, nullptr).socket;
    const DG2Builder reply =
        DG2Builder(DG2::MsgPresence).result(0).from("127.0.0.1", DG2::KindControllerAlt).to(kOwn, DG2::KindMember);
    const std::vector<std::string> junk = {
        reply.wire().substr(0, DG2::kHeaderSize - 1), DG2Builder(reply).magic(0xD3).wire(),
        DG2Builder(reply).from("127.0.0.1", DG2::KindMember).wire(),
        DG2Builder(reply).from("127.0.0.9", DG2::KindController).wire()};
    x.onPause = [&] {
        for (const std::string& j : junk)
            stranger.send(j.data(), j.size(), kOwn, 3069);
    };
    EXPECT_EQ(Ints({x.run({{"127.0.0.1", 3052}}), x.results[0]}), Ints({0, 1}));
    EXPECT_EQ(x.sentByMember(), std::vector<Bytes>(4, expectedRequest(129)));

    // The member's port taken: every result fails, nothing sent. A send error (no controller address)
    // counts like a send.
    Exchange z;
    UdpSocket& holder = *z.add(kOwn, 3069, nullptr).socket;
    testing::internal::CaptureStderr();
    EXPECT_EQ(z.run({{"127.0.0.1", 3052}, {"127.0.0.2", 3052}}), 1);
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(Ints(z.results, z.results + 4), Ints({1, 1, 9, 9}));
    EXPECT_TRUE(z.net.sent().empty() && z.pauses == 0);
    holder.close();
    EXPECT_EQ(z.run({{"", 3052}}), 0);
    EXPECT_EQ(Ints({z.results[0], z.pauses}), Ints({1, kAllPasses}));
    EXPECT_EQ(z.run({}), 0);
}
