// The controller-side protocol, run in virtual time: the member exchange
// and what each step sends, member IDs of members known by identity,
// repetitions and give-ups, the communication-error timer, refused input,
// and the presence and uninstall answers to strangers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/fakes/ControllerProtocolRig.h"

namespace {

using Rig = ControllerProtocolRig;

// How a request or a reply of this controller (own address 127.0.0.1) reads.
std::string req(int msg, const std::string& to, int body)
{
    DG2MessageType m = DG2Builder(static_cast<uint8_t>(msg)).from("127.0.0.1", 19).to(to.c_str(), 17).msg();
    m.bodyLen = static_cast<uint16_t>(body);
    return DG2Describe(m);
}

std::string rep(int msg, const std::string& to, int body, const std::string& from = "127.0.0.1")
{
    DG2MessageType m = DG2Builder(static_cast<uint8_t>(msg)).result(0).from(from.c_str(), 19).to(to.c_str(), 17).msg();
    m.bodyLen = static_cast<uint16_t>(body);
    return DG2Describe(m);
}

// Answers every request in turn until the exchange ends; the requests seen.
std::vector<int> runExchange(Rig& r, const DG2MessageType& registration, const std::string& addr, int port,
                             const std::string& answerFrom)
{
    std::vector<int> seen;
    r.receive(registration, addr, port);
    for (int guard = 0; guard < 10; ++guard) {
        std::vector<IPC_DATA_REC> out = r.transmit();
        int request = -1;
        for (const IPC_DATA_REC& rec : out)
            if (rec.msg.result == DG2::kResultRequest)
                request = rec.msg.msgNo;
        if (request < 0)
            break;
        seen.push_back(request);
        r.receive(request == DG2::MsgSettings ? Rig::settingsAnswer(answerFrom, "memb-host")
                                              : Rig::answer(request, answerFrom),
                  addr, port);
    }
    return seen;
}

} // namespace

