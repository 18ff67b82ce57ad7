// The uninstall exchange on the in-memory network in virtual time: every
// pause between receive polls lets the controllers answer what reached them.
// Against this system's own controller protocol and against scripted
// controllers that refuse, stay silent, share an address or send junk.
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
using Answer = std::function<std::vector<DG2MessageType>(const DG2MessageType& request, const UdpDatagramInfo& from)>;

const char kOwn[] = "127.0.0.5";
const uint16_t kOwnPort = 3069;

// A controller on the network: takes what reached its socket and sends back
// what `answer` makes of it, in wire order, as a transport would.
struct Controller {
    std::unique_ptr<FakeUdpNetwork::Socket> socket;
    Answer answer;
    std::vector<int> received; // message numbers, in order

    void serve()
    {
        DG2MessageType m;
        UdpDatagramInfo from;
        while (std::memset(&m, 0, sizeof m), socket->receive(&m, sizeof m, from) == UdpStatus::Ok) {
            ASSERT_EQ(DG2CheckReceived(&m, from.size, DG2Role::Controller), DG2Drop::DG2Accepted)
                << "a controller takes the request";
            received.push_back(m.msgNo);
            for (DG2MessageType reply : answer(m, from)) {
                const size_t size = DG2::kHeaderSize + reply.bodyLen;
                SetHedVer(&reply);
                ByteOrderChg(&reply);
                socket->send(&reply, size, from.address, from.port);
            }
        }
    }
};

// The member's run against the controllers; each pause is 200 virtual ms.
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
        EXPECT_EQ(c.socket->open(), UdpStatus::Ok);
        EXPECT_EQ(c.socket->bind(address, port), UdpStatus::Ok);
        return c;
    }

    // Runs Uninst_func with the controllers' addresses and ports.
    int run(const std::vector<std::pair<std::string, uint16_t>>& list)
    {
        char addrs[4][32] = {};
        unsigned short ports[4] = {};
        for (size_t i = 0; i < list.size(); ++i) {
            std::strncpy(addrs[i], list[i].first.c_str(), sizeof addrs[i]);
            ports[i] = list[i].second;
        }
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
        CtrlerUninst uninst(seams);
        char own[32] = {};
        std::strncpy(own, kOwn, sizeof own);
        return uninst.Uninst_func(static_cast<unsigned char>(list.size()), &addrs[0][0], ports, own, kOwnPort,
                                  results);
    }

    // What the member sent, as bytes on the wire.
    std::vector<Bytes> sentByMember() const
    {
        std::vector<Bytes> out;
        for (const auto& d : net.sent())
            if (d.fromAddress == kOwn && d.fromPort == kOwnPort)
                out.push_back(d.bytes);
        return out;
    }
    std::vector<int> resultList(size_t n) const { return std::vector<int>(results, results + n); }
};

// This system's controller protocol answering as it does on the network.
Answer kestravaController(ControllerProtocolRig& rig)
{
    return [&rig](const DG2MessageType& m, const UdpDatagramInfo& from) {
        rig.receive(m, from.address, from.port);
        std::vector<DG2MessageType> out;
        for (const IPC_DATA_REC& rec : rig.transmit())
            out.push_back(rec.msg);
        return out;
    };
}

// A controller that answers 129 and 130 with `result` under source name `name`.
Answer scripted(const std::string& name, uint8_t result129, uint8_t result130 = 0)
{
    return [=](const DG2MessageType& m, const UdpDatagramInfo&) {
        DG2MessageType reply = DG2Builder(m).result(m.msgNo == DG2::MsgPresence ? result129 : result130)
                                   .from(name.c_str(), DG2::KindControllerAlt).to(kOwn, DG2::KindMember).msg();
        return std::vector<DG2MessageType>{reply};
    };
}

Answer silent()
{
    return [](const DG2MessageType&, const UdpDatagramInfo&) { return std::vector<DG2MessageType>{}; };
}

// The request as the controllers expect it, byte by byte: the controller's
// address at 6, the member's at 40, kinds 17 and 81 little-endian, bytes
// 3 to 5 and the reserved words zero.
Bytes expectedRequest(uint8_t msg, const std::string& controller)
{
    Bytes b(DG2::kHeaderSize + (msg == DG2::MsgUninstall ? 70 : 0), 0);
    b[0] = 0xD2;
    b[1] = 0xFF;
    b[2] = msg;
    std::memcpy(&b[6], controller.data(), controller.size());
    b[38] = 17;
    std::memcpy(&b[40], kOwn, std::strlen(kOwn));
    b[72] = 81;
    if (msg == DG2::MsgUninstall) {
        b[82] = 70;
        std::memcpy(&b[84 + 32], kOwn, std::strlen(kOwn));
        std::memcpy(&b[84 + 64], "3069", 4);
    }
    return b;
}

} // namespace

TEST(CtrlerUninst, OurControllerConfirmsInTheFirstPassWithTwoDatagramsAndForgetsTheMember)
{
    // The controller names itself by its "IPAddress" text: its address, or
    // an identity text the member does not know it by (then the reply is
    // matched by where it came from).
    for (const char* ctrlAddress : {"127.0.0.1", "*ABCD"}) {
        std::string ini = ControllerProtocolRig::defaultIni();
        ini.replace(ini.find("IPAddress=127.0.0.1"), std::strlen("IPAddress=127.0.0.1"),
                    std::string("IPAddress=") + ctrlAddress);
        ControllerProtocolRig rig(ini);
        rig.receive(ControllerProtocolRig::registration(kOwn, kOwnPort), kOwn, kOwnPort);
        rig.transmit();
        ASSERT_NE(rig.slotOf(kOwn), 0);

        Exchange x;
        x.add("127.0.0.1", 3052, kestravaController(rig));
        EXPECT_EQ(x.run({{"127.0.0.1", 3052}}), 0) << ctrlAddress;
        EXPECT_EQ(x.resultList(1), std::vector<int>{0}) << ctrlAddress;
        const std::vector<Bytes> sent = x.sentByMember();
        EXPECT_EQ(sent, (std::vector<Bytes>{expectedRequest(129, "127.0.0.1"), expectedRequest(130, "127.0.0.1")}))
            << ctrlAddress;
        EXPECT_LT(x.pauses, CtrlerUninst::kPolls) << "done within the first pass";
        EXPECT_EQ(rig.slotOf(kOwn), 0) << "the controller forgot the member";
    }
}

