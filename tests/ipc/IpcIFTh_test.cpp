// The UDP transport on the in-memory network, pass by pass: receive checks
// and drop logging, where queued records go and in what bytes, time-outs,
// the close send, the member's silence tick and socket set-up.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "core/FatalStop.h"
#include "ipc/IpcData.h"
#include "ipc/IpcIFTh.h"
#include "tests/fakes/DG2Builder.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/FakeUdpNetwork.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempConfig.h"
#include "tests/fakes/TempDir.h"

namespace {

using V = std::vector<std::string>;
using Interfaces = std::vector<std::pair<std::string, std::string>>; // address, broadcast address

const char kController[] = "UPSController=1\nCtrlPort1=3069\nIPAddress=127.0.0.1\nSetUpID=Xctrl-id\n";
const char kMember[] = "UPSController=2\nMemberPort=3070\nIPAddress=127.0.0.64\n";

std::string text(const char* field) { return std::string(field, strnlen(field, DG2::kNameSize)); }

// What a peer received, in host order, with each datagram's size.
std::vector<std::pair<DG2MessageType, size_t>> inbox(UdpSocket& s)
{
    std::vector<std::pair<DG2MessageType, size_t>> got;
    DG2MessageType m;
    UdpDatagramInfo info;
    while (std::memset(&m, 0, sizeof m), s.receive(&m, sizeof m, info) == UdpStatus::Ok) {
        ByteOrderChg(&m);
        got.emplace_back(m, info.size);
    }
    return got;
}

IPC_DATA_REC record(IPC_DST_MODE mode, const char* name, const DG2Builder& b, int timeOut = 0, int awaited = -1)
{
    IPC_DATA_REC r;
    std::memset(&r, 0, sizeof r);
    r.mode = mode;
    r.msg = b.msg();
    DG2SetField(r.name, sizeof r.name, name);
    r.threadId = ThCtrlSlot0;
    r.ret.timeOut = timeOut;
    r.ret.awaited = awaited;
    return r;
}
DG2Builder fromMember(uint8_t msg, const char* src = "127.0.0.5")
{
    return DG2Builder(msg).from(src, DG2::KindMember).to("127.0.0.1", DG2::KindController);
}
DG2Builder fromController(uint8_t msg, const char* dst = "127.0.0.5")
{
    return DG2Builder(msg).from("127.0.0.1", DG2::KindController).to(dst, DG2::KindMember);
}

// A transport on the in-memory network with a real controller core, member
// table and configuration; the test drives it pass by pass.
struct Rig {
    ManualClock clock;
    TempConfig ini, memcnt;
    FileMap* config = ini.map();
    FileMap* controllers = memcnt.map();
    StCTrl core{&clock};
    TempDir dir{"ipcif"};
    IpcData data{core, dir.path(), dir.path()};
    IpcData* table = &data;
    FakeUdpNetwork net;
    Interfaces ifs;
    IpcIFTh th;

