// The controller-side protocol in virtual time: what each step of the member exchange carries,
// member IDs by identity, repetitions, refused input, application end and uninstall.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/fakes/ControllerProtocolRig.h"

namespace {

using Rig = ControllerProtocolRig;
using Ints = std::vector<int>;

// A request (result 0: a reply) of this controller (127.0.0.1), described.
std::string req(int msg, const std::string& to, int body, int result = DG2::kResultRequest,
                const std::string& from = "127.0.0.1")
{
    DG2MessageType m = DG2Builder(uint8_t(msg)).result(uint8_t(result)).from(from.c_str(), 19).to(to.c_str(), 17).msg();
    m.bodyLen = uint16_t(body);
    return DG2Describe(m);
}

// Answers every request in turn (the settings with a body unless `zeroBodies`) until the exchange
// ends; the requests seen.
Ints runExchange(Rig& r, const DG2MessageType& registration, const std::string& addr, const std::string& answerFrom,
                 int port = 3069, bool zeroBodies = false)
{
    Ints seen;
    r.receive(registration, addr, port);
    for (int guard = 0; guard < 10; ++guard) {
        int request = -1;
        for (const IPC_DATA_REC& rec : r.transmit())
            if (rec.msg.result == DG2::kResultRequest)
                request = rec.msg.msgNo;
        if (request < 0)
            break;
        seen.push_back(request);
        r.receive(request == DG2::MsgSettings && !zeroBodies ? Rig::settingsAnswer(answerFrom, "memb-host")
                                                             : Rig::answer(request, answerFrom), addr, port);
    }
    return seen;
}

DG2MessageType withAddress(uint8_t msg, const char* src, const char* dst, uint16_t dstKind, const DG2Address& a)
{
    return DG2Builder(msg).from(src, 17).to(dst, dstKind)
        .pack([&](DG2MessageType* m) { return DG2PackAddress(m, msg, a); }).msg();
}

} // namespace

TEST(IpcCTrlCThExchange, EachStepCarriesItsBodyAndEveryAnswerEndsItsTimeOut)
{
    Rig r;
    auto from5 = [&r](const DG2MessageType& m) { return r.receive(m, "127.0.0.5", 3069), r.transmit(); };
    std::vector<IPC_DATA_REC> out = from5(Rig::registration("127.0.0.5", 3069));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(DG2Describe(out[0].msg), req(35, "127.0.0.5", 70, 0)); // its ID: checked where a member stores it
    EXPECT_EQ(DG2Describe(out[1].msg) + " " + std::to_string(out[1].mode),
              req(0, "127.0.0.5", 497) + " " + std::to_string(IPC_DST_REPLY));
    DG2Settings s;
    ASSERT_TRUE(DG2UnpackSettings(out[1].msg, &s));
    EXPECT_EQ(s.hostName + "|" + s.groupName + "|" + s.runCommand, "127.0.0.1|rack-3|/bin/true");
    EXPECT_EQ(Ints({s.port, s.shutdownDelay, s.countdownTime, s.winkTime, s.appEndTime}), Ints({3052, 120, 5, 30, 60}));

    out = from5(Rig::settingsAnswer("127.0.0.5", "memb-host"));
    DG2_ShutdownTimming t;
    ASSERT_TRUE(out.size() == 1 && DG2UnpackShutdownTiming(out[0].msg, &t));
    EXPECT_EQ(Ints({t.winkTime, t.shutdownTime, t.appTermTimeOut, t.shutdownDelay}), Ints({30, 5, 60, 120}));

    out = from5(Rig::answer(181, "127.0.0.5"));
    std::string code;
    ASSERT_TRUE(out.size() == 1 && DG2UnpackAccessCode(out[0].msg, &code));
    EXPECT_EQ(code, "8000");

    r.clock.advance(7);
    out = from5(Rig::answer(140, "127.0.0.5"));
    DG2PowerReportBody p;
    ASSERT_TRUE(out.size() == 1 && DG2UnpackPowerReport(out[0].msg, &p));
    EXPECT_EQ(Ints({out[0].ret.limit, p.restarted, p.reportTime}), Ints({0, 1, int32_t(r.clock.now())}))
        << "the first report after start, never repeated";
    EXPECT_TRUE(from5(Rig::answer(141, "127.0.0.5")).empty());
    EXPECT_EQ(Ints({r.member("127.0.0.5").status, r.commErrTimerLeft(r.slotOf("127.0.0.5"))}), Ints({MembActive, 90}));
    EXPECT_TRUE(r.replyTimers().empty()) << "every answer ended the time-out that waited for it";
    // Its answer to a power report sent to all members ends that report's time-out.
    r.event(EvSendUpsStatus);
    r.transmit();
    from5(Rig::answer(141, "127.0.0.5"));
    EXPECT_TRUE(r.replyTimers().empty());
}

