// MemberProtocolRig: one member-side protocol thread (slot 0, thread 8)
// without its thread, in virtual time, with a real controller core, member
// table, configuration, controller list and UPS data in a temporary
// directory. receive() delivers a controller's datagram as the transport
// does, transmit() takes what was queued and arms its time-outs as the
// transport does, expire() hands a running timer back as its expiry event.
// Events the core posted are kept in `posted`.
#pragma once

#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "ipc/IpcCTrlMTh.h"
#include "ipc/IpcData.h"
#include "tests/fakes/DG2Builder.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempDir.h"
#include "xcp/UpsDataBlock.h"

class MemberProtocolRig {
public:
    static std::string defaultIni()
    {
        return "UPSController=2\nIPAddress=127.0.0.2\nMemberPort=3069\nCtrlIPAddress1=127.0.0.1\nCtrlPort1=3052\n"
               "MemberEntry1=0\nMyID1=\nHostName1=\nUGName1=\nAccessCode1=7000\nWinkTime1=10\nShutdownTime1=1\n"
               "AppTermTimeOut1=10\nShutdownDelay1=10\nAppTermCommand1=\nAcceptControllerCommand=0\n"
               "AcceptControllerTiming=1\n";
    }
    static std::string defaultList()
    {
        return "IPAddress1=127.0.0.1\nPort1=3052\nWinkTime=\nShutdownTime=\nAppTermTimeOut=\nShutdownDelay=\n"
               "AppTermCommand=\n";
    }

    // resolve: the thread's resolution request; start: Start() at once.
    explicit MemberProtocolRig(const std::string& ini = defaultIni(), const std::string& list = defaultList(),
                               std::function<void(int)> resolve = {}, bool start = true)
        : dir("membproto")
    {
        dir.write("Kestrava.ini", ini);
        dir.write("Membercnt.cfg", list);
        config.reset(new FileMap(dir.file("Kestrava.ini")));
        members.reset(new FileMap(dir.file("Membercnt.cfg")));
        ptrs.config = config.get();
        ptrs.members = members.get();
        core.reset(new StCTrl(&clock, config.get()));
        core->getShutdownTiming(0);
        table.reset(new IpcData(*core, dir.path(), dir.path()));
        ups.reset(new UpsDataBlock(&clock));
        ptrs.table = table.get();
        ptrs.ups = ups.get();
        th.reset(new IpcCTrlMTh(ThCtrlSlot0, core.get(),
                                IpcCTrlMTh::Wiring{&ptrs.table, &ptrs.config, &ptrs.members, &ptrs.ups, &clock,
                                                   std::move(resolve)}));
        if (start)
            this->start();
    }

    void start()
    {
        th->Start();
        events();
    }

    void event(int code, const std::vector<int>& params = {})
    {
        th->HandleEvent(eventRecord(ThCtrlSlot0, code, params));
        events();
    }

    void receive(const DG2MessageType& msg, const std::string& from = "127.0.0.1", int port = 3052)
    {
        DG2MessageType copy = msg;
        char name[DG2::kNameSize + 1] = {};
        std::strncpy(name, from.c_str(), DG2::kNameSize);
        table->setRvData(&copy, IPC_DST_REPLY, port, name, ThCtrlSlot0);
        event(EvNetReceived);
    }

    std::vector<IPC_DATA_REC> transmit()
    {
        std::vector<IPC_DATA_REC> out;
        IPC_DATA_REC rec;
        while (table->getSdData(&rec)) {
            if (rec.ret.timeOut > 0 && rec.ret.awaited != -1) {
                const int id = table->GetTimerID();
                table->SetTimerInfo(id, &rec.ret);
                _NOTIFYMSGINFO nt{};
                nt.code = NtNetTimerStart;
                nt.count = 4;
                nt.params[0] = id;
                nt.params[1] = rec.ret.timeOut;
                nt.params[3] = rec.ret.threadId;
                core->SetNotify(&nt);
            }
            out.push_back(rec);
        }
        events();
        return out;
    }

    std::vector<std::string> sent()
    {
        std::vector<std::string> out;
        for (const IPC_DATA_REC& rec : transmit())
            out.push_back(DG2Describe(rec.msg));
        return out;
    }

