// The protocol base: repetitions of an unanswered request, the header bytes
// of requests and replies, and the time-outs it arms. The member side's
// headers are pinned by the member protocol's tests.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "control/Codes.h"
#include "control/StCTrl.h"
#include "ipc/DG2Bodies.h"
#include "ipc/IpcCTrlTh.h"
#include "ipc/IpcData.h"
#include "tests/fakes/DG2Builder.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempDir.h"

namespace {

// A protocol thread whose repetition simply queues the saved request again.
class ProbeTh : public IpcCTrlTh {
public:
    using IpcCTrlTh::IpcCTrlTh;
    int timeOut(int id) { return HandleTimeOut(id); }
    void Start() override {}
    void HandleEvent(const EVENTMSGINFO&) override {}
    std::vector<int> gaveUp;

protected:
    int Resend(unsigned char) override { return SendRetry(); }
    void GiveUp(unsigned char msg) override { gaveUp.push_back(msg); }
    std::string unwired() const override { return ""; }
};

// A controller core, a member table with one member, and a protocol thread.
struct Rig {
    ManualClock clock;
    StCTrl core{&clock};
    TempDir dir{"ctrlbase"};
    IpcData table{core, dir.path(), dir.path()};
    IpcData* tablePtr = &table;
    ProbeTh th;

    Rig() : th(ThCtrlSlot0, &tablePtr, core, "ctrl-host", IpcCTrlTh::Role::Controller)
    {
        DUP_MEMB_INFO m;
        table.GetMembInfo(table.InitMember("10.0.0.5", 6001, "memb-a", false, ThCtrlSlot0, SqNew, nullptr), &m);
        th.SetMember(m, false);
        drainEvents(core);
    }

    // What the transport does with the oldest queued record (-1: none): takes it and, when it carries a
    // time-out, arms it under a new timer id (0: none).
    int transmit(IPC_DATA_REC* rec)
    {
        const int id = !table.getSdData(rec) ? -1 : rec->ret.timeOut == 0 ? 0 : table.GetTimerID();
        if (id > 0)
            table.SetTimerInfo(id, &rec->ret);
        return id;
    }

    // Sends a request, then lets every time-out run out: the records queued.
    std::vector<IPC_DATA_REC> unanswered(int msg, int limit, int maxTimeOuts)
    {
        th.SendData(static_cast<unsigned char>(msg), 100, 10, limit, IPC_DST_ONE, 7);
        std::vector<IPC_DATA_REC> sent;
        IPC_DATA_REC rec;
        for (int id; (id = transmit(&rec)) >= 0;) {
            sent.push_back(rec);
            if (id == 0 || int(sent.size()) > maxTimeOuts)
                break;
            th.timeOut(id);
        }
        return sent;
    }
};

} // namespace

TEST(IpcCTrlThRepeat, UnansweredRequestIsQueuedUpToItsLimitThenGivenUp)
{
    {
        Rig r;
        auto sent = r.unanswered(DG2::MsgShutdownTiming, 3, 20);
        ASSERT_EQ(sent.size(), 3u) << "limit 3: first transmission and two repetitions";
        for (int i = 0; i < 3; ++i) { // the counter advances by two per repetition, each under its own new timer
            EXPECT_EQ(DG2Describe(sent[i].msg) + " " + std::to_string(sent[i].ret.attempts),
                      DG2Describe(sent[0].msg) + " " + std::to_string(2 * i));
            EXPECT_EQ(sent[i].ret.handle, sent[i].ret.timerId);
        }
        EXPECT_EQ(sent[1].mode, IPC_DST_REPLY);
        EXPECT_EQ(r.th.gaveUp, std::vector<int>{DG2::MsgShutdownTiming});
        EXPECT_EQ(r.table.timersPending(), 0u);
        EXPECT_EQ(r.th.timeOut(42) + r.table.sendQueued(), 0u) << "a time-out whose timer is gone does nothing";
    }
    // Limit 0: never repeated; -1: still repeating after 10 time-outs.
    for (int limit : {0, -1}) {
        Rig r;
        EXPECT_EQ(std::vector<size_t>({r.unanswered(DG2::MsgPowerReport, limit, 10).size(), r.th.gaveUp.size()}),
                  limit == 0 ? std::vector<size_t>({1, 1}) : std::vector<size_t>({11, 0})) << "sent, given up";
    }
}