TEST(IpcCTrlCThExchange, NewMemberWalksTheFullExchangeAndBecomesActive)
{
    Rig r;
    r.receive(Rig::registration("127.0.0.5", 3069), "127.0.0.5", 3069);
    std::vector<IPC_DATA_REC> out = r.transmit();
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(DG2Describe(out[0].msg), rep(35, "127.0.0.5", 70));
    DG2Address echoed;
    ASSERT_TRUE(DG2UnpackAddress(out[0].msg, &echoed));
    EXPECT_EQ(echoed.memberId, "127.0.0.5") << "a member by address is registered under its source name";
    EXPECT_EQ(DG2Describe(out[1].msg), req(0, "127.0.0.5", 497));
    EXPECT_EQ(out[1].mode, IPC_DST_REPLY);
    EXPECT_EQ(out[1].ret.limit, 3);
    DG2Settings s;
    ASSERT_TRUE(DG2UnpackSettings(out[1].msg, &s));
    EXPECT_EQ(s.hostName + "|" + s.groupName + "|" + std::to_string(s.port) + "|" + std::to_string(s.shutdownDelay) +
                  "|" + std::to_string(s.countdownTime) + "|" + std::to_string(s.winkTime) + "|" +
                  std::to_string(s.appEndTime) + "|" + s.runCommand,
              "127.0.0.1|rack-3|3052|120|5|30|60|/bin/true");

    r.receive(Rig::settingsAnswer("127.0.0.5", "memb-host"), "127.0.0.5", 3069);
    out = r.transmit();
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(DG2Describe(out[0].msg), req(181, "127.0.0.5", 152));
    DG2_ShutdownTimming t;
    ASSERT_TRUE(DG2UnpackShutdownTiming(out[0].msg, &t));
    EXPECT_EQ(std::vector<int>({t.winkTime, t.shutdownTime, t.appTermTimeOut, t.shutdownDelay}),
              std::vector<int>({30, 5, 60, 120}));

    r.receive(Rig::answer(181, "127.0.0.5"), "127.0.0.5", 3069);
    out = r.transmit();
    ASSERT_EQ(out.size(), 1u);
    std::string code;
    ASSERT_TRUE(DG2UnpackAccessCode(out[0].msg, &code));
    EXPECT_EQ(DG2Describe(out[0].msg) + " " + code, req(140, "127.0.0.5", 100) + " 8000");

    r.clock.advance(7);
    r.receive(Rig::answer(140, "127.0.0.5"), "127.0.0.5", 3069);
    out = r.transmit();
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(DG2Describe(out[0].msg), req(141, "127.0.0.5", 1328));
    EXPECT_EQ(out[0].ret.limit, 0);
    DG2PowerReportBody p;
    ASSERT_TRUE(DG2UnpackPowerReport(out[0].msg, &p));
    EXPECT_EQ(p.restarted, 1) << "first report after start";
    EXPECT_EQ(p.reportTime, int32_t(r.clock.now()));

    r.receive(Rig::answer(141, "127.0.0.5"), "127.0.0.5", 3069);
    EXPECT_TRUE(r.sent().empty());
    const int slot = r.slotOf("127.0.0.5");
    EXPECT_EQ(r.member("127.0.0.5").status, MembActive);
    EXPECT_EQ(r.member("127.0.0.5").sq, SqIdle);
    EXPECT_EQ(r.commErrTimerLeft(slot), 90);
    EXPECT_TRUE(r.replyTimers().empty()) << "every answer ended the time-out that waited for it";
    EXPECT_EQ(readLines(r.dir.file("MembInfo.dat")),
              (std::vector<std::string>{"127.0.0.5", "memb-host", "127.0.0.5", "3069"}));
    EXPECT_NE(r.dir.read("membCommInfo.tmp").find("Status = Active"), std::string::npos);
    // Its answer to a power report sent to all members ends that report's time-out.
    r.event(EvSendUpsStatus);
    r.transmit();
    r.receive(Rig::answer(141, "127.0.0.5"), "127.0.0.5", 3069);
    EXPECT_TRUE(r.replyTimers().empty());

    // Registering again from the same address: the full exchange again, and
    // the timer runs its 90 seconds from its end.
    r.clock.advance(40);
    EXPECT_EQ(runExchange(r, Rig::registration("127.0.0.5", 3069), "127.0.0.5", 3069, "127.0.0.5"),
              (std::vector<int>{0, 181, 140, 141}));
    EXPECT_EQ(r.commErrTimerLeft(slot), 90);
    // From another address: 141 then 181, the new address stored, still active.
    r.clock.advance(40);
    r.receive(Rig::registration("127.0.0.5", 3069), "127.0.0.6", 3069);
    out = r.transmit();
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(DG2Describe(out[1].msg), req(141, "127.0.0.6", 1328));
    ASSERT_TRUE(DG2UnpackPowerReport(out[1].msg, &p));
    EXPECT_EQ(p.restarted, 0);
    r.receive(Rig::answer(141, "127.0.0.6"), "127.0.0.6", 3069);
    EXPECT_EQ(r.sent(), std::vector<std::string>{req(181, "127.0.0.6", 152)});
    r.receive(Rig::answer(181, "127.0.0.6"), "127.0.0.6", 3069);
    EXPECT_TRUE(r.sent().empty());
    EXPECT_EQ(r.member("127.0.0.5").status, MembActive);
    EXPECT_EQ(r.commErrTimerLeft(slot), 90) << "re-armed at the end of the short exchange";
    EXPECT_EQ(readLines(r.dir.file("MembInfo.dat"))[2], "127.0.0.6");
}

