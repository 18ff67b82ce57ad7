// The UDP transport: which received datagrams reach a protocol thread (and
// which are dropped, with a bounded log), where queued records go and in
// what bytes, the time-outs it arms, the close send, the member's silence
// tick, socket set-up, and the thread itself on loopback sockets.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <poll.h>

#include "config/FileMap.h"
#include "control/Codes.h"
#include "control/StCTrl.h"
#include "core/FatalStop.h"
#include "ipc/IpcData.h"
#include "ipc/IpcIFTh.h"
#include "ipc/SystemUdpSocket.h"
#include "tests/fakes/DG2Builder.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/FakeUdpNetwork.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempConfig.h"
#include "tests/fakes/TempDir.h"

namespace {

using V = std::vector<std::string>;
using Interfaces = std::vector<std::pair<std::string, std::string>>; // address, broadcast

const char kController[] = "UPSController=1\nCtrlPort1=3069\nIPAddress=127.0.0.1\nSetUpID=Xctrl-id\n";
const char kMember[] = "UPSController=2\nMemberPort=3070\nIPAddress=127.0.0.2\n";

// A datagram as a peer receives it: converted to host order, with its size.
struct Got {
    DG2MessageType msg;
    size_t size;
    std::string name(const char* field) const { return std::string(field, strnlen(field, DG2::kNameSize)); }
};

std::vector<Got> inbox(UdpSocket& s)
{
    std::vector<Got> out;
    Got g;
    UdpDatagramInfo info;
    for (;;) {
        std::memset(&g.msg, 0, sizeof g.msg);
        if (s.receive(&g.msg, sizeof g.msg, info) != UdpStatus::Ok)
            return out;
        g.size = info.size;
        ByteOrderChg(&g.msg);
        out.push_back(g);
    }
}

IPC_DATA_REC record(IPC_DST_MODE mode, const char* name, const DG2Builder& b, int timeOut = 0, int awaited = -1)
{
    IPC_DATA_REC r;
    std::memset(&r, 0, sizeof r);
    r.mode = mode;
    r.msg = b.msg();
    DG2SetField(r.name, sizeof r.name, name);
    r.threadId = ThCtrlSlot0;
    r.ret.msgNo = b.msg().msgNo;
    r.ret.timeOut = timeOut;
    r.ret.awaited = awaited;
    r.ret.limit = -1;
    return r;
}

// A transport on the in-memory network with a real controller core, member
// table and configuration; the test drives it pass by pass.
struct Rig {
    ManualClock clock;
    TempConfig ini;
    TempConfig memcnt;
    FileMap* config;
    FileMap* controllers;
    StCTrl core{&clock};
    TempDir dir{"ipcif"};
    IpcData data{core, dir.path(), dir.path()};
    IpcData* table = &data;
    FakeUdpNetwork net;
    Interfaces ifs;
    IpcIFTh th;

    explicit Rig(const std::string& conf, const std::string& controllerList = "", Interfaces list = {})
        : ini(conf), memcnt(controllerList), config(ini.map()), controllers(memcnt.map()), ifs(std::move(list)),
          th(ThIpcIF, wiring())
    {
        IpcIFTh::resetClosedForTests();
        for (const auto& i : ifs)
            net.addBroadcast(i.second);
    }
    ~Rig() { IpcIFTh::resetClosedForTests(); }

    IpcIFTh::Wiring wiring()
    {
        IpcIFTh::Wiring w;
        w.core = &core;
        w.table = &table;
        w.config = &config;
        w.controllers = &controllers;
        w.makeSocket = [this] { return std::unique_ptr<UdpSocket>(net.socket()); };
        w.interfaces = [this](char (*addrs)[32], char (*bcasts)[32]) {
            for (size_t i = 0; i < ifs.size(); ++i) {
                std::snprintf(addrs[i], 32, "%s", ifs[i].first.c_str());
                std::snprintf(bcasts[i], 32, "%s", ifs[i].second.c_str());
            }
            return int(ifs.size());
        };
        w.clock = &clock;
        return w;
    }