    // open: set up the sockets at once.
    explicit Rig(const char* conf, const char* controllerList = "", Interfaces list = {}, bool open = true)
        : ini(conf), memcnt(controllerList), ifs(list), th(ThIpcIF, wiring())
    {
        IpcIFTh::resetClosedForTests();
        for (const auto& i : ifs)
            net.addBroadcast(i.second);
        EXPECT_TRUE(!open || th.InitSock());
    }
    ~Rig() { IpcIFTh::resetClosedForTests(); }
    IpcIFTh::Wiring wiring()
    {
        auto interfaces = [this](char (*addrs)[32], char (*bcasts)[32]) {
            for (size_t i = 0; i < ifs.size(); ++i) {
                std::snprintf(addrs[i], 32, "%s", ifs[i].first.c_str());
                std::snprintf(bcasts[i], 32, "%s", ifs[i].second.c_str());
            }
            return int(ifs.size());
        };
        return {&core, &table, &config, &controllers, [this] { return std::unique_ptr<UdpSocket>(net.socket()); },
                interfaces, &clock};
    }
    std::unique_ptr<UdpSocket> peer(const char* address, uint16_t port)
    {
        std::unique_ptr<UdpSocket> s = net.socket();
        EXPECT_EQ(s->open(), UdpStatus::Ok);
        EXPECT_EQ(s->bind(address, port), UdpStatus::Ok) << address << ":" << port;
        return s;
    }
    void member(const char* id, const char* address, int port, MEMB_STAT status = MembActive, int thread = 8)
    {
        DUP_MEMB_INFO m;
        data.GetMembInfo(data.InitMember(address, port, id, false, thread, SqIdle, nullptr), &m);
        data.SetMembStatus(&m, status, false);
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

} // namespace

TEST(IpcIFThReceive, AcceptedDatagramReachesItsThreadWholeDropsAreLoggedOncePerMinute)
{
    Rig r(kController);
    auto peer = r.peer("127.0.0.5", 6001);
    DG2Builder report = fromMember(DG2::MsgPowerReport);
    for (int i = 0; i < DG2::kBodyPowerReport; ++i)
        report.bodyBytes(i, std::string(1, char(i * 7 + 1)));
    const std::string wire = report.wire();
    r.sendTo(*peer, wire);

    IPC_DATA_REC got;
    ASSERT_EQ(r.data.getRvData(&got, ThCtrlSlot0), 1);
    EXPECT_EQ(std::memcmp(&got.msg, wire.data(), 1412), 0) << "1412 bytes delivered as they came";
    EXPECT_EQ(got.value, 6001) << "sender's port";
    EXPECT_STREQ(got.name, "127.0.0.5") << "sender's address";
    EXPECT_EQ(drainDescribed(r.core), V{"8:EvNetReceived(600):"});

    testing::internal::CaptureStderr();
    for (const std::string& bad : {wire + "x", std::string(4097, '\xD2'),
                                   fromMember(DG2::MsgPresence).from("c2", DG2::KindController).wire()})
        r.sendTo(*peer, bad);
    r.clock.advance(IpcIFTh::kLogInterval);
    r.sendTo(*peer, DG2Builder(99).wire());
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(r.data.receiveQueued(), 0u) << "nothing delivered; a controller's datagram is dropped unlogged";
    EXPECT_TRUE(drainDescribed(r.core).empty());
    EXPECT_EQ(log, "kestrava: 1 datagram dropped; the last: size differs from its body length (1413 bytes) from "
                   "127.0.0.5:6001\n"
                   "kestrava: 2 datagrams dropped since the last report; the last: unknown message number (84 "
                   "bytes) from 127.0.0.5:6001\n");
}

TEST(IpcIFThReceive, MemberHandsEachDatagramToTheThreadOfItsController)
{
    Rig r(kMember, "IPAddress1=127.0.0.2\nIPAddress2=*memb-id\nIPAddress4=other-name\n");
    r.member("@ctrl-by-id", "127.0.0.7", 3069, MembActive, ThCtrlSlot2);
    auto ctrl = r.peer("127.0.0.1", 3069);
    auto ctrlById = r.peer("127.0.0.7", 3069);
    const std::vector<std::pair<std::string, int>> cases = {
        {"127.0.0.2", ThCtrlSlot0}, {" memb-id", ThCtrlSlot1}, {"other-name", ThCtrlSlot3}};
    IPC_DATA_REC got;
    for (const auto& c : cases) {
        r.sendTo(*ctrl, fromController(DG2::MsgPowerReport, c.first.c_str()).wire(), "127.0.0.64", 3070);
        EXPECT_EQ(r.data.getRvData(&got, c.second), 1) << c.first;
    }
    // No entry names it: the table's "@" entry for the sender's address
    // decides; without one it is dropped.
    r.sendTo(*ctrlById, fromController(DG2::MsgPowerReport, "x").wire(), "127.0.0.64", 3070);
    EXPECT_EQ(r.data.getRvData(&got, ThCtrlSlot2), 1);
    r.sendTo(*ctrl, fromController(DG2::MsgPowerReport, "x").wire(), "127.0.0.64", 3070);
    EXPECT_EQ(r.data.receiveQueued(), 0u);
    EXPECT_EQ(r.th.GetCtrlNo("127.0.0.1", "memb-id"), 0) << "an identity entry matches only the blank form";

    EXPECT_EQ(r.th.GetCloseSendInterval(), 30000) << ".64";
    r.config->setConf("IPAddress", "127.0.0.63");
    EXPECT_EQ(r.th.GetCloseSendInterval(), 1920000);
}

TEST(IpcIFThSend, RecordsGoToTheirTargetsAsStampedWireBytesWithTheirTimeOuts)
{
    Rig r(kController, "", {{"127.0.0.1", "127.255.255.255"}, {"127.1.0.1", "127.1.255.255"}});
    r.member("memb-a", "127.0.0.5", 6001);
    r.member("memb-b", "127.0.0.6", 6002, MembNotActive);
    r.member(" ident", "127.0.0.8", 6004);
    r.member("memb-bc", "", 6005, MembNotActive);
    r.member("memb-ns", "NotSend", 6006, MembNotActive);
    auto a = r.peer("127.0.0.5", 6001);
    auto b = r.peer("127.0.0.6", 6002);
    auto id = r.peer("127.0.0.8", 6004);

    // One member, with a time-out: at its address and port, "@" source
    // replaced by the target, stamped, header plus body length bytes.
    const time_t t0 = r.clock.now();
    r.queue(record(IPC_DST_ONE, "memb-a", fromController(DG2::MsgPowerReport).from("@", 19), 10, 141));
    auto got = inbox(*a);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(text(got[0].first.srcName) + " " + std::to_string(got[0].first.hedVer) + " " +
                  std::to_string(got[0].second), "127.0.0.5 1 1412");
    const int timer = r.data.GetTimerID() - 1; // the pool rotates
    EXPECT_EQ(drainDescribed(r.core), V{"0:EvTimerStart(100):" + std::to_string(timer) + "," +
                                        std::to_string(t0 + 10) + ",0,8"});
    int found = 0;
    EXPECT_EQ(r.data.GetTimerInfo(timer, &found).awaited * found, 141);

    // Every active member under its own destination name (an identity
    // member: the identity form of "SetUpID"); nothing awaited, no timer.
    r.queue(record(IPC_DST_ALL, "", fromController(DG2::MsgShutdownTiming), 10, -1));
    got = inbox(*a);
    auto gotId = inbox(*id);
    ASSERT_EQ(got.size() + gotId.size(), 2u);
    EXPECT_EQ(text(got[0].first.dstName) + "|" + text(gotId[0].first.dstName), "127.0.0.5| ctrl-id");
    EXPECT_EQ(gotId[0].second, size_t(DG2::kHeaderSize + DG2::kBodyShutdownTiming));
    EXPECT_EQ(inbox(*b).size(), 0u) << "not active";
    EXPECT_TRUE(drainDescribed(r.core).empty());

    // An empty target: once to every interface's broadcast address.
    size_t before = r.net.sent().size();
    r.queue(record(IPC_DST_ONE, "memb-bc", fromController(DG2::MsgPresence)));
    auto sent = r.net.sent();
    ASSERT_EQ(sent.size(), before + 2);
    EXPECT_EQ(sent[before].toAddress + " " + sent[before + 1].toAddress, "127.255.255.255 127.1.255.255");
    EXPECT_EQ(sent[before].toPort, 6005);

    // "NotSend": the time-out runs, nothing is even tried.
    testing::internal::CaptureStderr();
    r.queue(record(IPC_DST_ONE, "memb-ns", fromController(DG2::MsgSettings), 10, 0));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(r.net.sent().size(), before + 2);
    EXPECT_EQ(r.data.timersPending(), 2u);
}

TEST(IpcIFThSend, AfterTheCloseSendOnlyAMembersApplicationEndLeaves)
{
    {
        Rig r("UPSController=1\nCtrlPort1=3069\nIPAddress=127.0.0.64\n");
        r.member("memb-a", "127.0.0.5", 6001);
        r.member("memb-b", "127.0.0.6", 6002);
        auto a = r.peer("127.0.0.5", 6001);
        auto b = r.peer("127.0.0.6", 6002);
        r.queue(record(IPC_DST_CLOSE, "", fromController(DG2::MsgAppEnd)));
        EXPECT_EQ(inbox(*a).size() + inbox(*b).size(), 6u) << "three copies each";
        r.queue(record(IPC_DST_ONE, "memb-a", fromController(DG2::MsgPowerReport)));
        r.queue(record(IPC_DST_ALL, "", fromController(DG2::MsgAppEnd)));
        EXPECT_EQ(inbox(*a).size(), 0u) << "a controller sends nothing after its close send";
    }
    for (IPC_DST_MODE mode : {IPC_DST_CLOSE, IPC_DST_REPLY}) {
        // A member's 127, closing or not, leaves and closes; later only 127.
        Rig r(kMember, "IPAddress1=127.0.0.64\n");
        r.member("ctrl-1", "127.0.0.1", 3069);
        auto ctrl = r.peer("127.0.0.1", 3069);
        const DG2Builder appEnd = fromMember(DG2::MsgAppEnd, "127.0.0.64");
        r.queue(record(mode, "ctrl-1", appEnd));
        EXPECT_EQ(inbox(*ctrl).size(), mode == IPC_DST_CLOSE ? 3u : 1u);
        r.queue(record(IPC_DST_REPLY, "ctrl-1", fromMember(DG2::MsgRegister)));
        EXPECT_EQ(inbox(*ctrl).size(), 0u);
        r.queue(record(IPC_DST_REPLY, "ctrl-1", appEnd));
        EXPECT_EQ(inbox(*ctrl).size(), 1u);
    }
}

TEST(IpcIFThSend, ReplyToAStrangerGoesOnlyWhereItsRequestCameFrom)
{
    Rig r(kController);
    auto stranger = r.peer("127.0.0.9", 5555);
    // The uninstall exchange's header: the controller's address first.
    r.sendTo(*stranger, fromMember(DG2::MsgPresence, "127.0.0.1").to("127.0.0.9", DG2::KindControllerAlt).wire());
    IPC_DATA_REC req;
    ASSERT_EQ(r.data.getRvData(&req, ThCtrlSlot0), 1);
    const DG2Builder reply = fromController(DG2::MsgPresence, "127.0.0.1").result(0).from("127.0.0.9", 81);
    r.queue(record(IPC_DST_REPLY, req.msg.srcName, reply));
    EXPECT_EQ(inbox(*stranger).size(), 1u);

    // A name nobody sent from recently gets nothing; only 64 senders are kept.
    const size_t sent = r.net.sent().size();
    r.queue(record(IPC_DST_REPLY, "127.0.0.10", reply));
    EXPECT_EQ(r.net.sent().size(), sent);
    auto other = r.peer("127.0.0.11", 5556);
    for (int i = 0; i < int(IpcIFTh::kRememberedPeers); ++i)
        r.sendTo(*other, fromMember(DG2::MsgPresence, ("host-" + std::to_string(i)).c_str()).wire());
    r.queue(record(IPC_DST_REPLY, "127.0.0.1", reply));
    r.queue(record(IPC_DST_REPLY, "host-0", reply));
    EXPECT_EQ(inbox(*stranger).size(), 0u);
    EXPECT_EQ(inbox(*other).size(), 1u);
}

TEST(IpcIFThSilence, MemberStopsAllTimersAfter120sWithoutARegistrationRequestButNotOnAClockJump)
{
    Rig r(kMember, "IPAddress1=127.0.0.64\n");
    r.member("ctrl-1", "127.0.0.1", 3069);
    auto ctrl = r.peer("127.0.0.1", 3069);
    auto ticks = [&r](int n, int seconds) {
        for (int i = 0; i < n; ++i) {
            r.clock.advance(seconds);
            r.th.RunPass();
        }
        return drainDescribed(r.core);
    };
    const V stopAll = {"0:EvTimerStopAll(103):1"};
    ticks(1, 10800);
    ticks(1, -3600);
    EXPECT_EQ(ticks(120, 1), V{}) << "jumps are not silence; 120 s is not more than 120 s";
    EXPECT_EQ(ticks(1, 1), stopAll);
    ticks(100, 1);
    r.queue(record(IPC_DST_REPLY, "ctrl-1", fromMember(DG2::MsgRegister)));
    ASSERT_EQ(inbox(*ctrl).size(), 1u);
    EXPECT_EQ(ticks(100, 1), V{}) << "a registration request restarts the count";
    EXPECT_EQ(ticks(21, 1), stopAll);
}

TEST(IpcIFThSockets, BindAddressesRetriesAndAnUnopenableSocket)
{
    const Interfaces ifs = {{"127.0.0.3", "127.0.0.255"}, {"127.0.0.1", "127.255.255.255"}};
    {
        // A concrete address on a controller "1": a second socket on that
        // interface's broadcast address and the same port; "*": one socket.
        Rig r(kController, "", ifs);
        EXPECT_EQ(r.th.mainPort(), 3069);
        auto probe = r.net.socket();
        probe->open();
        EXPECT_EQ(probe->bind("127.255.255.255", 3069), UdpStatus::Error);
        r.th.end();
        r.th.end();
        EXPECT_EQ(probe->bind("127.255.255.255", 3069), UdpStatus::Ok) << "end() closed it";
        Rig any("UPSController=1\nCtrlPort1=3069\nIPAddress=*ident\n", "", ifs);
        EXPECT_FALSE(any.th.broadcastOpen());
        auto peer = any.peer("127.0.0.5", 6001);
        any.sendTo(*peer, fromMember(DG2::MsgPresence).wire(), "127.0.0.3", 3069);
        EXPECT_EQ(any.data.receiveQueued(), 1u);
    }
    {
        // The port is taken: retried, logged once, then on unbound.
        Rig r(kMember, "", ifs, false);
        auto holder = r.peer("127.0.0.64", 3070);
        r.th.setBindRetry(3, 1, std::chrono::milliseconds(1));
        testing::internal::CaptureStderr();
        EXPECT_TRUE(r.th.InitSock());
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(r.th.mainPort(), 0);
        EXPECT_EQ(log, "kestrava: coordination socket not bound to 127.0.0.64 port 3070 after 3 attempts: Address "
                       "already in use\n");
    }
    {
        struct Unopenable : FakeUdpNetwork::Socket {
            using Socket::Socket;
            UdpStatus open() override { return UdpStatus::Error; }
        };
        Rig r(kController, "", {}, false);
        auto w = r.wiring();
        w.makeSocket = [&r] { return std::unique_ptr<UdpSocket>(new Unopenable(r.net)); };
        IpcIFTh th(ThIpcIF, w);
        testing::internal::CaptureStderr();
        EXPECT_FALSE(th.InitSock()) << testing::internal::GetCapturedStderr();
        EXPECT_EQ(FatalStop::requested() ? FatalStop::status() : -99, 1) << "the main thread ends the daemon";
        FatalStop::resetForTests();
    }
}