TEST(IpcCTrlCThIdentity, MembersByIdentityGetNumberedIdsAndFinishTheirExchange)
{
    {
        Rig r;
        auto reg = [](const char* id) {
            DG2Address a{id, "127.0.0.7", 3069};
            return DG2Builder(DG2::MsgRegister).from(" ABCD", 17).to(" WXYZ", 19)
                .pack([&](DG2MessageType* m) { return DG2PackAddress(m, DG2::MsgRegister, a); }).msg();
        };
        r.receive(reg(""), "127.0.0.7", 3069);
        std::vector<IPC_DATA_REC> out = r.transmit();
        ASSERT_EQ(out.size(), 2u);
        DG2Address echoed;
        ASSERT_TRUE(DG2UnpackAddress(out[0].msg, &echoed));
        EXPECT_EQ(echoed.memberId, " ABCD0001");
        EXPECT_EQ(DG2Describe(out[0].msg), rep(35, " ABCD", 70, " WXYZ")) << "reply to the destination text";
        EXPECT_EQ(DG2Describe(out[1].msg), req(0, " ABCD", 497));
        EXPECT_EQ(r.config->getConf("MemberIDData"), "1");
        EXPECT_EQ(FileMap(r.dir.file("Kestrava.ini")).getConf("MemberIDData"), "1") << "saved";
        EXPECT_EQ(r.member(" ABCD0001").flag, 1);

        // Its answers come under the identity text or its member ID, from its address.
        for (int msg : {0, 181, 140, 141}) {
            const char* from = msg == 140 ? " ABCD0001" : " ABCD";
            r.receive(msg == 0 ? Rig::settingsAnswer(from, "id-host") : Rig::answer(msg, from), "127.0.0.7", 3069);
            r.transmit();
        }
        EXPECT_EQ(r.member(" ABCD0001").status, MembActive);

        r.receive(reg(""), "127.0.0.8", 3069);
        ASSERT_TRUE(DG2UnpackAddress(r.transmit()[0].msg, &echoed));
        EXPECT_EQ(echoed.memberId, " ABCD0002");
        // A member presenting the ID it was given keeps it: no new number.
        EXPECT_EQ(runExchange(r, reg(" ABCD0001"), "127.0.0.7", 3069, " ABCD"), (std::vector<int>{0, 181, 140, 141}));
        EXPECT_EQ(r.config->getConf("MemberIDData"), "2");
        EXPECT_EQ(r.slotOf(" ABCD0003"), 0);
    }
    {
        // 65535 wraps to 1; numbers in use are skipped.
        std::string ini = Rig::defaultIni();
        ini.replace(ini.find("MemberIDData=0"), 14, "MemberIDData=65535");
        Rig r(ini, " ABCD0001\nm1\n127.0.0.21\n3069\n ABCD0002\nm2\n127.0.0.22\n3069\n");
        EXPECT_EQ(r.th->GetMember_ID(), " ABCD0003");
        EXPECT_EQ(r.config->getConf("MemberIDData"), "3");
    }
}

TEST(IpcCTrlCThRepeat, UnansweredRequestsAreRepeatedUpToTheirLimit)
{
    Rig r;
    r.receive(Rig::registration("127.0.0.5", 3069), "127.0.0.5", 3069);
    EXPECT_EQ(r.sent().size(), 2u);
    int transmissions = 1;
    for (int guard = 0; guard < 10 && !r.replyTimers().empty(); ++guard) {
        r.expire(r.replyTimers()[0]);
        for (const IPC_DATA_REC& rec : r.transmit()) {
            EXPECT_EQ(DG2Describe(rec.msg), req(0, "127.0.0.5", 497));
            ++transmissions;
        }
    }
    EXPECT_EQ(transmissions, 3) << "limit 3: the first transmission and two repetitions";
    EXPECT_EQ(r.member("127.0.0.5").sq, SqIdle) << "given up: the sequence starts afresh";

    // Requests to all members: 141 is never repeated, 140 and 181 are, 127 has no time-out.
    r.event(EvSendUpsStatus);
    std::vector<IPC_DATA_REC> out = r.transmit();
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].mode, IPC_DST_ALL);
    EXPECT_EQ(DG2Describe(out[0].msg), req(141, "", 1328));
    r.expire(r.replyTimers().at(0));
    EXPECT_TRUE(r.sent().empty());
    r.event(EvConfigChanged);
    r.event(EvTimingChanged);
    r.event(EvShutdownStatus, {1, 0});
    out = r.transmit();
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(std::vector<int>({out[0].msg.msgNo, out[0].ret.limit, out[1].msg.msgNo, out[1].ret.limit}),
              std::vector<int>({140, 3, 181, 3}));
    EXPECT_EQ(out[2].mode, IPC_DST_CLOSE);
    DG2AppEnd appEnd;
    ASSERT_TRUE(DG2UnpackAppEnd(out[2].msg, &appEnd));
    EXPECT_EQ(std::to_string(appEnd.value1) + "," + std::to_string(appEnd.value2) + "," + appEnd.senderName,
              "1,0,127.0.0.1");
    EXPECT_EQ(out[2].ret.timeOut, 0);
}