    std::unique_ptr<UdpSocket> peer(const char* address, uint16_t port)
    {
        std::unique_ptr<UdpSocket> s = net.socket();
        EXPECT_EQ(s->open(), UdpStatus::Ok);
        EXPECT_EQ(s->bind(address, port), UdpStatus::Ok) << address << ":" << port;
        return s;
    }
    int member(const char* id, const char* address, int port, MEMB_STAT status = MembActive, int thread = 8)
    {
        int slot = data.InitMember(address, port, id, false, thread, SqIdle, nullptr);
        DUP_MEMB_INFO m;
        data.GetMembInfo(slot, &m);
        if (status != MembNoEntry)
            data.SetMembStatus(&m, status, false);
        return slot;
    }
    void queue(IPC_DATA_REC r)
    {
        data.setSdData(&r);
        th.RunPass();
    }
    void sendTo(UdpSocket& from, const std::string& bytes, const char* to = "127.0.0.1", uint16_t port = 3069)
    {
        ASSERT_EQ(from.send(bytes.data(), bytes.size(), to, port), UdpStatus::Ok);
        th.RunPass();
    }
};

DG2Builder fromMember(uint8_t msg, const char* src = "127.0.0.5")
{
    return DG2Builder(msg).from(src, DG2::KindMember).to("127.0.0.1", DG2::KindController);
}

DG2Builder fromController(uint8_t msg, const char* dst)
{
    return DG2Builder(msg).from("127.0.0.1", DG2::KindController).to(dst, DG2::KindMember);
}

} // namespace

TEST(IpcIFThReceive, AcceptedDatagramReachesItsThreadWholeAndEverythingElseIsDropped)
{
    Rig r(kController);
    ASSERT_TRUE(r.th.InitSock());
    auto peer = r.peer("127.0.0.5", 6001);

    DG2Builder report = fromMember(DG2::MsgPowerReport);
    for (int i = 0; i < DG2::kBodyPowerReport; ++i)
        report.bodyBytes(i, std::string(1, char(i * 7 + 1)));
    const std::string wire = report.wire();
    ASSERT_EQ(wire.size(), 1412u);
    r.sendTo(*peer, wire);

    IPC_DATA_REC got;
    ASSERT_EQ(r.data.getRvData(&got, ThCtrlSlot0), 1);
    EXPECT_EQ(std::memcmp(&got.msg, wire.data(), wire.size()), 0) << "1412 bytes delivered as they came";
    EXPECT_EQ(got.mode, IPC_DST_ALL);
    EXPECT_EQ(got.value, 6001) << "sender's port";
    EXPECT_STREQ(got.name, "127.0.0.5") << "sender's address";
    EXPECT_EQ(drainDescribed(r.core), V{"8:EvNetReceived(600):"});

    std::string tooLong = wire;
    tooLong.resize(4097, 'x');
    const std::vector<std::pair<const char*, std::string>> dropped = {
        {"83 bytes", wire.substr(0, 83)},
        {"one byte short", wire.substr(0, 1411)},
        {"one byte over", wire + "x"},
        {"larger than the buffer", tooLong},
        {"unknown number", DG2Builder(99).from("m", DG2::KindMember).to("c", DG2::KindController).wire()},
        {"controller's sender kind", fromMember(DG2::MsgPresence).from("c2", DG2::KindController).wire()},
        {"receiver kind 17", fromMember(DG2::MsgPresence).to("c", DG2::KindMember).wire()},
        {"wrong magic", fromMember(DG2::MsgPresence).magic(0xD3).wire()},
    };
    for (const auto& d : dropped) {
        r.sendTo(*peer, d.second);
        EXPECT_EQ(r.data.receiveQueued(), 0u) << d.first;
        EXPECT_TRUE(drainDescribed(r.core).empty()) << d.first;
    }
}