TEST(IpcCTrlCThIdentity, AGivenIdIsKeptAndNumbersWrapPastThoseInUse)
{
    {
        Rig r;
        r.receive(withAddress(DG2::MsgRegister, " ABCD", " WXYZ", 19, {"", "127.0.0.7", 3069}), "127.0.0.7", 3069);
        EXPECT_EQ(r.sent(), (std::vector<std::string>{req(35, " ABCD", 70, 0, " WXYZ"), req(0, " ABCD", 497)}))
            << "the reply comes from the destination text";
        // A member presenting the ID it was given keeps it: no new number.
        EXPECT_EQ(runExchange(r, withAddress(DG2::MsgRegister, " ABCD", " WXYZ", 19, {" ABCD0001", "127.0.0.7", 3069}),
                              "127.0.0.7", " ABCD"),
                  Ints({0, 181, 140, 141}));
        EXPECT_EQ(r.member(" ABCD0001").status, MembActive);
        EXPECT_EQ(FileMap(r.dir.file("Kestrava.ini")).getConf("MemberIDData"), "1") << "saved";
    }
    Rig r(Rig::with(Rig::defaultIni(), "MemberIDData=0", "MemberIDData=65535"),
          " ABCD0001\nm1\n127.0.0.21\n3069\n ABCD0002\nm2\n127.0.0.22\n3069\n");
    EXPECT_EQ(r.th->GetMember_ID(), " ABCD0003");
    EXPECT_EQ(r.config->getConf("MemberIDData"), "3");
}

TEST(IpcCTrlCThRepeat, UnansweredRequestsAreRepeatedUpToTheirLimit)
{
    Rig r;
    r.receive(Rig::registration("127.0.0.5", 3069), "127.0.0.5", 3069);
    std::vector<std::string> settings = r.sent();
    settings.erase(settings.begin()); // the registration's answer
    for (int guard = 0; guard < 10 && !r.replyTimers().empty(); ++guard) {
        r.expire(r.replyTimers()[0]);
        for (const std::string& d : r.sent())
            settings.push_back(d);
    }
    EXPECT_EQ(settings, std::vector<std::string>(3, req(0, "127.0.0.5", 497))) << "limit 3: the first and two repetitions";
    EXPECT_EQ(r.member("127.0.0.5").sq, SqIdle) << "given up: the sequence starts afresh";

    // Requests to all members: 141 is never repeated, 140 and 181 are, 127 has no time-out.
    r.event(EvSendUpsStatus);
    std::vector<IPC_DATA_REC> out = r.transmit();
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(DG2Describe(out[0].msg), req(141, "", 1328));
    EXPECT_EQ(out[0].mode, IPC_DST_ALL);
    r.expire(r.replyTimers().at(0));
    EXPECT_TRUE(r.sent().empty());
    r.event(EvConfigChanged);
    r.event(EvTimingChanged);
    r.event(EvShutdownStatus, {1, 0});
    out = r.transmit();
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(Ints({out[0].msg.msgNo, out[0].ret.limit, out[1].msg.msgNo, out[1].ret.limit}), Ints({140, 3, 181, 3}));
    DG2AppEnd appEnd;
    ASSERT_TRUE(DG2UnpackAppEnd(out[2].msg, &appEnd));
    EXPECT_EQ(std::to_string(appEnd.value1) + "," + std::to_string(appEnd.value2) + "," + appEnd.senderName + "," +
                  std::to_string(out[2].mode) + "," + std::to_string(out[2].ret.timeOut),
              "1,0,127.0.0.1," + std::to_string(IPC_DST_CLOSE) + ",0");
}