TEST(IpcCTrlThHeader, RequestsAndRepliesOnTheWire)
{
    Rig r;
    std::memset(r.th.OutBody(), 'B', 100);
    r.th.SendData(DG2::MsgAccessCode, DG2::kBodyAccessCode, 10, 3, IPC_DST_ONE, 0);
    IPC_DATA_REC rec;
    ASSERT_EQ(r.table.getSdData(&rec), 1);
    EXPECT_EQ(DG2Builder(rec.msg).wire() + DG2FieldText(rec.ret.peerName, 32),
              DG2Builder(DG2::MsgAccessCode).from("ctrl-host", DG2::KindController).to("10.0.0.5", DG2::KindMember)
                  .bodyBytes(0, std::string(100, 'B')).wire() + "memb-a") << DG2Describe(rec.msg);

    auto reply = [&](const DG2MessageType& request, int msg, int body) {
        r.th.SetHandled(request);
        r.th.SendReply(static_cast<unsigned char>(msg), static_cast<unsigned short>(body), 0, -1, 0, 0);
        IPC_DATA_REC rec;
        EXPECT_EQ(r.table.getSdData(&rec), 1);
        EXPECT_EQ(rec.mode, IPC_DST_REPLY);
        return rec;
    };
    // Registration addressed with receiver kind 81: the reply echoes 81, goes to the request's source name
    // and comes from the name the request used.
    rec = reply(DG2Builder(35).from("memb-a", 17).to("ctrl-alias", 81).msg(), 35, 70);
    EXPECT_EQ(DG2Builder(rec.msg).wire().substr(0, DG2::kHeaderSize),
              DG2Builder(35).result(0).from("ctrl-alias", 81).to("memb-a", 17).wire().substr(0, DG2::kHeaderSize))
        << DG2Describe(rec.msg);

    rec = reply(DG2Builder(141).from("memb-a", 17).to("ctrl-host", 19).msg(), 141, 1328);
    EXPECT_EQ(DG2Describe(rec.msg), DG2Describe(DG2Builder(141).result(0).from("ctrl-host", 19).to("10.0.0.5", 17).msg()))
        << "other messages go to the member's address";

    r.th.SetDestinationText(" ident-7");
    rec = reply(DG2Builder(129).from(" ident-7", 17).to("ctrl-host", 19).msg(), 129, 0);
    EXPECT_EQ(DG2FieldText(rec.msg.dstName, 32), " ident-7") << "a source name with a leading blank: destination text";

    // A reply with awaited -1 arms no wait; one with an awaited message does, for the peer it answers,
    // and never repeats the reply when it runs out.
    EXPECT_EQ(rec.ret.timeOut, 0);
    r.th.SetHandled(DG2Builder(181).from("memb-a", 17).to("ctrl-host", 19).msg());
    r.th.SendReply(181, 152, 0, 140, 30, 0);
    const int id = r.transmit(&rec);
    ASSERT_GT(id, 0);
    int found = 0;
    IPC_DATA_RET block = r.table.GetTimerInfo(id, &found);
    EXPECT_EQ(DG2FieldText(block.peerName, 32) + " " + std::to_string(block.awaited), "memb-a 140");
    r.th.timeOut(id);
    EXPECT_EQ(r.table.sendQueued(), 0u);
    EXPECT_EQ(r.th.gaveUp, std::vector<int>{181});
    // An own time-out starts a timer for the peer at hand; a stranger has no
    // communication-error timer.
    drainEvents(r.core);
    const int own = r.th.SetTimeOut(181, 30);
    EXPECT_EQ(drainDescribed(r.core), std::vector<std::string>{describe(eventRecord(
                                          ThTimer, EvTimerStart, {own, int(r.clock.now()) + 30, 0, ThCtrlSlot0}))});
    EXPECT_EQ(DG2FieldText(r.table.GetTimerInfo(own, &found).peerName, 32), "memb-a");
    r.th.SetHandled(DG2Builder(129).from("stranger", 17).to("ctrl-host", 19).msg());
    EXPECT_EQ(r.th.SetCommunicationErrorTimer() + r.th.CancelCommunicationErrorTimer(), 0);
    EXPECT_TRUE(drainEvents(r.core).empty());
}