TEST(IpcIFThReceive, DropsAreLoggedAtMostOncePerMinuteWithTheirCount)
{
    Rig r(kController);
    ASSERT_TRUE(r.th.InitSock());
    auto peer = r.peer("127.0.0.5", 6001);
    const std::string bad = fromMember(DG2::MsgPresence).magic(0).wire();

    testing::internal::CaptureStderr();
    for (int i = 0; i < 50; ++i)
        r.sendTo(*peer, bad);
    r.clock.advance(IpcIFTh::kLogInterval);
    r.sendTo(*peer, DG2Builder(99).wire());
    const std::string log = testing::internal::GetCapturedStderr();

    V lines;
    for (size_t at = 0, nl; (nl = log.find('\n', at)) != std::string::npos; at = nl + 1)
        lines.push_back(log.substr(at, nl - at));
    ASSERT_EQ(lines.size(), 2u) << log;
    EXPECT_NE(lines[0].find("1 datagram dropped; the last: not addressed to this role (84 bytes) from 127.0.0.5:6001"),
              std::string::npos)
        << lines[0];
    EXPECT_NE(lines[1].find("50 datagrams dropped since the last report; the last: unknown message number"),
              std::string::npos)
        << lines[1];
}

TEST(IpcIFThReceive, MemberHandsEachDatagramToTheThreadOfItsController)
{
    Rig r(kMember, "IPAddress1=127.0.0.2\nIPAddress2=*memb-id\nIPAddress4=other-name\n");
    ASSERT_TRUE(r.th.InitSock());
    r.member("@ctrl-by-id", "127.0.0.7", 3069, MembActive, ThCtrlSlot2);
    auto ctrl = r.peer("127.0.0.1", 3069);
    auto ctrlById = r.peer("127.0.0.7", 3069);

    const std::vector<std::pair<std::string, int>> cases = {
        {"127.0.0.2", ThCtrlSlot0}, // entry 1 as it stands
        {" memb-id", ThCtrlSlot1},  // entry 2: "*" read as a blank
        {"other-name", ThCtrlSlot3},
    };
    for (const auto& c : cases) {
        r.sendTo(*ctrl, fromController(DG2::MsgPowerReport, c.first.c_str()).wire(), "127.0.0.2", 3070);
        IPC_DATA_REC got;
        EXPECT_EQ(r.data.getRvData(&got, c.second), 1) << c.first;
    }
    // No entry names it: the member table's "@" entry for the sender's
    // address decides; without one the datagram is dropped.
    r.sendTo(*ctrlById, fromController(DG2::MsgPowerReport, "127.0.0.99").wire(), "127.0.0.2", 3070);
    IPC_DATA_REC got;
    EXPECT_EQ(r.data.getRvData(&got, ThCtrlSlot2), 1);
    r.sendTo(*ctrl, fromController(DG2::MsgPowerReport, "127.0.0.99").wire(), "127.0.0.2", 3070);
    r.sendTo(*ctrl, fromMember(DG2::MsgPowerReport).to("127.0.0.2", DG2::KindMember).wire(), "127.0.0.2", 3070);
    EXPECT_EQ(r.data.receiveQueued(), 0u) << "unclaimed, and a member's datagram to a member";

    EXPECT_EQ(r.th.GetCtrlNo("127.0.0.1", "memb-id"), 0) << "an identity entry matches only the blank form";

    // The close-send interval follows the last octet of "IPAddress".
    EXPECT_EQ(r.th.GetCloseSendInterval(), 90000) << ".2";
    r.config->setConf("IPAddress", "127.0.0.64");
    EXPECT_EQ(r.th.GetCloseSendInterval(), 30000);
    r.config->setConf("IPAddress", "127.0.0.63");
    EXPECT_EQ(r.th.GetCloseSendInterval(), 1920000);
}

