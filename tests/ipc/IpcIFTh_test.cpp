// The UDP transport on the in-memory network, pass by pass, with a real controller core, member table
// and configuration: receive checks, member routing, targets, wire bytes, time-outs, the close send,
// the silence tick, sockets.
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

std::string text(const char* field) { return DG2FieldText(field, DG2::kNameSize); }

// What a peer received, in host order, with each datagram's size.
std::vector<std::pair<DG2MessageType, size_t>> inbox(UdpSocket& s)
{
    std::vector<std::pair<DG2MessageType, size_t>> got;
    DG2MessageType m;
    for (UdpDatagramInfo info; std::memset(&m, 0, sizeof m), s.receive(&m, sizeof m, info) == UdpStatus::Ok;)
        got.emplace_back((ByteOrderChg(&m), m), info.size);
    return got;
}

IPC_DATA_REC record(IPC_DST_MODE mode, const char* name, const DG2Builder& b, int timeOut = 0, int awaited = -1)
{
    IPC_DATA_REC r{};
    r.mode = mode, r.msg = b.msg(), r.threadId = ThCtrlSlot0, r.ret.timeOut = timeOut, r.ret.awaited = awaited;
    return DG2SetField(r.name, sizeof r.name, name), r;
}
DG2Builder fromMember(uint8_t msg, const char* src = "127.0.0.5")
{ return DG2Builder(msg).from(src, DG2::KindMember).to("127.0.0.1", DG2::KindController); }
DG2Builder fromController(uint8_t msg, const char* dst = "127.0.0.5")
{ return DG2Builder(msg).from("127.0.0.1", DG2::KindController).to(dst, DG2::KindMember); }

struct Rig {
    ManualClock clock;
    TempConfig ini, memcnt;
    FileMap *config = ini.map(), *controllers = memcnt.map();
    StCTrl core{&clock};
    TempDir dir{"ipcif"};
    IpcData data{core, dir.path(), dir.path()};
    IpcData* table = &data;
    FakeUdpNetwork net;
    Interfaces ifs;
    IpcIFTh th;