TEST(IpcCTrlCThCommErr, SilentMemberFailsAndRecoversByRegistering)
{
    Rig r;
    EXPECT_EQ(runExchange(r, Rig::registration("127.0.0.5", 3069), "127.0.0.5", 3069, "127.0.0.5").size(), 4u);
    const int slot = r.slotOf("127.0.0.5");
    ASSERT_TRUE(r.commErrTimerRunning(slot));
    r.expire(IpcCTrlTh::CommErrTimerId(slot));
    EXPECT_EQ(r.member("127.0.0.5").status, MembCommFail);
    EXPECT_NE(r.dir.read("membCommInfo.tmp").find("Status = Comm Fail"), std::string::npos);
    runExchange(r, Rig::registration("127.0.0.5", 3069), "127.0.0.5", 3069, "127.0.0.5");
    EXPECT_EQ(r.member("127.0.0.5").status, MembActive);
    EXPECT_TRUE(r.commErrTimerRunning(slot));

    // Its application end: not active any more, its timer stopped.
    DG2AppEnd a{1, 0, "127.0.0.5"};
    r.receive(DG2Builder(DG2::MsgAppEnd).from("127.0.0.5", 17).to("127.0.0.1", 19)
                  .pack([&](DG2MessageType* m) { return DG2PackAppEnd(m, a); }).msg(),
              "127.0.0.5", 3069);
    EXPECT_EQ(r.member("127.0.0.5").status, MembNotActive);
    EXPECT_FALSE(r.commErrTimerRunning(slot));
    EXPECT_TRUE(r.sent().empty());
}