TEST(IpcIFThSend, RecordsGoToTheirMembersAsStampedWireBytes)
{
    Rig r(kController, "", {{"127.0.0.1", "127.255.255.255"}, {"127.1.0.1", "127.1.255.255"}});
    ASSERT_TRUE(r.th.InitSock());
    r.member("memb-a", "127.0.0.5", 6001);
    r.member("memb-b", "127.0.0.6", 6002);
    r.member("memb-c", "127.0.0.7", 6003, MembNotActive);
    r.member(" ident", "127.0.0.8", 6004);
    r.member("memb-bc", "", 6005, MembNotActive);
    auto a = r.peer("127.0.0.5", 6001);
    auto b = r.peer("127.0.0.6", 6002);
    auto c = r.peer("127.0.0.7", 6003);
    auto id = r.peer("127.0.0.8", 6004);

    // One member: sent at its address and port, "@" source replaced by the
    // target, stamped, header plus body length bytes.
    r.queue(record(IPC_DST_ONE, "memb-a",
                   DG2Builder(DG2::MsgPowerReport).from("@", DG2::KindController).to("127.0.0.5", DG2::KindMember)));
    auto gotA = inbox(*a);
    ASSERT_EQ(gotA.size(), 1u);
    EXPECT_EQ(gotA[0].size, 1412u);
    EXPECT_EQ(gotA[0].name(gotA[0].msg.srcName), "127.0.0.5");
    EXPECT_EQ(gotA[0].msg.hedVer, 1);
    EXPECT_EQ(gotA[0].msg.dstForm, DG2::kNameFormPlain);
    EXPECT_TRUE(inbox(*b).empty());

    // Every active member, each under its own destination name; an
    // identity member gets the identity form of "SetUpID".
    r.queue(record(IPC_DST_ALL, "", DG2Builder(DG2::MsgShutdownTiming).from("ctrl", DG2::KindController)));
    gotA = inbox(*a);
    auto gotB = inbox(*b);
    auto gotId = inbox(*id);
    ASSERT_EQ(gotA.size(), 1u);
    ASSERT_EQ(gotB.size(), 1u);
    ASSERT_EQ(gotId.size(), 1u);
    EXPECT_EQ(gotA[0].name(gotA[0].msg.dstName), "127.0.0.5");
    EXPECT_EQ(gotB[0].name(gotB[0].msg.dstName), "127.0.0.6");
    EXPECT_EQ(gotId[0].name(gotId[0].msg.dstName), " ctrl-id");
    EXPECT_EQ(gotId[0].msg.dstForm, DG2::kNameFormIdentity);
    EXPECT_EQ(gotA[0].size, size_t(DG2::kHeaderSize + DG2::kBodyShutdownTiming));
    EXPECT_TRUE(inbox(*c).empty()) << "not active";

    // An empty target address: once to every interface's broadcast address.
    const size_t before = r.net.sent().size();
    r.queue(record(IPC_DST_ONE, "memb-bc", DG2Builder(DG2::MsgPresence).from("ctrl", DG2::KindController)));
    auto sent = r.net.sent();
    ASSERT_EQ(sent.size(), before + 2);
    EXPECT_EQ(sent[before].toAddress + ":" + std::to_string(sent[before].toPort), "127.255.255.255:6005");
    EXPECT_EQ(sent[before + 1].toAddress + ":" + std::to_string(sent[before + 1].toPort), "127.1.255.255:6005");
    EXPECT_TRUE(drainDescribed(r.core).empty()) << "no time-out was asked for";
}

TEST(IpcIFThSend, TimeOutsAreArmedForAwaitedRepliesEvenWhenNothingIsSent)
{
    Rig r(kController);
    ASSERT_TRUE(r.th.InitSock());
    r.member("memb-a", "127.0.0.5", 6001);
    r.member("memb-ns", "NotSend", 6002);
    auto a = r.peer("127.0.0.5", 6001);
    const DG2Builder settings = DG2Builder(DG2::MsgSettings).from("ctrl", DG2::KindController);
    const time_t t0 = r.clock.now();

    r.queue(record(IPC_DST_ONE, "memb-a", settings, 10, DG2::MsgSettings));
    ASSERT_EQ(r.data.timersPending(), 1u);
    const V armed = drainDescribed(r.core);
    ASSERT_EQ(armed.size(), 1u);
    const int id = r.data.GetTimerID() - 1; // the pool rotates: the id before the next one
    EXPECT_EQ(armed[0], "0:EvTimerStart(100):" + std::to_string(id) + "," + std::to_string(t0 + 10) + ",0,8");
    int found = 0;
    IPC_DATA_RET block = r.data.GetTimerInfo(id, &found);
    EXPECT_EQ(found, 1);
    EXPECT_EQ(block.awaited, DG2::MsgSettings);
    EXPECT_EQ(inbox(*a).size(), 1u);

    // No time-out, or nothing awaited: no timer.
    r.queue(record(IPC_DST_ONE, "memb-a", settings, 0, DG2::MsgSettings));
    r.queue(record(IPC_DST_REPLY, "memb-a", settings, 10, -1));
    EXPECT_EQ(r.data.timersPending(), 1u);
    EXPECT_TRUE(drainDescribed(r.core).empty());
    EXPECT_EQ(inbox(*a).size(), 2u);

    // "NotSend": the time-out runs, nothing leaves.
    const size_t sent = r.net.sent().size();
    testing::internal::CaptureStderr();
    r.queue(record(IPC_DST_ONE, "memb-ns", settings, 10, DG2::MsgSettings));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "not even tried";
    EXPECT_EQ(r.net.sent().size(), sent);
    EXPECT_EQ(r.data.timersPending(), 2u);
    EXPECT_EQ(drainDescribed(r.core).size(), 1u);
}

