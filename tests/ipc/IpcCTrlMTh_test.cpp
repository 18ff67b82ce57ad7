// The member-side protocol in virtual time: against this system's own
// controller (both threads driven by hand, datagrams handed across), and
// alone with the controller's datagrams built by the test.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "ipc/GetHostNameTh.h"
#include "tests/fakes/ControllerProtocolRig.h"
#include "tests/fakes/MemberProtocolRig.h"

namespace {

using Member = MemberProtocolRig;
using Ints = std::vector<int>;

std::string replaced(std::string text, const std::string& from, const std::string& to)
{
    text.replace(text.find(from), from.size(), to);
    return text;
}

int countOf(const Ints& v, int x) { return static_cast<int>(std::count(v.begin(), v.end(), x)); }

// A controller rig and a member rig with datagrams handed across.
struct Pair {
    ControllerProtocolRig c{replaced(ControllerProtocolRig::defaultIni(), "WinkTime1=30", "WinkTime1=300")};
    Member m;
    std::string memberAddress = "127.0.0.2";

    // Moves datagrams both ways until neither side queues more: the
    // message numbers in the order they travelled.
    Ints run()
    {
        Ints trace;
        for (int guard = 0; guard < 20; ++guard) {
            bool moved = false;
            for (const IPC_DATA_REC& rec : m.transmit()) {
                trace.push_back(rec.msg.msgNo);
                c.receive(rec.msg, memberAddress, 3069);
                moved = true;
            }
            for (IPC_DATA_REC& rec : c.transmit()) {
                trace.push_back(rec.msg.msgNo);
                // A request to all members: the transport names each one.
                if (rec.mode == IPC_DST_ALL)
                    DG2SetField(rec.msg.dstName, sizeof rec.msg.dstName, memberAddress.c_str());
                m.receive(rec.msg);
                moved = true;
            }
            if (!moved)
                break;
        }
        return trace;
    }
};

// The member registered with its controller through the full exchange, the
// controller played by the test.
void registerByHand(Member& r)
{
    r.receive(Member::registrationAnswer("127.0.0.2"));
    DG2Settings s;
    s.hostName = "ctrl-a";
    s.groupName = "rack-3";
    r.receive(Member::fromController(DG2::MsgSettings).pack([&](DG2MessageType* m) {
        return DG2PackSettings(m, s);
    }).msg());
    r.receive(Member::timing(10, 1, ""));
    r.receive(Member::fromController(DG2::MsgAccessCode).pack([](DG2MessageType* m) {
        return DG2PackAccessCode(m, "8000");
    }).msg());
    r.receive(Member::report(false, 0));
    r.transmit();
}

} // namespace

TEST(IpcCTrlMThWithController, RegistersThenReRegistersTheFullAndTheShortWayAndFollowsPowerReports)
{
    Pair p;
    const Ints full = {35, 35, 0, 0, 181, 181, 140, 140, 141, 141};
    EXPECT_EQ(p.run(), full);
    EXPECT_EQ(p.c.member("127.0.0.2").status, MembActive);
    EXPECT_EQ(p.m.th->Controller().status, MembActive);
    EXPECT_EQ(p.m.core->ShutDownGetCommStatus(0), 1);
    for (auto kv : {std::make_pair("MemberEntry1", "1"), {"MyID1", "127.0.0.2"}, {"HostName1", "127.0.0.1"},
                    {"UGName1", "rack-3"}})
        EXPECT_EQ(p.m.confOnDisk(kv.first), kv.second) << kv.first;
    // Timing taken, the command not ("AcceptControllerCommand=0"); the
    // controller list keeps the timing for the next start.
    EXPECT_EQ(p.m.confOnDisk("WinkTime1"), "300");
    EXPECT_EQ(p.m.confOnDisk("AppTermCommand1"), "");
    FileMap list(p.m.dir.file("Membercnt.cfg"));
    EXPECT_EQ(list.getConf("WinkTime") + "|" + list.getConf("AppTermCommand"), "300|");
    EXPECT_EQ(p.m.left(TmHealth), 30);
    EXPECT_EQ(p.m.commErrLeft(), 90);
    EXPECT_TRUE(p.m.replyTimers().empty());

    // The health check: the controller gives a member at its old address
    // the full exchange again, which the member follows from its short one.
    p.m.expire(TmHealth);
    EXPECT_EQ(p.run(), full);
    EXPECT_EQ(p.m.th->Controller().status, MembActive);
    EXPECT_EQ(p.m.th->Controller().sq, SqRenew);
    EXPECT_TRUE(p.m.replyTimers().empty());
    EXPECT_EQ(p.m.left(TmHealth), 30);

    // From another address the controller takes the short way.
    p.memberAddress = "127.0.0.3";
    p.m.expire(TmHealth);
    EXPECT_EQ(p.run(), (Ints{35, 35, 141, 141, 181, 181}));
    EXPECT_EQ(p.c.member("127.0.0.2").status, MembActive);
    EXPECT_EQ(p.m.th->Controller().status, MembActive);
    EXPECT_TRUE(p.m.replyTimers().empty());
    EXPECT_EQ(countOf(p.m.logCodes(), 5), 1);

    // Utility lost on the controller's UPS 100 s before its report: the
    // slot's wink runs for the rest of its 300 s on the member.
    const unsigned char map[8] = {0, 0, 0, 0, 0, 0, 0, 0x08};
    const unsigned char active[1] = {1};
    p.c.ups->setAlarmNo(map, 8, 0);
    p.c.ups->setActionLevel(active, 1, 0);
    p.c.ups->checkAlarm(0);
    p.c.clock.advance(100);
    p.c.event(EvSendUpsStatus);
    p.run();
    EXPECT_EQ(p.m.left(TmWink), 200);
    EXPECT_EQ(p.m.core->ShutDownGetPFStatus(0), true);
    EXPECT_TRUE(p.m.ups->isAlarmActive(59, 0));
}