TEST(IpcCTrlCThRefused, BadInputCreatesNoMemberAndSendsNothing)
{
    Rig r;
    auto reg = [](const char* src, const char* dst, const std::string& port) {
        DG2Address a{"", "127.0.0.9", 3069};
        DG2Builder b(DG2::MsgRegister);
        b.from(src, 17).to(dst, 19).pack([&](DG2MessageType* m) { return DG2PackAddress(m, DG2::MsgRegister, a); });
        std::string field(6, '\0');
        field.replace(0, port.size(), port);
        b.bodyBytes(64, field);
        return b.msg();
    };
    const std::vector<DG2MessageType> bad = {
        reg("", "127.0.0.1", "3069"),           // no source name
        reg(" WXYZ", "127.0.0.1", "3069"),      // another controller's identity
        reg(" ABCD", " ABCDEF", "3069"),        // addressed to an identity of another length
        reg("127.0.0.9", "127.0.0.1", "0"),     // port 0
        reg("127.0.0.9", "127.0.0.1", "30x9"),  // port not decimal
        reg("127.0.0.9", "127.0.0.1", "65536"), // port out of range
        DG2Builder(DG2::MsgPowerReport).from("127.0.0.9", 17).to("127.0.0.1", 19).msg(), // not a member
        DG2Builder(DG2::MsgMemberInfo229).from("127.0.0.9", 17).to("127.0.0.1", 19).msg(),
    };
    for (const DG2MessageType& m : bad)
        r.receive(m, "127.0.0.9", 3069);
    EXPECT_TRUE(r.sent().empty());
    EXPECT_EQ(r.member("127.0.0.9").memberId[0], '\0');
    DUP_MEMB_INFO any;
    for (int s = 1; s < IpcData::kSlots; ++s)
        EXPECT_EQ(r.table->GetMembInfo(s, &any) != 0 && any.memberId[0] != '\0', false) << "slot " << s;
    EXPECT_EQ(r.th->DroppedUnreported(), 6) << "one line, the rest counted";
    r.clock.advance(IpcCTrlCTh::kDropReportInterval);
    r.receive(bad[0], "127.0.0.9", 3069);
    EXPECT_EQ(r.th->DroppedUnreported(), 0) << "a new line after the interval";

    // Out of sequence: the member's exchange is reset and its time-outs cancelled.
    r.receive(Rig::registration("127.0.0.5", 3069), "127.0.0.5", 3069);
    r.transmit();
    ASSERT_EQ(r.replyTimers().size(), 1u);
    r.receive(Rig::answer(140, "127.0.0.5"), "127.0.0.5", 3069);
    EXPECT_EQ(r.member("127.0.0.5").sq, SqIdle);
    EXPECT_TRUE(r.replyTimers().empty());
    r.receive(Rig::settingsAnswer("127.0.0.5", "late"), "127.0.0.5", 3069);
    EXPECT_TRUE(r.sent().empty()) << "the exchange does not resume";

    // Member information 230 may only name the address it comes from.
    DG2MessageType info = DG2Builder(DG2::MsgMemberInfo230).from("127.0.0.5", 17).to("127.0.0.1", 19).msg();
    DG2SetField(reinterpret_cast<char*>(info.body), 32, "127.0.0.5");
    DG2SetField(reinterpret_cast<char*>(info.body) + 32, 32, "127.0.0.66");
    r.receive(info, "127.0.0.9", 3069);
    EXPECT_EQ(DG2FieldText(r.member("127.0.0.5").address, 32), "127.0.0.5");
    r.receive(info, "127.0.0.66", 3069);
    EXPECT_EQ(DG2FieldText(r.member("127.0.0.5").address, 32), "127.0.0.66");
}

TEST(IpcCTrlCThPresence, PresenceAndUninstallAreAnsweredAndUninstallForgetsTheMember)
{
    Rig r;
    r.receive(DG2Builder(DG2::MsgPresence).from("127.0.0.1", 17).to("127.0.0.30", 81).msg(), "127.0.0.30", 4000);
    std::vector<IPC_DATA_REC> out = r.transmit();
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(DG2Describe(out[0].msg),
              DG2Describe(DG2Builder(DG2::MsgPresence).result(0).from("127.0.0.1", 81).to("127.0.0.1", 17).msg()));
    EXPECT_EQ(DG2FieldText(out[0].name, 32) + ":" + std::to_string(out[0].value), "127.0.0.30:4000")
        << "a stranger is answered at its address and port";

    runExchange(r, Rig::registration("127.0.0.5", 3069), "127.0.0.5", 3069, "127.0.0.5");
    ASSERT_NE(r.slotOf("127.0.0.5"), 0);
    DG2Address a{"", "127.0.0.5", 3069};
    const DG2MessageType uninstall = DG2Builder(DG2::MsgUninstall).from("127.0.0.1", 17).to("127.0.0.5", 81)
        .pack([&](DG2MessageType* m) { return DG2PackAddress(m, DG2::MsgUninstall, a); }).msg();
    r.receive(uninstall, "127.0.0.5", 4444);
    out = r.transmit();
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(out[0].msg.body), 70),
              std::string(reinterpret_cast<const char*>(uninstall.body), 70));
    EXPECT_NE(r.slotOf("127.0.0.5"), 0) << "another port than the body's: not the member itself";
    r.receive(uninstall, "127.0.0.5", 3069);
    EXPECT_EQ(DG2FieldText(r.transmit().at(0).msg.srcName, 32), "127.0.0.1");
    EXPECT_EQ(r.slotOf("127.0.0.5"), 0);
    EXPECT_EQ(r.dir.read("MembInfo.dat"), "");
    EXPECT_TRUE(r.running.empty()) << "its timers are stopped";
}