TEST(IpcIFThSend, AfterTheCloseSendOnlyAMembersApplicationEndLeaves)
{
    {
        Rig r("UPSController=1\nCtrlPort1=3069\nIPAddress=127.0.0.64\n");
        ASSERT_TRUE(r.th.InitSock());
        r.member("memb-a", "127.0.0.5", 6001);
        r.member("memb-b", "127.0.0.6", 6002);
        auto a = r.peer("127.0.0.5", 6001);
        auto b = r.peer("127.0.0.6", 6002);
        r.queue(record(IPC_DST_CLOSE, "", DG2Builder(DG2::MsgAppEnd).from("ctrl", DG2::KindController)));
        EXPECT_EQ(inbox(*a).size(), 3u);
        EXPECT_EQ(inbox(*b).size(), 3u);
        EXPECT_TRUE(IpcIFTh::closed());
        r.queue(record(IPC_DST_ONE, "memb-a", DG2Builder(DG2::MsgPowerReport).from("ctrl", DG2::KindController)));
        r.queue(record(IPC_DST_ALL, "", DG2Builder(DG2::MsgAppEnd).from("ctrl", DG2::KindController)));
        EXPECT_TRUE(inbox(*a).empty()) << "a controller sends nothing after its close send";
    }
    {
        Rig r("UPSController=2\nMemberPort=3070\nIPAddress=127.0.0.64\n", "IPAddress1=127.0.0.2\n");
        ASSERT_TRUE(r.th.InitSock());
        r.member("ctrl-1", "127.0.0.1", 3069);
        auto ctrl = r.peer("127.0.0.1", 3069);
        const DG2Builder appEnd = DG2Builder(DG2::MsgAppEnd).from("127.0.0.2", DG2::KindMember);
        r.queue(record(IPC_DST_CLOSE, "", appEnd));
        EXPECT_EQ(inbox(*ctrl).size(), 3u);
        r.queue(record(IPC_DST_REPLY, "ctrl-1", DG2Builder(DG2::MsgPowerReport).from("m", DG2::KindMember)));
        EXPECT_TRUE(inbox(*ctrl).empty());
        r.queue(record(IPC_DST_REPLY, "ctrl-1", appEnd));
        EXPECT_EQ(inbox(*ctrl).size(), 1u) << "127 still leaves a member";
    }
    {
        // A member's 127 sent on its own closes too, and still goes out.
        Rig r(kMember);
        ASSERT_TRUE(r.th.InitSock());
        r.member("ctrl-1", "127.0.0.1", 3069);
        auto ctrl = r.peer("127.0.0.1", 3069);
        r.queue(record(IPC_DST_REPLY, "ctrl-1", DG2Builder(DG2::MsgAppEnd).from("m", DG2::KindMember)));
        r.queue(record(IPC_DST_REPLY, "ctrl-1", DG2Builder(DG2::MsgRegister).from("m", DG2::KindMember)));
        auto got = inbox(*ctrl);
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0].msg.msgNo, DG2::MsgAppEnd);
    }
}