TEST(IpcCTrlCThRefused, BadValuesOutOfSequenceAnswersAndForeignAddressesChangeNothing)
{
    Rig r;
    // A body port that does not read: the member is reached where it sent from.
    r.receive(DG2Builder(withAddress(DG2::MsgRegister, "127.0.0.9", "127.0.0.1", 19, {"", "127.0.0.9", 3069}))
                  .bodyBytes(64, std::string("30x9\0\0", 6)).msg(), "127.0.0.9", 4000);
    EXPECT_EQ(r.member("127.0.0.9").port, 4000);
    r.transmit();
    // An identity of another length and a power report from no member change nothing.
    const DG2MessageType foreign = withAddress(DG2::MsgRegister, " ABCD", " ABCDEF", 19, {"", "127.0.0.8", 3069});
    for (const DG2MessageType& m : {foreign, foreign, Rig::fromMember(DG2::MsgPowerReport, "127.0.0.8").msg()})
        r.receive(m, "127.0.0.8", 3069);
    EXPECT_TRUE(r.sent().empty());
    EXPECT_EQ(r.slotOf("127.0.0.8") + r.slotOf(" ABCD0001"), 0);
    EXPECT_EQ(r.th->DroppedUnreported(), 2) << "one line, the rest counted";
    r.clock.advance(IpcCTrlCTh::kDropReportInterval);
    r.receive(foreign, "127.0.0.8", 3069);
    EXPECT_EQ(r.th->DroppedUnreported(), 0) << "a new line after the interval";

    // A member that leaves every body zero (the bodies' fields are ours)
    // still walks the whole exchange, reached at the port it sent from.
    EXPECT_EQ(runExchange(r, Rig::fromMember(DG2::MsgRegister, "127.0.0.7").msg(), "127.0.0.7", "127.0.0.7", 3071, true),
              Ints({0, 181, 140, 141}));
    EXPECT_EQ(Ints({r.member("127.0.0.7").status, r.member("127.0.0.7").port}), Ints({MembActive, 3071}));

    // Out of sequence: the member's exchange is reset and its time-outs cancelled.
    const size_t others = r.replyTimers().size(); // the request still waiting for 127.0.0.9
    r.receive(Rig::registration("127.0.0.5", 3069), "127.0.0.5", 3069);
    r.transmit();
    ASSERT_EQ(r.replyTimers().size(), others + 1);
    r.receive(Rig::answer(140, "127.0.0.5"), "127.0.0.5", 3069);
    EXPECT_EQ(r.member("127.0.0.5").sq, SqIdle);
    EXPECT_EQ(r.replyTimers().size(), others);
    r.receive(Rig::settingsAnswer("127.0.0.5", "late"), "127.0.0.5", 3069);
    EXPECT_TRUE(r.sent().empty()) << "the exchange does not resume";

    // Member information 230 may only name the address it comes from.
    DG2MessageType info = Rig::fromMember(DG2::MsgMemberInfo230, "127.0.0.5").bodyBytes(0, "127.0.0.5")
                              .bodyBytes(32, "127.0.0.66").msg();
    r.receive(info, "127.0.0.9", 3069);
    EXPECT_EQ(DG2FieldText(r.member("127.0.0.5").address, 32), "127.0.0.5");
    r.receive(info, "127.0.0.66", 3069);
    EXPECT_EQ(DG2FieldText(r.member("127.0.0.5").address, 32), "127.0.0.66");
}

TEST(IpcCTrlCThLeave, ApplicationEndDeactivatesAndUninstallFromTheMemberItselfForgetsIt)
{
    Rig r;
    EXPECT_EQ(runExchange(r, Rig::registration("127.0.0.5", 3069), "127.0.0.5", "127.0.0.5").size(), 4u);
    const int slot = r.slotOf("127.0.0.5");
    EXPECT_EQ((r.expire(IpcCTrlTh::CommErrTimerId(slot)), r.member("127.0.0.5").status), MembCommFail);
    runExchange(r, Rig::registration("127.0.0.5", 3069), "127.0.0.5", "127.0.0.5");
    r.receive(Rig::fromMember(DG2::MsgAppEnd, "127.0.0.5")
                  .pack([](DG2MessageType* m) { return DG2PackAppEnd(m, {1, 0, "127.0.0.5"}); }).msg(),
              "127.0.0.5", 3069);
    EXPECT_EQ(Ints({r.member("127.0.0.5").status, r.commErrTimerLeft(slot)}), Ints({MembNotActive, -1}));
    EXPECT_TRUE(r.sent().empty());

    const DG2MessageType uninstall =
        withAddress(DG2::MsgUninstall, "127.0.0.1", "127.0.0.5", 81, {"", "127.0.0.5", 3069});
    r.receive(uninstall, "127.0.0.5", 4444);
    std::vector<IPC_DATA_REC> out = r.transmit();
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(std::memcmp(out[0].msg.body, uninstall.body, 70), 0) << "the reply echoes the body";
    EXPECT_NE(r.slotOf("127.0.0.5"), 0) << "another port than the body's: not the member itself";
    r.receive(uninstall, "127.0.0.5", 3069);
    EXPECT_EQ(DG2FieldText(r.transmit().at(0).msg.srcName, 32), "127.0.0.1");
    EXPECT_TRUE(r.slotOf("127.0.0.5") == 0 && r.dir.read("MembInfo.dat").empty() && r.running.empty())
        << "forgotten, saved, its timers stopped";
}
