// The controller's side of the network end to end: the real daemon on the UPS
// simulator, members played over loopback UDP (ScriptedMember): registration
// by name and identity, alarms as power reports, repetitions, "Comm Fail",
// and bad datagrams that change nothing.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "ipc/DG2Bodies.h"
#include "tests/fakes/DaemonSandbox.h"
#include "tests/fakes/ScriptedMember.h"

namespace {

using Seq = std::vector<int>;

// The state byte of alarm n in a power report, -1 when n is not in its map.
int alarmState(const DG2MessageType& report, int n)
{
    DG2PowerReportBody b;
    if (!DG2UnpackPowerReport(report, &b) || n / 8 >= b.alarmMapLength || !(b.alarmMap[n / 8] & (1 << (n % 8))))
        return -1;
    int index = 0;
    for (int a = 0; a < n; ++a)
        if (b.alarmMap[a / 8] & (1 << (a % 8)))
            ++index;
    return b.alarmStates[index];
}

// Answers what m receives until a power report shows alarm n active (or
// cleared); false when none came within `seconds`.
bool awaitAlarmReport(ScriptedMember& m, int n, bool active, double seconds)
{
    bool seen = false;
    m.each(seconds, [&](const DG2MessageType& r) {
        if (r.result == DG2::kResultRequest)
            m.send(m.replyTo(r));
        seen = r.msgNo == DG2::MsgPowerReport && (alarmState(r, n) > 0) == active;
        return !seen;
    });
    return seen;
}

std::string bodyMemberId(const DG2MessageType& reply)
{
    DG2Address a;
    return DG2UnpackAddress(reply, &a) ? a.memberId : "<malformed>";
}

class Network : public ::testing::Test, public DaemonSandbox {
protected:
    Network() : DaemonSandbox("kestrava-net-", 200) {}

    void SetUp() override
    {
        // Long wink and countdown: no alarm of this test may shut anything down.
        ASSERT_NO_FATAL_FAILURE(startController({}, "WinkTime1=3600\nShutdownTime1=60\nAppTermTimeOut1=60\n"
                                                    "ShutdownDelay1=120\nAppTermCommand1=\nGroupName=rack-3\n"
                                                    "SetUpID=*ABCD\nMemberIDData=0\nAccessCode1=8000\n"));
        // The network side opens once the UPS answers: wait until it answers a presence check.
        ScriptedMember probe("127.0.0.9", "probe", "127.0.0.1", ctrlPort);
        ASSERT_TRUE(probe.ok());
        ASSERT_TRUE(waitFor([&] {
            probe.send(probe.request(DG2::MsgPresence));
            DG2MessageType m;
            return probe.receive(&m, 1) && m.msgNo == DG2::MsgPresence;
        }, 60)) << "the controller never answered a presence check";
    }

    void TearDown() override { finish(HasFailure()); }

    std::string status() const { return readFile(home + "membCommInfo.tmp"); }
    bool statusShows(const std::string& address, const std::string& state) const
    {
        const std::vector<std::string> lines = readLines(home + "membCommInfo.tmp");
        for (size_t i = 0; i + 1 < lines.size(); ++i)
            if (lines[i].find("Status = " + state) != std::string::npos &&
                lines[i + 1].find(address + " ") != std::string::npos)
                return true;
        return false;
    }