TEST(IpcIFThSend, ReplyToAStrangerGoesWhereItsRequestCameFrom)
{
    Rig r(kController);
    ASSERT_TRUE(r.th.InitSock());
    auto stranger = r.peer("127.0.0.9", 5555);
    // The uninstall exchange's header: the controller's address first.
    r.sendTo(*stranger,
             DG2Builder(DG2::MsgPresence).from("127.0.0.1", DG2::KindMember).to("127.0.0.9", DG2::KindControllerAlt).wire());
    IPC_DATA_REC req;
    ASSERT_EQ(r.data.getRvData(&req, ThCtrlSlot0), 1);

    const DG2Builder reply =
        DG2Builder(DG2::MsgPresence).result(0).from("127.0.0.9", DG2::KindControllerAlt).to("127.0.0.1", DG2::KindMember);
    r.queue(record(IPC_DST_REPLY, req.msg.srcName, reply));
    auto got = inbox(*stranger);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].msg.result, 0);

    // A name nobody sent from recently is not sent to at all, whatever the
    // datagram's text says.
    const size_t sent = r.net.sent().size();
    r.queue(record(IPC_DST_REPLY, "127.0.0.10", reply));
    EXPECT_EQ(r.net.sent().size(), sent);

    // Only the last 64 senders are kept.
    auto other = r.peer("127.0.0.11", 5556);
    for (int i = 0; i < int(IpcIFTh::kRememberedPeers); ++i)
        r.sendTo(*other, fromMember(DG2::MsgPresence, ("host-" + std::to_string(i)).c_str()).wire());
    r.queue(record(IPC_DST_REPLY, "127.0.0.1", reply));
    EXPECT_TRUE(inbox(*stranger).empty());
    r.queue(record(IPC_DST_REPLY, "host-0", reply));
    EXPECT_EQ(inbox(*other).size(), 1u);
}

TEST(IpcIFThSilence, MemberStopsAllTimersAfter120sWithoutARegistrationRequestButNotOnAClockJump)
{
    Rig r(kMember, "IPAddress1=127.0.0.2\n");
    ASSERT_TRUE(r.th.InitSock());
    r.member("ctrl-1", "127.0.0.1", 3069);
    auto ctrl = r.peer("127.0.0.1", 3069);
    const V stopAll = {"0:EvTimerStopAll(103):1"};
    auto tick = [&r](int seconds) {
        r.clock.advance(seconds);
        r.th.RunPass();
    };

    tick(10800);
    tick(-3600);
    for (int i = 0; i < 120; ++i)
        tick(1);
    EXPECT_TRUE(drainDescribed(r.core).empty()) << "jumps are not silence; 120 s is not more than 120 s";
    tick(1);
    EXPECT_EQ(drainDescribed(r.core), stopAll);

    // A registration request sent restarts the count.
    for (int i = 0; i < 100; ++i)
        tick(1);
    r.queue(record(IPC_DST_REPLY, "ctrl-1", DG2Builder(DG2::MsgRegister).from("m", DG2::KindMember).to("c", 19)));
    ASSERT_EQ(inbox(*ctrl).size(), 1u);
    for (int i = 0; i < 100; ++i)
        tick(1);
    EXPECT_TRUE(drainDescribed(r.core).empty());
    for (int i = 0; i < 21; ++i)
        tick(1);
    EXPECT_EQ(drainDescribed(r.core), stopAll);
}

