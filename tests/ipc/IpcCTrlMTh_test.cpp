// The member-side protocol in virtual time: against this system's own
// controller (datagrams handed across), and alone with built datagrams.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/fakes/ControllerProtocolRig.h"
#include "tests/fakes/MemberProtocolRig.h"

namespace {

using Member = MemberProtocolRig;
using Ints = std::vector<int>;
using Strings = std::vector<std::string>;
const Strings kRegister = {"35 register r255 17:127.0.0.2 -> 19:127.0.0.1 body 70"};

int countOf(const Ints& v, int x) { return static_cast<int>(std::count(v.begin(), v.end(), x)); }

// Our controller and a member, datagrams handed across until both are quiet.
struct Pair {
    explicit Pair(const std::string& memberIni = Member::kIni) : m(memberIni) {}
    ControllerProtocolRig c{Member::with(ControllerProtocolRig::defaultIni(), "WinkTime1=30", "WinkTime1=300")};
    Member m;
    std::string memberAddress = "127.0.0.2";

    Ints run() // message numbers in the order they travelled
    {
        Ints trace;
        for (bool moved = true; moved && trace.size() < 40;) {
            moved = false;
            for (const IPC_DATA_REC& rec : m.transmit())
                trace.push_back(rec.msg.msgNo), c.receive(rec.msg, memberAddress, 3069), moved = true;
            for (IPC_DATA_REC& rec : c.transmit()) {
                if (rec.mode == IPC_DST_ALL) // the transport names each member
                    DG2SetField(rec.msg.dstName, sizeof rec.msg.dstName, memberAddress.c_str());
                trace.push_back(rec.msg.msgNo), m.receive(rec.msg), moved = true;
            }
        }
        return trace;
    }
};

} // namespace

TEST(IpcCTrlMThWithController, RegistersThenReRegistersTheFullAndTheShortWayAndFollowsPowerReports)
{
    Pair p;
    const Ints full = {35, 35, 0, 0, 181, 181, 140, 140, 141, 141};
    EXPECT_EQ(p.run(), full);
    EXPECT_EQ(Ints({p.m.th->Controller().status, p.m.core->ShutDownGetCommStatus(0)}), Ints({MembActive, 1}));
    // Saved; timing taken, the command not ("AcceptControllerCommand=0"); the list keeps the timing for the next start.
    for (auto kv : {std::make_pair("MemberEntry1", "1"), {"MyID1", "127.0.0.2"}, {"HostName1", "127.0.0.1"},
                    {"UGName1", "rack-3"}, {"WinkTime1", "300"}, {"AppTermCommand1", ""}})
        EXPECT_EQ(p.m.onDisk(kv.first), kv.second) << kv.first;
    FileMap list(p.m.dir.file("Membercnt.cfg"));
    EXPECT_EQ(list.getConf("WinkTime") + "|" + list.getConf("AppTermCommand"), "300|");
    EXPECT_EQ(Ints({p.m.left(TmHealth), p.m.commErrLeft()}), Ints({30, 90}));

    // Health check at the old address: the controller answers the full way, which the member follows.
    p.m.expire(TmHealth);
    EXPECT_EQ(p.run(), full);
    EXPECT_EQ(p.m.th->Controller().sq, SqRenew);
    EXPECT_EQ(p.m.left(TmHealth), 30);
    // From another address the controller takes the short way.
    p.memberAddress = "127.0.0.3";
    p.m.expire(TmHealth);
    EXPECT_EQ(p.run(), (Ints{35, 35, 141, 141, 181, 181}));
    EXPECT_EQ(p.m.th->Controller().status, MembActive);
    EXPECT_TRUE(p.m.replyTimers().empty());
    EXPECT_EQ(countOf(p.m.logCodes(), 5), 1);

    // Utility lost on the controller's UPS 100 s before its report: the wink runs the rest of its 300 s.
    const unsigned char map[8] = {0, 0, 0, 0, 0, 0, 0, 0x08}, active[1] = {1};
    p.c.ups->setAlarmNo(map, 8, 0);
    p.c.ups->setActionLevel(active, 1, 0);
    p.c.ups->checkAlarm(0);
    p.c.clock.advance(100);
    p.c.event(EvSendUpsStatus);
    p.run();
    EXPECT_EQ(p.m.left(TmWink), 200);
    EXPECT_TRUE(p.m.core->ShutDownGetPFStatus(0));
    EXPECT_TRUE(p.m.ups->isAlarmActive(59, 0));
}