TEST(IpcCTrlMThStart, FirstTimerAndRegistrationFollowHowTheControllerIsNamed)
{
    Member fresh;
    EXPECT_EQ(fresh.commErrLeft(), 60);
    EXPECT_EQ(fresh.th->Controller().status, MembNoEntry);
    EXPECT_EQ(fresh.th->GetDisplayType(), 0);
    EXPECT_EQ(fresh.th->GeDisplayHostName(), "127.0.0.1");

    Member known(replaced(replaced(Member::defaultIni(), "MemberEntry1=0", "MemberEntry1=1"), "MyID1=", "MyID1=m-7"));
    EXPECT_EQ(known.commErrLeft(), 30);
    EXPECT_EQ(known.th->Controller().status, MembNotActive);
    std::vector<IPC_DATA_REC> out = known.transmit();
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(DG2Describe(out[0].msg), "35 register r255 17:127.0.0.2 -> 19:127.0.0.1 body 70");
    DG2Address body;
    ASSERT_TRUE(DG2UnpackAddress(out[0].msg, &body));
    EXPECT_EQ(body.memberId, "m-7");
    EXPECT_EQ(body.address, "127.0.0.2");
    EXPECT_EQ(body.port, 3069);
    EXPECT_EQ(std::string(out[0].name), "@CTRL1");

    // By identity: named by the identity text both ways, reached where its
    // first datagram comes from; the registration answer names the ID.
    Member byId(Member::defaultIni(), replaced(Member::defaultList(), "IPAddress1=127.0.0.1", "IPAddress1=*ABCD"));
    EXPECT_EQ(byId.th->GetDisplayType(), 1);
    EXPECT_EQ(byId.sent(), (std::vector<std::string>{"35 register r255 17: ABCD -> 19: ABCD body 70"}));
    EXPECT_EQ(std::string(byId.th->Controller().address), "");
    byId.receive(Member::registrationAnswer(" ABCD0001", " ABCD"), "127.0.0.9");
    EXPECT_EQ(std::string(byId.th->Controller().address), "127.0.0.9");
    EXPECT_EQ(byId.config->getConf("MyID1"), " ABCD0001");
    // The file does not keep the ID's leading blank; the request puts it back.
    Member reloaded(replaced(Member::defaultIni(), "MyID1=", "MyID1=ABCD0001"),
                    replaced(Member::defaultList(), "IPAddress1=127.0.0.1", "IPAddress1=*ABCD"));
    ASSERT_TRUE(DG2UnpackAddress(reloaded.transmit().at(0).msg, &body));
    EXPECT_EQ(body.memberId, " ABCD0001");
}

TEST(IpcCTrlMThReports, EachCodeOnceInARowAndARestartKeepsThePowerTimers)
{
    Member r;
    registerByHand(r);
    EXPECT_EQ(r.th->Controller().status, MembActive);
    r.receive(Member::report(true, 4));
    r.receive(Member::report(true, 5));
    r.receive(Member::report(true, 6, 1));
    r.receive(Member::report(true, 7, 1));
    r.receive(Member::report(true, 8, 0));
    EXPECT_EQ(r.left(TmWink), 10 - 4);
    Ints codes = r.logCodes();
    EXPECT_EQ(countOf(codes, 5), 1);
    EXPECT_EQ(countOf(codes, LogUpsCommError), 1);
    EXPECT_EQ(countOf(codes, LogUpsCommEstablished), 1);
    EXPECT_EQ(r.sent().size(), 5u); // every report answered

    r.posted.clear();
    r.expire(IpcCTrlTh::CommErrTimerId(1));
    r.expire(IpcCTrlTh::CommErrTimerId(1));
    EXPECT_EQ(r.logCodes(), (Ints{4}));
    EXPECT_EQ(r.th->Controller().status, MembCommFail);
    EXPECT_EQ(r.core->ShutDownGetCommStatus(0), 2);

    // The health check's registration unanswered: asked again every 5 s.
    r.expire(TmHealth);
    ASSERT_EQ(r.sent().size(), 1u);
    ASSERT_EQ(r.replyTimers().size(), 1u);
    r.expire(r.replyTimers()[0]);
    ASSERT_EQ(r.sent().size(), 1u);
    ASSERT_EQ(r.replyTimers().size(), 1u);
    EXPECT_EQ(r.left(r.replyTimers()[0]), 5);

    // Stopped timers: the member registers afresh (the repetition ends)
    // and leaves the slot's power timers alone.
    r.posted.clear();
    r.event(EvTimersStopped);
    EXPECT_EQ(r.sent(), (std::vector<std::string>{"35 register r255 17:127.0.0.2 -> 19:127.0.0.1 body 70"}));
    EXPECT_EQ(r.replyTimers().size(), 1u);
    for (const EVENTMSGINFO& ev : r.posted) {
        if (ev.code == EvTimerStop) {
            EXPECT_TRUE(ev.params[0] >= TmNetFirst && ev.params[0] <= TmNetLast) << describe(ev);
        }
    }
    EXPECT_EQ(r.left(TmWink), 6);
    // The controller answers the short way: registered again, 5 once more.
    r.receive(Member::registrationAnswer("127.0.0.2"));
    r.receive(Member::report(true, 9));
    r.receive(Member::timing(10, 1, ""));
    EXPECT_EQ(r.logCodes(), (Ints{5}));
    EXPECT_EQ(r.th->Controller().status, MembActive);
    EXPECT_EQ(r.sent().size(), 2u);
}