TEST(CtrlerUninst, ARefusingControllerGetsNo130AndASilentOneFour129sOverFourPasses)
{
    Exchange x;
    Controller& refusing = x.add("127.0.0.1", 3052, scripted("127.0.0.1", 255));
    Controller& quiet = x.add("127.0.0.2", 3052, silent());
    EXPECT_EQ(x.run({{"127.0.0.1", 3052}, {"127.0.0.2", 3052}}), 0);
    EXPECT_EQ(x.resultList(2), std::vector<int>({1, 1}));
    EXPECT_EQ(refusing.received, std::vector<int>{129});
    EXPECT_EQ(quiet.received, std::vector<int>(4, 129));
    EXPECT_EQ(x.pauses, CtrlerUninst::kMaxRequests * CtrlerUninst::kPolls) << "four passes of 2.4 s";

    // A 130 answered with 255 confirms the removal was seen, but not that it happened.
    Exchange y;
    y.add("127.0.0.1", 3052, scripted("127.0.0.1", 0, 255));
    EXPECT_EQ(y.run({{"127.0.0.1", 3052}}), 0);
    EXPECT_EQ(y.resultList(1), std::vector<int>{1});
    EXPECT_EQ(y.sentByMember().size(), 2u);
}

TEST(CtrlerUninst, ControllersSharingAnAddressTextEachTakeOnlyTheirOwnReply)
{
    {
        Exchange x;
        Controller& a = x.add("127.0.0.1", 3052, scripted("127.0.0.1", 0));
        Controller& b = x.add("127.0.0.1", 3053, scripted("127.0.0.1", 0));
        EXPECT_EQ(x.run({{"127.0.0.1", 3052}, {"127.0.0.1", 3053}}), 0);
        EXPECT_EQ(x.resultList(2), std::vector<int>({0, 0}));
        EXPECT_EQ(a.received, std::vector<int>({129, 130}));
        EXPECT_EQ(b.received, std::vector<int>({129, 130}));
    }
    {
        // Only the second answers: its reply is not credited to the first.
        Exchange x;
        Controller& a = x.add("127.0.0.1", 3052, silent());
        Controller& b = x.add("127.0.0.1", 3053, scripted("127.0.0.1", 0));
        EXPECT_EQ(x.run({{"127.0.0.1", 3052}, {"127.0.0.1", 3053}}), 0);
        EXPECT_EQ(x.resultList(2), std::vector<int>({1, 0}));
        EXPECT_EQ(a.received, std::vector<int>(4, 129));
        EXPECT_EQ(b.received, std::vector<int>({129, 130}));
    }
}

TEST(CtrlerUninst, JunkAndStrangersAreIgnoredAndNoSocketMeansEveryResultFails)
{
    {
        // Around a silent controller: a header cut short, a wrong magic, a
        // member's datagram and a reply under another name from elsewhere.
        Exchange x;
        x.add("127.0.0.1", 3052, silent());
        auto stranger = x.net.socket();
        stranger->open();
        stranger->bind("127.0.0.9", 3052);
        const DG2Builder reply = DG2Builder(DG2::MsgPresence).result(0).from("127.0.0.1", DG2::KindControllerAlt)
                                     .to(kOwn, DG2::KindMember);
        const std::vector<std::string> junk = {
            reply.wire().substr(0, DG2::kHeaderSize - 1), DG2Builder(reply).magic(0xD3).wire(),
            DG2Builder(reply).from("127.0.0.1", DG2::KindMember).wire(),
            DG2Builder(reply).from("127.0.0.9", DG2::KindController).wire()};
        x.onPause = [&] {
            for (const std::string& j : junk)
                stranger->send(j.data(), j.size(), kOwn, kOwnPort);
        };
        EXPECT_EQ(x.run({{"127.0.0.1", 3052}}), 0);
        EXPECT_EQ(x.resultList(1), std::vector<int>{1});
        EXPECT_EQ(x.sentByMember(), std::vector<Bytes>(4, expectedRequest(129, "127.0.0.1")));
    }
    {
        // The member's port is taken; send errors (no controller address) are
        // ignored and counted like sends.
        Exchange x;
        auto holder = x.net.socket();
        holder->open();
        holder->bind(kOwn, kOwnPort);
        testing::internal::CaptureStderr();
        EXPECT_EQ(x.run({{"127.0.0.1", 3052}, {"127.0.0.2", 3052}}), 1);
        EXPECT_NE(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(x.resultList(4), std::vector<int>({1, 1, 9, 9}));
        EXPECT_TRUE(x.net.sent().empty());
        EXPECT_EQ(x.pauses, 0);
        holder->close();
        EXPECT_EQ(x.run({{"", 3052}}), 0);
        EXPECT_EQ(x.resultList(1), std::vector<int>{1});
        EXPECT_EQ(x.pauses, CtrlerUninst::kMaxRequests * CtrlerUninst::kPolls);
        EXPECT_EQ(x.run({}), 0);
    }
}