TEST(IpcIFThSockets, BindAddressesRetriesAndAnUnopenableSocket)
{
    const Interfaces ifs = {{"127.0.0.3", "127.0.0.255"}, {"127.0.0.1", "127.255.255.255"}};
    {
        // A concrete address on a controller "1": a second socket on the
        // interface's broadcast address and the same port.
        Rig r(kController, "", ifs);
        ASSERT_TRUE(r.th.InitSock());
        EXPECT_EQ(r.th.mainPort(), 3069);
        EXPECT_TRUE(r.th.broadcastOpen());
        auto probe = r.net.socket();
        probe->open();
        EXPECT_EQ(probe->bind("127.255.255.255", 3069), UdpStatus::Error);
        EXPECT_EQ(probe->bind("127.0.0.1", 3069), UdpStatus::Error);
        r.th.end();
        r.th.end();
        EXPECT_EQ(probe->bind("127.255.255.255", 3069), UdpStatus::Ok) << "end() closed the broadcast socket";
    }
    {
        // "*": one socket on any address.
        Rig r("UPSController=1\nCtrlPort1=3069\nIPAddress=*ident\n", "", ifs);
        ASSERT_TRUE(r.th.InitSock());
        EXPECT_FALSE(r.th.broadcastOpen());
        auto peer = r.peer("127.0.0.5", 6001);
        r.sendTo(*peer, fromMember(DG2::MsgPresence).wire(), "127.0.0.3", 3069);
        EXPECT_EQ(r.data.receiveQueued(), 1u);
    }
    {
        // The port is taken: retried, logged once, then the transport goes on unbound.
        Rig r(kMember, "", ifs);
        auto holder = r.peer("127.0.0.2", 3070);
        r.th.setBindRetry(3, 1, std::chrono::milliseconds(1));
        testing::internal::CaptureStderr();
        EXPECT_TRUE(r.th.InitSock());
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(r.th.mainPort(), 0);
        EXPECT_FALSE(r.th.broadcastOpen()) << "a member has no broadcast socket";
        EXPECT_NE(log.find("not bound to 127.0.0.2 port 3070 after 3 attempts"), std::string::npos) << log;
        EXPECT_EQ(log.find('\n'), log.size() - 1) << log;
    }
    {
        struct Unopenable : FakeUdpNetwork::Socket {
            using Socket::Socket;
            UdpStatus open() override { return UdpStatus::Error; }
        };
        Rig r(kController);
        auto w = r.wiring();
        w.makeSocket = [&r] { return std::unique_ptr<UdpSocket>(new Unopenable(r.net)); };
        IpcIFTh th(ThIpcIF, w);
        FatalStop::resetForTests();
        testing::internal::CaptureStderr();
        EXPECT_FALSE(th.InitSock());
        testing::internal::GetCapturedStderr();
        EXPECT_TRUE(FatalStop::requested());
        EXPECT_EQ(FatalStop::status(), 1);
        FatalStop::resetForTests();
    }
}

TEST(IpcIFThThread, OnLoopbackItReceivesSendsAtOnceAndStops)
{
    Rig r("UPSController=1\nCtrlPort1=0\nIPAddress=127.0.0.1\n");
    auto w = r.wiring();
    w.makeSocket = nullptr; // real sockets
    IpcIFTh th(ThIpcIF, w);
    ASSERT_TRUE(th.st());
    // Bounded waits (5 s) for what the thread does on its own.
    auto waitFor = [](const std::function<bool()>& done) {
        for (int i = 0; i < 1000 && !done(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return done();
    };
    auto endThread = [&th, &waitFor] {
        th.stop();
        if (!waitFor([&th] { return !th.running(); })) {
            std::fprintf(stderr, "transport thread did not stop within 5 s\n");
            std::abort();
        }
        th.sp();
    };
    if (!waitFor([&th] { return th.mainPort() != 0; })) {
        endThread();
        FAIL() << "not bound";
    }

    SystemUdpSocket peer;
    ASSERT_EQ(peer.open(), UdpStatus::Ok);
    ASSERT_EQ(peer.bind("127.0.0.1", 0), UdpStatus::Ok);
    const std::string request =
        DG2Builder(DG2::MsgPresence).from("stranger", DG2::KindMember).to("127.0.0.1", DG2::KindControllerAlt).wire();
    ASSERT_EQ(peer.send(request.data(), request.size(), "127.0.0.1", th.mainPort()), UdpStatus::Ok);
    IPC_DATA_REC req;
    EXPECT_TRUE(waitFor([&r] { return r.data.receiveQueued() == 1; }));
    ASSERT_EQ(r.data.getRvData(&req, ThCtrlSlot0), 1);
    EXPECT_EQ(req.value, peer.localPort());

    // The controller's loop blocks without a time-out: only the send
    // queue's wake-up gets this reply out.
    IPC_DATA_REC reply = record(IPC_DST_REPLY, "stranger",
                                DG2Builder(DG2::MsgPresence).result(0).from("127.0.0.1", DG2::KindControllerAlt).to("stranger", DG2::KindMember));
    r.data.setSdData(&reply);
    pollfd p = {peer.descriptor(), POLLIN, 0};
    EXPECT_EQ(::poll(&p, 1, 5000), 1);
    auto got = inbox(peer);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].size, size_t(DG2::kHeaderSize));
    EXPECT_EQ(got[0].msg.result, 0);

    endThread();
    EXPECT_EQ(th.mainPort(), 0) << "sockets closed as the thread left";
}