    void expire(int id)
    {
        running.erase(id);
        if (id >= TmNet2First && id <= TmNet2Last)
            event(EvNetTimeout2, {id - TmNet2First});
        else if (id >= TmHealth && id <= TmHealth + 3)
            event(EvHealthTimeout);
        else
            event(EvNetTimeout, {id});
    }

    std::vector<int> replyTimers() const
    {
        std::vector<int> out;
        for (const auto& t : running)
            if (t.first >= TmNetFirst && t.first <= TmNetLast)
                out.push_back(t.first);
        return out;
    }
    // Seconds to a running timer's expiry (-1: not running).
    int left(int id)
    {
        auto it = running.find(id);
        return it == running.end() ? -1 : it->second - static_cast<int>(clock.now());
    }
    int commErrLeft() { return left(IpcCTrlTh::CommErrTimerId(1)); }
    // Event-log codes posted for the slot.
    std::vector<int> logCodes() const
    {
        std::vector<int> out;
        for (const EVENTMSGINFO& ev : posted)
            if (ev.to == ThLog && ev.code == EvLog && ev.count >= 2 && ev.params[0] == ThCtrlSlot0)
                out.push_back(ev.params[1]);
        return out;
    }
    std::string confOnDisk(const std::string& key) const { return FileMap(dir.file("Kestrava.ini")).getConf(key); }

    // ---- the controller's datagrams (19 -> 17) ----
    static DG2Builder fromController(int msg, const std::string& from = "127.0.0.1")
    {
        return DG2Builder(uint8_t(msg)).from(from.c_str(), DG2::KindController).to("127.0.0.2", DG2::KindMember);
    }
    static DG2MessageType registrationAnswer(const std::string& id, const std::string& from = "127.0.0.1")
    {
        const DG2Address a{id, "127.0.0.2", 3069};
        return fromController(DG2::MsgRegister, from).result(0)
            .pack([&](DG2MessageType* m) { return DG2PackAddress(m, DG2::MsgRegister, a); }).msg();
    }
    static DG2MessageType timing(int wink, int minutes, const std::string& command)
    {
        DG2_ShutdownTimming t{};
        t.winkTime = wink;
        t.shutdownTime = minutes;
        std::strncpy(t.appTermCommand, command.c_str(), sizeof t.appTermCommand - 1);
        return fromController(DG2::MsgShutdownTiming)
            .pack([&](DG2MessageType* m) { return DG2PackShutdownTiming(m, t); }).msg();
    }
    // Utility lost (alarm 59 active, `since` seconds before the report) or present.
    static DG2MessageType report(bool utilityLost, int since, uint8_t upsCommLost = 0)
    {
        DG2PowerReportBody b{};
        b.alarmMapLength = 8;
        b.alarmMap[7] = 0x08;
        b.alarmStates[0] = utilityLost ? 1 : 0;
        b.battery = 4;
        b.utility = utilityLost ? 3 : 2;
        b.outputOn = 1;
        b.upsCommLost = upsCommLost;
        b.reportTime = 1794000000;
        b.alertTime = utilityLost ? b.reportTime - since : 0;
        return fromController(DG2::MsgPowerReport)
            .pack([&](DG2MessageType* m) { return DG2PackPowerReport(m, b); }).msg();
    }

    TempDir dir;
    ManualClock clock;
    std::unique_ptr<FileMap> config;
    std::unique_ptr<FileMap> members;
    std::unique_ptr<StCTrl> core;
    std::unique_ptr<IpcData> table;
    std::unique_ptr<UpsDataBlock> ups;
    std::unique_ptr<IpcCTrlMTh> th;
    std::map<int, int> running; // timer id -> expiry, as the timer service keeps them
    std::vector<EVENTMSGINFO> posted;

private:
    struct {
        IpcData* table;
        FileMap* config;
        FileMap* members;
        UpsDataBlock* ups;
    } ptrs{};

    void events()
    {
        EVENTMSGINFO ev;
        while (core->popHeadForTest(&ev)) {
            posted.push_back(ev);
            if (ev.to == ThTimer && ev.code == EvTimerStart)
                running.insert({ev.params[0], ev.params[1]});
            else if (ev.to == ThTimer && ev.code == EvTimerStop)
                running.erase(ev.params[0]);
        }
    }
};