    // Registers m and answers the exchange up to message `last`; the
    // numbers received.
    Seq registerMember(ScriptedMember& m, int last = DG2::MsgPowerReport)
    {
        m.send(m.registration());
        DG2MessageType r;
        if (!m.receive(&r, 5) || r.msgNo != DG2::MsgRegister)
            return {};
        Seq seq = {r.msgNo};
        Seq rest = m.answerUntil(last, 15);
        seq.insert(seq.end(), rest.begin(), rest.end());
        return seq;
    }
};

TEST_F(Network, MembersRegisterHearOfAlarmsAndBadInputChangesNothing)
{
    // A member known by host name: the whole exchange, then "Active" and in the member file.
    ScriptedMember a("127.0.0.2", "memb-a", "127.0.0.1", ctrlPort);
    ASSERT_TRUE(a.ok());
    EXPECT_EQ((Seq{35, 0, 181, 140, 141}), registerMember(a));
    EXPECT_TRUE(waitFor([&] { return statusShows("127.0.0.2", "Active"); }, 5)) << status();
    EXPECT_NE(std::string::npos, status().find("memb-a-host")) << status();
    EXPECT_EQ((std::vector<std::string>{"memb-a", "memb-a-host", "127.0.0.2", std::to_string(a.port())}),
              readLines(home + "MembInfo.dat"));

    // Two members by identity get the next identities, and the counter is saved.
    ScriptedMember b("127.0.0.3", " ABCD", "127.0.0.1", ctrlPort), c("127.0.0.4", " ABCD", "127.0.0.1", ctrlPort);
    b.setControllerName(" ABCD");
    c.setControllerName(" ABCD");
    DG2MessageType reply;
    for (ScriptedMember* m : {&b, &c}) {
        const std::string id = m == &b ? " ABCD0001" : " ABCD0002";
        m->send(m->registration());
        ASSERT_TRUE(m->receive(&reply, 5));
        EXPECT_EQ(id, bodyMemberId(reply));
        // From now on it sends under its member ID (under the identity text works too).
        m->setName(id);
        EXPECT_EQ((Seq{0, 181, 140, 141}), m->answerUntil(DG2::MsgPowerReport, 15));
    }
    EXPECT_NE(std::string::npos, readFile(home + "Kestrava.ini").find("\nMemberIDData= 2\n"));
    EXPECT_TRUE(waitFor([&] { return statusShows("127.0.0.4", "Active"); }, 5)) << status();
    EXPECT_NE(std::string::npos, status().find("   IP = *127.0.0.3 ")) << status();

    // An alarm at the UPS reaches every active member with the poll that
    // sees it (a poll cycle is 10 to 15 s), raised, then cleared.
    ASSERT_TRUE(simCommand("alarm set 25"));
    EXPECT_TRUE(awaitAlarmReport(a, 25, true, 30));
    EXPECT_TRUE(awaitAlarmReport(b, 25, true, 2));
    EXPECT_TRUE(awaitAlarmReport(c, 25, true, 2));
    ASSERT_TRUE(simCommand("alarm clear 25"));
    EXPECT_TRUE(awaitAlarmReport(a, 25, false, 30));

    // A known member at another address goes the short way: 35, 141, 181.
    ScriptedMember moved("127.0.0.5", "memb-a", "127.0.0.1", ctrlPort);
    b.collect(0.5);
    EXPECT_EQ((Seq{35, 141, 181}), registerMember(moved, DG2::MsgShutdownTiming));
    EXPECT_TRUE(waitFor([&] { return readLines(home + "MembInfo.dat").size() == 12u; }, 5));
    // In member-ID order: " ABCD0001", " ABCD0002", "memb-a".
    EXPECT_EQ("memb-a 127.0.0.5", readLines(home + "MembInfo.dat").at(8) + " " + readLines(home + "MembInfo.dat").at(10));

    // Strangers: a presence check is answered; nothing else creates a member or an answer.
    ScriptedMember s("127.0.0.7", "stranger", "127.0.0.1", ctrlPort);
    s.send(s.request(DG2::MsgPresence));
    ASSERT_TRUE(s.receive(&reply, 5));
    EXPECT_EQ(std::make_pair(int(DG2::MsgPresence), 0), std::make_pair(int(reply.msgNo), int(reply.bodyLen)));
    const std::string good = DG2Builder(s.registration()).wire();
    std::string wrongMagic = good, unknown = good;
    wrongMagic[0] = char(0xD3);
    unknown[2] = char(200);
    for (const std::string& bad : {DG2Builder(s.registration()).from("stranger", DG2::KindController).wire(), wrongMagic,
                                   good.substr(0, 83), good.substr(0, good.size() - 1), good + '\0', unknown,
                                   DG2Builder(s.registration()).from("", DG2::KindMember).wire(),
                                   DG2Builder(s.registration()).from(" WXYZ", DG2::KindMember).wire(),
                                   DG2Builder(s.registration()).from(" ", DG2::KindMember).wire()})
        s.sendRaw(bad);
    EXPECT_TRUE(s.collect(3).empty());
    EXPECT_EQ(std::string::npos, status().find("127.0.0.7")) << status();
    EXPECT_EQ(12u, readLines(home + "MembInfo.dat").size());
    EXPECT_EQ(0, kill(daemonPid, 0)) << "the daemon died";
}

TEST_F(Network, SilentMembersAreRepeatedThenMarkedCommFailAndComeBack)
{
    // Limit 3: the settings go out three times in all when nobody answers.
    ScriptedMember mute("127.0.0.6", "memb-mute", "127.0.0.1", ctrlPort);
    // Limit 0: a power report is sent once.
    ScriptedMember e("127.0.0.8", "memb-e", "127.0.0.1", ctrlPort);
    ASSERT_EQ((Seq{35, 0, 181, 140, 141}), registerMember(e));
    mute.send(mute.registration());
    ASSERT_TRUE(simCommand("alarm set 25"));

    int settings = 0, reports = 0;
    for (const DG2MessageType& m : mute.collect(36))
        settings += m.msgNo == DG2::MsgSettings;
    for (const DG2MessageType& m : e.collect(1))
        reports += m.msgNo == DG2::MsgPowerReport && alarmState(m, 25) > 0;
    EXPECT_EQ(std::make_pair(3, 1), std::make_pair(settings, reports));

    // 90 s after its exchange a member that stays silent is marked "Comm Fail".
    EXPECT_TRUE(waitFor([&] { return statusShows("127.0.0.8", "Comm Fail"); }, 70)) << status();
    EXPECT_EQ((Seq{35, 0, 181, 140, 141}), registerMember(e));
    EXPECT_TRUE(waitFor([&] { return statusShows("127.0.0.8", "Active"); }, 5)) << status();
}

} // namespace
