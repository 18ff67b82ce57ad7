// ControllerProtocolRig: the controller-side protocol without its thread, in
// virtual time, on a real core, member table and UPS data in a temporary
// directory. receive() and transmit() act as the transport does; expire()
// hands a running timer back as its expiry event.
#pragma once

#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "config/FileMap.h"
#include "control/Codes.h"
#include "control/StCTrl.h"
#include "ipc/IpcCTrlCTh.h"
#include "ipc/IpcData.h"
#include "tests/fakes/DG2Builder.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempDir.h"
#include "xcp/UpsDataBlock.h"

class ControllerProtocolRig {
public:
    static std::string defaultIni()
    {
        return "UPSController=1\nIPAddress=127.0.0.1\nSetUpID=*ABCD\nCtrlPort1=3052\nGroupName=rack-3\n"
               "AccessCode1=8000\nMemberIDData=0\nWinkTime1=30\nShutdownTime1=5\nAppTermTimeOut1=60\n"
               "ShutdownDelay1=120\nAppTermCommand1=/bin/true\n";
    }

    // ini: the whole "Kestrava.ini"; membInfo: "MembInfo.dat" before start.
    explicit ControllerProtocolRig(const std::string& ini = defaultIni(), const std::string& membInfo = "")
        : dir("ctrlproto")
    {
        dir.write("Kestrava.ini", ini);
        if (!membInfo.empty())
            dir.write("MembInfo.dat", membInfo);
        configPtr = (config = std::make_unique<FileMap>(dir.file("Kestrava.ini"))).get();
        core = std::make_unique<StCTrl>(&clock, configPtr);
        core->getShutdownTiming(0);
        tablePtr = (table = std::make_unique<IpcData>(*core, dir.path(), dir.path())).get();
        upsPtr = (ups = std::make_unique<UpsDataBlock>(&clock)).get();
        IpcCTrlCTh::Wiring w;
        w.table = &tablePtr, w.config = &configPtr, w.ups = &upsPtr, w.clock = &clock;
        th = std::make_unique<IpcCTrlCTh>(ThCtrlSlot0, core.get(), w);
        th->Start();
        events();
    }

    void event(int code, const std::vector<int>& params = {})
    {
        th->HandleEvent(eventRecord(ThCtrlSlot0, code, params));
        events();
    }

    // A datagram from a peer at address:port, as the transport delivers it.
    void receive(const DG2MessageType& msg, const std::string& from, int port)
    {
        DG2MessageType copy = msg;
        char name[DG2::kNameSize + 1] = {};
        std::strncpy(name, from.c_str(), DG2::kNameSize);
        table->setRvData(&copy, IPC_DST_REPLY, port, name, ThCtrlSlot0);
        event(EvNetReceived);
    }

    // Everything queued since the last call, oldest first; time-outs armed.
    std::vector<IPC_DATA_REC> transmit()
    {
        std::vector<IPC_DATA_REC> out;
        IPC_DATA_REC rec;
        while (table->getSdData(&rec)) {
            if (rec.ret.timeOut > 0 && rec.ret.awaited != -1) {
                const int id = table->GetTimerID();
                table->SetTimerInfo(id, &rec.ret);
                _NOTIFYMSGINFO nt{NtNetTimerStart, 4, {id, rec.ret.timeOut, 0, rec.ret.threadId}};
                core->SetNotify(&nt);
            }
            out.push_back(rec);
        }
        events();
        return out;
    }

    std::vector<std::string> sent() // transmit(), each described
    {
        std::vector<std::string> out;
        for (const IPC_DATA_REC& rec : transmit())
            out.push_back(DG2Describe(rec.msg));
        return out;
    }

    // Hands a running timer back to the protocol as its expiry event.
    void expire(int id)
    {
        running.erase(id);
        const bool second = id >= TmNet2First && id <= TmNet2Last;
        event(second ? EvNetTimeout2 : EvNetTimeout, {second ? id - TmNet2First : id});
    }

    // The running reply time-outs (ids 30..265).
    std::vector<int> replyTimers() const
    {
        std::vector<int> out;
        for (int id : running)
            if (id >= TmNetFirst && id <= TmNetLast)
                out.push_back(id);
        return out;
    }

    // Seconds from now to the expiry of a member's communication-error timer (-1: not running).
    int commErrTimerLeft(int slot)
    {
        const int id = IpcCTrlTh::CommErrTimerId(slot);
        return running.count(id) == 0 ? -1 : expiry[id] - static_cast<int>(clock.now());
    }
    DUP_MEMB_INFO member(const std::string& id) { return lookup(id).second; }
    int slotOf(const std::string& id) { return lookup(id).first; }

    // A member's datagram to this controller (127.0.0.1).
    static DG2Builder fromMember(int msg, const std::string& from)
    {
        return DG2Builder(uint8_t(msg)).from(from.c_str(), DG2::KindMember).to("127.0.0.1", DG2::KindController);
    }
    // A registration from a member by address (source name = its address).
    static DG2MessageType registration(const std::string& address, int port)
    {
        const DG2Address a{"", address, port};
        return fromMember(DG2::MsgRegister, address)
            .pack([&](DG2MessageType* m) { return DG2PackAddress(m, DG2::MsgRegister, a); }).msg();
    }
    // A member's answer to request msg, from the name the controller wrote to.
    static DG2MessageType answer(int msg, const std::string& from) { return fromMember(msg, from).result(0).msg(); }
    static DG2MessageType settingsAnswer(const std::string& from, const std::string& hostName)
    {
        DG2Settings s;
        s.hostName = hostName, s.groupName = "rack-3", s.port = 3069;
        return fromMember(DG2::MsgSettings, from).result(0)
            .pack([&](DG2MessageType* m) { return DG2PackSettings(m, s); }).msg();
    }

    TempDir dir;
    ManualClock clock;
    std::unique_ptr<FileMap> config;
    FileMap* configPtr = nullptr;
    std::unique_ptr<StCTrl> core;
    std::unique_ptr<IpcData> table;
    IpcData* tablePtr = nullptr;
    std::unique_ptr<UpsDataBlock> ups;
    UpsDataBlock* upsPtr = nullptr;
    std::unique_ptr<IpcCTrlCTh> th;
    // Timers started and not stopped, with their expiry (a second start changes nothing).
    std::set<int> running;
    std::map<int, int> expiry;

private:
    std::pair<int, DUP_MEMB_INFO> lookup(const std::string& id)
    {
        std::string key = id;
        DUP_MEMB_INFO rec;
        const int slot = table->GetMembInfo(&key[0], &rec);
        return {slot, rec};
    }
    // Takes the core's queued events: timer starts and stops update `running`.
    void events()
    {
        EVENTMSGINFO ev;
        while (core->popHeadForTest(&ev)) {
            if (ev.to == ThTimer && ev.code == EvTimerStart) {
                if (running.insert(ev.params[0]).second)
                    expiry[ev.params[0]] = ev.params[1];
            } else if (ev.to == ThTimer && ev.code == EvTimerStop) {
                running.erase(ev.params[0]);
            }
        }
    }
};