TEST(IpcCTrlMThTrust, ReportsAndTimingOutsideAnExchangeOrMalformedAreNotObeyed)
{
    Member r;
    r.transmit();
    r.receive(Member::report(true, 100));
    r.receive(Member::timing(99, 9, "/bin/evil"));
    r.receive(Member::fromController(DG2::MsgMemberInfo230).msg());
    EXPECT_TRUE(r.sent().empty());
    EXPECT_EQ(r.left(TmWink), -1);
    EXPECT_EQ(r.config->getConf("WinkTime1"), "10");

    // A settings request whose host name breaks a line: answered, not stored.
    r.receive(Member::registrationAnswer("127.0.0.2"));
    DG2Settings s;
    s.hostName = "ctrl";
    s.groupName = "rack";
    DG2MessageType bad =
        Member::fromController(DG2::MsgSettings).pack([&](DG2MessageType* m) { return DG2PackSettings(m, s); }).msg();
    bad.body[4] = '\n';
    r.receive(bad);
    EXPECT_EQ(r.sent(), (std::vector<std::string>{"0 settings r0 17:127.0.0.2 -> 19:127.0.0.1 body 497"}));
    EXPECT_EQ(r.config->getConf("HostName1"), "");
    EXPECT_EQ(r.config->getConf("UGName1"), "");

    // The member's own timing kept, the command taken, when so configured.
    Member own(replaced(replaced(Member::defaultIni(), "AcceptControllerCommand=0", "AcceptControllerCommand=1"),
                        "AcceptControllerTiming=1", "AcceptControllerTiming=0"));
    registerByHand(own);
    own.receive(Member::timing(99, 9, "/usr/local/bin/stop-db"));
    EXPECT_EQ(own.confOnDisk("WinkTime1"), "10");
    EXPECT_EQ(own.confOnDisk("AppTermCommand1"), "/usr/local/bin/stop-db");
    EXPECT_EQ(own.sent().size(), 1u);
}

TEST(IpcCTrlMThHostName, UnknownNameIsReportedOnceAndResolvedAddressesAreTriedInTurn)
{
    std::vector<std::string> known;
    IpcCTrlMTh* requesters[4] = {};
    GetHostNameTh host(ThHostName, requesters, nullptr,
                       [&](const std::string& name, std::vector<std::string>* out) {
                           if (name != "ctrl-a" || known.empty())
                               return false;
                           *out = known;
                           return true;
                       });
    Member r(Member::defaultIni(), replaced(Member::defaultList(), "IPAddress1=127.0.0.1", "IPAddress1=ctrl-a"),
             [&](int index) { host.GetHostName(index); }, false);
    requesters[0] = r.th.get();
    r.start();
    r.event(EvTimersStopped);
    EXPECT_TRUE(r.sent().empty());
    EXPECT_EQ(r.logCodes(), (Ints{292}));
    EXPECT_EQ(r.th->GetDisplayType(), 2);
    EXPECT_EQ(r.th->GeDisplayHostName(), "ctrl-a");

    known = {"127.0.0.7", "127.0.0.8"};
    r.event(EvTimersStopped);
    EXPECT_EQ(r.sent(), (std::vector<std::string>{"35 register r255 17:127.0.0.2 -> 19:ctrl-a body 70"}));
    EXPECT_EQ(std::string(r.th->Controller().address), "127.0.0.7");
    ASSERT_EQ(r.replyTimers().size(), 1u);
    r.expire(r.replyTimers()[0]);
    EXPECT_EQ(r.sent().size(), 1u);
    EXPECT_EQ(std::string(r.th->Controller().address), "127.0.0.8");
    EXPECT_EQ(r.logCodes(), (Ints{292}));
}