TEST(IpcCTrlMThStart, FirstTimerAndRegistrationFollowHowTheControllerIsNamed)
{
    Member fresh;
    EXPECT_EQ(Ints({fresh.commErrLeft(), fresh.th->Controller().status}), Ints({60, MembNoEntry}));

    Member known(Member::with(Member::with(Member::kIni, "MemberEntry1=0", "MemberEntry1=1"), "MyID1=", "MyID1=m-7"));
    EXPECT_EQ(Ints({known.commErrLeft(), known.th->Controller().status}), Ints({30, MembNotActive}));
    std::vector<IPC_DATA_REC> out = known.transmit();
    DG2Address body;
    ASSERT_TRUE(out.size() == 1 && DG2UnpackAddress(out[0].msg, &body));
    EXPECT_EQ(DG2Describe(out[0].msg) + " " + out[0].name, kRegister[0] + " @CTRL1");
    EXPECT_EQ(body.memberId + "|" + body.address + "|" + std::to_string(body.port), "m-7|127.0.0.2|3069");

    // By identity: named by it both ways, reached where its first datagram comes from; the ID's leading
    // blank, lost in the file, is put back by the next request.
    Member byId(Member::kIni, "*ABCD");
    EXPECT_EQ(byId.th->GetDisplayType(), 1);
    EXPECT_EQ(byId.sent(), Strings{"35 register r255 17: ABCD -> 19: ABCD body 70"});
    EXPECT_EQ(std::string(byId.th->Controller().address), "");
    byId.receive(Member::registrationAnswer(" ABCD0001", " ABCD"), "127.0.0.9");
    EXPECT_EQ(std::string(byId.th->Controller().address), "127.0.0.9");
    EXPECT_EQ(byId.config->getConf("MyID1"), " ABCD0001");
    Member reloaded(Member::with(Member::kIni, "MyID1=", "MyID1=ABCD0001"), "*ABCD");
    ASSERT_TRUE(DG2UnpackAddress(reloaded.transmit().at(0).msg, &body));
    EXPECT_EQ(body.memberId, " ABCD0001");
}

TEST(IpcCTrlMThReports, EachCodeOnceInARowAndARestartKeepsThePowerTimers)
{
    Pair p;
    p.run();
    Member& r = p.m;
    EXPECT_EQ(r.th->Controller().status, MembActive);
    for (auto [since, commLost] : {std::pair{4, 0}, {5, 0}, {6, 1}, {7, 1}, {8, 0}})
        r.receive(Member::report(true, since, commLost));
    EXPECT_EQ(r.left(TmWink), 300 - 4);
    for (int code : {5, int(LogUpsCommError), int(LogUpsCommEstablished)})
        EXPECT_EQ(countOf(r.logCodes(), code), 1) << code;
    EXPECT_EQ(r.sent().size(), 5u); // every report answered

    r.posted.clear();
    r.expire(IpcCTrlTh::CommErrTimerId(1));
    r.expire(IpcCTrlTh::CommErrTimerId(1));
    EXPECT_EQ(r.logCodes(), Ints{4});
    EXPECT_EQ(Ints({r.th->Controller().status, r.core->ShutDownGetCommStatus(0)}), Ints({MembCommFail, 2}));

    // The health check's registration unanswered: asked again every 5 s.
    auto askedOnce = [&r] { return r.sent().size() == 1 && r.replyTimers().size() == 1; };
    r.expire(TmHealth);
    ASSERT_TRUE(askedOnce());
    r.expire(r.replyTimers()[0]);
    ASSERT_TRUE(askedOnce());
    EXPECT_EQ(r.left(r.replyTimers()[0]), 5);

    // Stopped timers: a fresh registration; only reply timers stop, the slot's power timers go on.
    r.posted.clear();
    r.event(EvTimersStopped);
    EXPECT_EQ(r.sent(), kRegister);
    EXPECT_EQ(r.replyTimers().size(), 1u);
    for (const EVENTMSGINFO& ev : r.posted)
        EXPECT_TRUE(ev.code != EvTimerStop || (ev.params[0] >= TmNetFirst && ev.params[0] <= TmNetLast)) << describe(ev);
    EXPECT_EQ(r.left(TmWink), 296);
    // Answered the short way: registered again, 5 once more.
    r.receive(Member::registrationAnswer("127.0.0.2"));
    r.receive(Member::report(true, 9));
    r.receive(Member::timing(10, 1, ""));
    EXPECT_EQ(r.logCodes(), Ints{5});
    EXPECT_EQ(Ints({r.th->Controller().status, int(r.sent().size())}), Ints({MembActive, 2}));
}

TEST(IpcCTrlMThTrust, ReportsAndTimingOutsideAnExchangeOrMalformedAreNotObeyed)
{
    Member r;
    r.transmit();
    r.receive(Member::report(true, 100));
    r.receive(Member::timing(99, 9, "/bin/evil"));
    r.receive(Member::fromController(DG2::MsgMemberInfo230).msg());
    EXPECT_TRUE(r.sent().empty());
    EXPECT_EQ(std::to_string(r.left(TmWink)) + " " + r.config->getConf("WinkTime1"), "-1 10");

    // A settings request whose host name breaks a line: answered, not stored.
    r.receive(Member::registrationAnswer("127.0.0.2"));
    DG2Settings s;
    s.hostName = "ctrl", s.groupName = "rack";
    DG2MessageType bad =
        Member::fromController(DG2::MsgSettings).pack([&](DG2MessageType* m) { return DG2PackSettings(m, s); }).msg();
    bad.body[4] = '\n';
    r.receive(bad);
    EXPECT_EQ(r.sent(), Strings{"0 settings r0 17:127.0.0.2 -> 19:127.0.0.1 body 497"});
    EXPECT_EQ(r.config->getConf("HostName1") + r.config->getConf("UGName1"), "");

    // The member's own timing kept, the command taken, when so configured.
    Pair own(Member::with(Member::with(Member::kIni, "AcceptControllerCommand=0", "AcceptControllerCommand=1"),
                          "AcceptControllerTiming=1", "AcceptControllerTiming=0"));
    own.run();
    EXPECT_EQ(own.m.onDisk("WinkTime1") + " " + own.m.onDisk("AppTermCommand1"), "10 /bin/true");
}