    explicit Rig(const char* conf, const char* controllerList = "", Interfaces list = {}, bool open = true)
        : ini(conf), memcnt(controllerList), ifs(list), th(ThIpcIF, wiring())
    {
        IpcIFTh::resetClosedForTests();
        for (const auto& i : ifs)
            net.addBroadcast(i.second);
        EXPECT_TRUE(!open || th.InitSock());
    }
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
        EXPECT_TRUE(s->open() == UdpStatus::Ok && s->bind(address, port) == UdpStatus::Ok) << address << ":" << port;
        return s;
    }
    void member(const char* id, const char* address, int port, MEMB_STAT status = MembActive, int thread = 8)
    {
        DUP_MEMB_INFO m;
        data.GetMembInfo(data.InitMember(address, port, id, false, thread, SqIdle, nullptr), &m);
        data.SetMembStatus(&m, status, false);
    }
    void queue(IPC_DATA_REC r) { data.setSdData(&r), th.RunPass(); }
    void sendTo(UdpSocket& from, const std::string& bytes, const char* to = "127.0.0.1", uint16_t port = 3069)
    {
        EXPECT_EQ(from.send(bytes.data(), bytes.size(), to, port), UdpStatus::Ok);
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
    EXPECT_EQ(std::string(got.name) + ":" + std::to_string(got.value), "127.0.0.5:6001");
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

TEST(IpcIFThMember, DatagramsComeOnlyFromTheControllersItFollowsEachToItsSlot)
{
    Rig r(kMember, "IPAddress1=127.0.0.2\nIPAddress2=127.0.0.3\nIPAddress3=*memb-id\n");
    r.member("@CTRL1", "127.0.0.2", 3069, MembActive, ThCtrlSlot0);
    r.member("@CTRL2", "127.0.0.3", 3069, MembActive, ThCtrlSlot1);
    r.member("@CTRL3", "", 3069, MembActive, ThCtrlSlot2);
    auto c1 = r.peer("127.0.0.2", 3069), c2 = r.peer("127.0.0.3", 3069);
    auto byId = r.peer("127.0.0.7", 3069), stranger = r.peer("127.0.0.9", 3069);
    // Does a datagram from `from` naming `dst` reach slot thread `th` (0: is it dropped)?
    auto reaches = [&r](UdpSocket& from, const char* dst, int th) {
        r.sendTo(from, fromController(DG2::MsgPowerReport, dst).wire(), "127.0.0.64", 3070);
        IPC_DATA_REC got;
        return th == 0 ? r.data.receiveQueued() == 0 : r.data.getRvData(&got, th) == 1;
    };
    EXPECT_TRUE(reaches(*c1, "127.0.0.64", ThCtrlSlot0));
    EXPECT_TRUE(reaches(*c2, "127.0.0.64", ThCtrlSlot1));
    EXPECT_TRUE(reaches(*c2, "127.0.0.2", ThCtrlSlot1)) << "the sender decides, not the name";
    EXPECT_TRUE(reaches(*stranger, "127.0.0.2", 0)) << "a name imitating a controller routes nothing";
    EXPECT_TRUE(reaches(*stranger, "memb-id", 0));
    // Identity: by " ID" until its address is known, then only there.
    EXPECT_TRUE(reaches(*byId, " memb-id", ThCtrlSlot2));
    DUP_MEMB_INFO rec;
    r.data.GetMembInfo(const_cast<char*>("@CTRL3"), &rec), r.data.SetMembIPAddr(&rec, "127.0.0.7");
    EXPECT_TRUE(reaches(*stranger, " memb-id", 0));
    EXPECT_TRUE(reaches(*byId, "x", ThCtrlSlot2));
}

TEST(IpcIFThMember, SilenceOf120sWithoutARegistrationStopsTheNetworkTimersAndAfterAnApplicationEndOnly127Leaves)
{
    Rig r(kMember, "IPAddress1=127.0.0.1\n");
    r.member("@CTRL1", "127.0.0.1", 3069);
    auto ctrl = r.peer("127.0.0.1", 3069);
    auto ticks = [&r](int n, int seconds) {
        for (int i = 0; i < n; ++i)
            r.clock.advance(seconds), r.th.RunPass();
        return drainDescribed(r.core);
    }; // the quiet-network rule: health checks and reply time-outs stop
    const V stopAll = {"0:EvTimerStop(102):17", "0:EvTimerStop(102):18", "0:EvTimerStop(102):19",
                       "0:EvTimerStop(102):20", "0:EvTimerStopAll(103):1,30,265"};
    ticks(1, 10800), ticks(1, -3600);
    EXPECT_EQ(ticks(120, 1), V{}) << "jumps are not silence; 120 s is not more than 120 s";
    EXPECT_EQ(ticks(1, 1), stopAll);
    ticks(100, 1);
    r.queue(record(IPC_DST_REPLY, "@CTRL1", fromMember(DG2::MsgRegister)));
    ASSERT_EQ(inbox(*ctrl).size(), 1u);
    EXPECT_EQ(ticks(100, 1), V{}) << "a registration request restarts the count";
    EXPECT_EQ(ticks(21, 1), stopAll);

    // A member's 127 leaves and closes (a close send in three copies); then only 127 leaves.
    const DG2Builder appEnd = fromMember(DG2::MsgAppEnd, "127.0.0.64");
    r.queue(record(IPC_DST_REPLY, "@CTRL1", appEnd));
    EXPECT_EQ(inbox(*ctrl).size(), 1u);
    r.queue(record(IPC_DST_REPLY, "@CTRL1", fromMember(DG2::MsgRegister)));
    r.queue(record(IPC_DST_CLOSE, "@CTRL1", appEnd));
    EXPECT_EQ(inbox(*ctrl).size(), 3u) << "the registration stayed, the 127 left";
}

TEST(IpcIFThSend, RecordsGoToTheirTargetsAsStampedWireBytesWithTheirTimeOuts)
{
    Rig r(kController, "", {{"127.0.0.1", "127.255.255.255"}, {"127.1.0.1", "127.1.255.255"}});
    r.member("memb-a", "127.0.0.5", 6001);
    r.member("memb-b", "127.0.0.6", 6002, MembNotActive);
    r.member(" ident", "127.0.0.8", 6004);
    r.member("memb-bc", "", 6005, MembNotActive);
    auto a = r.peer("127.0.0.5", 6001), b = r.peer("127.0.0.6", 6002), id = r.peer("127.0.0.8", 6004);

    // One member, with a time-out: "@" source replaced by the target, stamped, header + body bytes.
    const time_t t0 = r.clock.now();
    r.queue(record(IPC_DST_ONE, "memb-a", fromController(DG2::MsgPowerReport).from("@", DG2::KindController), 10, 141));
    auto got = inbox(*a);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(text(got[0].first.srcName) + " " + std::to_string(got[0].first.hedVer) + " " + std::to_string(got[0].second),
              "127.0.0.5 1 1412");
    const int timer = r.data.GetTimerID() - 1; // the pool rotates
    EXPECT_EQ(drainDescribed(r.core), V{"0:EvTimerStart(100):" + std::to_string(timer) + "," +
                                        std::to_string(t0 + 10) + ",0,8"});

    // Every active member under its own destination name (by identity: " " + "SetUpID"[1..]); no timer.
    r.queue(record(IPC_DST_ALL, "", fromController(DG2::MsgShutdownTiming), 10, -1));
    got = inbox(*a);
    auto gotId = inbox(*id);
    ASSERT_EQ(got.size() + gotId.size(), 2u);
    EXPECT_EQ(text(got[0].first.dstName) + "|" + text(gotId[0].first.dstName), "127.0.0.5| ctrl-id");
    EXPECT_TRUE(inbox(*b).empty() && drainDescribed(r.core).empty()) << "b is not active; no timer";

    // An empty target: once to every interface's broadcast address.
    size_t before = r.net.sent().size();
    r.queue(record(IPC_DST_ONE, "memb-bc", fromController(DG2::MsgPresence)));
    auto sent = r.net.sent();
    ASSERT_EQ(sent.size(), before + 2);
    EXPECT_EQ(sent[before].toAddress + ":" + std::to_string(sent[before].toPort) + " " + sent[before + 1].toAddress,
              "127.255.255.255:6005 127.1.255.255");

    // A reply to a stranger goes only where its request came from (an uninstall exchange's 129).
    auto stranger = r.peer("127.0.0.9", 5555);
    r.sendTo(*stranger, fromMember(DG2::MsgPresence, "127.0.0.1").to("127.0.0.9", DG2::KindControllerAlt).wire());
    const DG2Builder reply = fromController(DG2::MsgPresence, "127.0.0.1").result(0).from("127.0.0.9", 81);
    r.queue(record(IPC_DST_REPLY, "127.0.0.1", reply));
    r.queue(record(IPC_DST_REPLY, "127.0.0.10", reply));
    EXPECT_EQ(inbox(*stranger).size(), 1u);
    EXPECT_EQ(r.net.sent().size(), before + 4) << "its request and the one reply: a name nobody sent from gets nothing";

    // The close send: three copies to every active member, then nothing.
    EXPECT_EQ(r.th.GetCloseSendInterval(), 60000) << "for host .1";
    r.queue(record(IPC_DST_CLOSE, "", fromController(DG2::MsgAppEnd)));
    EXPECT_EQ(inbox(*a).size() + inbox(*id).size(), 6u);
    r.queue(record(IPC_DST_ONE, "memb-a", fromController(DG2::MsgPowerReport)));
    r.queue(record(IPC_DST_ALL, "", fromController(DG2::MsgAppEnd)));
    EXPECT_TRUE(inbox(*a).empty()) << "a controller sends nothing after its close send";
    r.config->setConf("IPAddress", "127.0.0.63");
    EXPECT_EQ(r.th.GetCloseSendInterval(), 1920000);
}

TEST(IpcIFThSockets, BindAddressesRetriesAndAnUnopenableSocket)
{
    const Interfaces ifs = {{"127.0.0.3", "127.0.0.255"}, {"127.0.0.1", "127.255.255.255"}};
    {
        // A controller "1" at an address: a second socket on its broadcast address; "*": one socket.
        Rig r(kController, "", ifs);
        auto probe = r.net.socket();
        probe->open();
        EXPECT_EQ(probe->bind("127.255.255.255", 3069), UdpStatus::Error);
        r.th.end(), r.th.end();
        EXPECT_EQ(probe->bind("127.255.255.255", 3069), UdpStatus::Ok) << "end() closed it";
        Rig any("UPSController=1\nCtrlPort1=3069\nIPAddress=*ident\n", "", ifs);
        EXPECT_FALSE(any.th.broadcastOpen());
        any.sendTo(*any.peer("127.0.0.5", 6001), fromMember(DG2::MsgPresence).wire(), "127.0.0.3", 3069);
        EXPECT_EQ(any.data.receiveQueued(), 1u);
    }
    {
        // The port is taken: retried, logged once, then on unbound.
        Rig r(kMember, "", ifs, false);
        auto holder = r.peer("127.0.0.64", 3070);
        r.th.setBindRetry(3, 1, std::chrono::milliseconds(1));
        testing::internal::CaptureStderr();
        EXPECT_TRUE(r.th.InitSock() && r.th.mainPort() == 0);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "kestrava: coordination socket not bound to 127.0.0.64 "
                                                          "port 3070 after 3 attempts: Address already in use\n");
    }
    struct Unopenable : FakeUdpNetwork::Socket {
        using Socket::Socket;
        UdpStatus open() override { return UdpStatus::Error; }
    };
    Rig r(kController, "", {}, false);
    IpcIFTh::Wiring w = r.wiring();
    w.makeSocket = [&r] { return std::unique_ptr<UdpSocket>(new Unopenable(r.net)); };
    IpcIFTh th(ThIpcIF, w);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(th.InitSock()) << testing::internal::GetCapturedStderr();
    EXPECT_EQ(FatalStop::requested() ? FatalStop::status() : -99, 1) << "the main thread ends the daemon";
    FatalStop::resetForTests();
}
