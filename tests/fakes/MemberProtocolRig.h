// MemberProtocolRig: the protocol thread of slot 0 (thread 8) run by hand in
// virtual time, over real configuration files, core and member table.
// receive() hands in a controller's datagram, transmit() drains the send
// queue and starts reply timers as the transport does, expire() fires a timer.
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
    static constexpr const char* kIni =
        "UPSController=2\nIPAddress=127.0.0.2\nMemberPort=3069\nCtrlIPAddress1=127.0.0.1\nCtrlPort1=3052\n"
        "MemberEntry1=0\nMyID1=\nHostName1=\nUGName1=\nAccessCode1=7000\nWinkTime1=10\nShutdownTime1=1\n"
        "AppTermTimeOut1=10\nShutdownDelay1=10\nAppTermCommand1=\nAcceptControllerCommand=0\n"
        "AcceptControllerTiming=1\n";

    static std::string with(std::string text, const std::string& from, const std::string& to)
    {
        return text.replace(text.find(from), from.size(), to);
    }

    // `controller`: the followed controller's entry in the controller list.
    explicit MemberProtocolRig(const std::string& ini = kIni, const std::string& controller = "127.0.0.1",
                               std::function<void(int)> resolve = {}, bool startNow = true)
    {
        dir.write("Kestrava.ini", ini);
        dir.write("Membercnt.cfg", "IPAddress1=" + controller + "\nPort1=3052\nWinkTime=\nShutdownTime=\n"
                                   "AppTermTimeOut=\nShutdownDelay=\nAppTermCommand=\n");
        config.reset(new FileMap(dir.file("Kestrava.ini")));
        members.reset(new FileMap(dir.file("Membercnt.cfg")));
        core.reset(new StCTrl(&clock, config.get()));
        core->getShutdownTiming(0);
        table.reset(new IpcData(*core, dir.path(), dir.path()));
        ups.reset(new UpsDataBlock(&clock));
        tableP = table.get(), configP = config.get(), membersP = members.get(), upsP = ups.get();
        th.reset(new IpcCTrlMTh(ThCtrlSlot0, core.get(),
                                {&tableP, &configP, &membersP, &upsP, &clock, std::move(resolve)}));
        if (startNow)
            start();
    }

    void start() { th->Start(), events(); }

    void event(int code, const std::vector<int>& params = {})
    {
        th->HandleEvent(eventRecord(ThCtrlSlot0, code, params));
        events();
    }
    void receive(DG2MessageType msg, const std::string& from = "127.0.0.1", int port = 3052)
    {
        char name[DG2::kNameSize + 1] = {};
        std::strncpy(name, from.c_str(), DG2::kNameSize);
        table->setRvData(&msg, IPC_DST_REPLY, port, name, ThCtrlSlot0);
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
                nt.params[0] = id, nt.params[1] = rec.ret.timeOut, nt.params[3] = rec.ret.threadId;
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
        else if (id == TmHealth)
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
    // Event-log codes posted for the slot.
    std::vector<int> logCodes() const
    {
        std::vector<int> out;
        for (const EVENTMSGINFO& ev : posted)
            if (ev.to == ThLog && ev.code == EvLog && ev.count >= 2 && ev.params[0] == ThCtrlSlot0)
                out.push_back(ev.params[1]);
        return out;
    }
    std::string onDisk(const std::string& key) const { return FileMap(dir.file("Kestrava.ini")).getConf(key); }
    int commErrLeft() { return left(IpcCTrlTh::CommErrTimerId(1)); }

    // ---- the controller's datagrams (kind 19 to kind 17) ----
    static DG2Builder fromController(int msg, const std::string& from = "127.0.0.1")
    {
        return DG2Builder(uint8_t(msg)).from(from.c_str(), DG2::KindController).to("127.0.0.2", DG2::KindMember);
    }
    static DG2MessageType registrationAnswer(const std::string& id, const std::string& from = "127.0.0.1")
    {
        const DG2Address a{id, "127.0.0.2", 3069};
        return fromController(DG2::MsgRegister, from).result(0).pack([&](DG2MessageType* m) {
            return DG2PackAddress(m, DG2::MsgRegister, a);
        }).msg();
    }
    static DG2MessageType timing(int wink, int minutes, const std::string& command)
    {
        DG2_ShutdownTimming t{};
        t.winkTime = wink, t.shutdownTime = minutes;
        std::strncpy(t.appTermCommand, command.c_str(), sizeof t.appTermCommand - 1);
        return fromController(DG2::MsgShutdownTiming).pack([&](DG2MessageType* m) {
            return DG2PackShutdownTiming(m, t);
        }).msg();
    }
    // Utility lost (alarm 59 active since `since` seconds before the report) or present.
    static DG2MessageType report(bool utilityLost, int since, uint8_t upsCommLost = 0)
    {
        DG2PowerReportBody b{};
        b.alarmMapLength = 8, b.alarmMap[7] = 0x08, b.alarmStates[0] = utilityLost;
        b.battery = 4, b.utility = utilityLost ? 3 : 2, b.outputOn = 1, b.upsCommLost = upsCommLost;
        b.reportTime = 1794000000;
        b.alertTime = utilityLost ? b.reportTime - since : 0;
        return fromController(DG2::MsgPowerReport).pack([&](DG2MessageType* m) {
            return DG2PackPowerReport(m, b);
        }).msg();
    }

    TempDir dir{"membproto"};
    ManualClock clock;
    std::unique_ptr<FileMap> config, members;
    std::unique_ptr<StCTrl> core;
    std::unique_ptr<IpcData> table;
    std::unique_ptr<UpsDataBlock> ups;
    std::unique_ptr<IpcCTrlMTh> th;
    std::map<int, int> running; // timer id -> expiry, as the timer service keeps them
    std::vector<EVENTMSGINFO> posted;

private:
    IpcData* tableP;
    FileMap *configP, *membersP;
    UpsDataBlock* upsP;

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
