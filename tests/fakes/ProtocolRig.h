// ProtocolRig: one coordination protocol thread run by hand in virtual time, on a real controller
// core, member table, configuration and UPS data in a temporary directory, playing the transport:
// receive() hands in a peer's datagram, transmit() drains the send queue and arms the reply
// time-outs, expire() fires a timer. The core's events are kept in `posted`, its running timers in
// `running`. The controller and member rigs build their thread on it.
#pragma once

#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "config/FileMap.h"
#include "control/Codes.h"
#include "control/StCTrl.h"
#include "ipc/IpcCTrlTh.h"
#include "ipc/IpcData.h"
#include "tests/fakes/DG2Builder.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempDir.h"
#include "xcp/UpsDataBlock.h"

class ProtocolRig {
public:
    ProtocolRig(const char* stem, const std::string& ini) : dir(stem)
    {
        dir.write("Kestrava.ini", ini);
        configPtr = (config = std::make_unique<FileMap>(dir.file("Kestrava.ini"))).get();
        core = std::make_unique<StCTrl>(&clock, configPtr);
        core->getShutdownTiming(0);
        tablePtr = (table = std::make_unique<IpcData>(*core, dir.path(), dir.path())).get();
        upsPtr = (ups = std::make_unique<UpsDataBlock>(&clock)).get();
    }

    // `text` with its first `from` replaced by `to` (a configuration variant).
    static std::string with(std::string text, const std::string& from, const std::string& to)
    {
        return text.replace(text.find(from), from.size(), to);
    }

    void start() { proto->Start(), events(); }
    void event(int code, const std::vector<int>& params = {})
    {
        proto->HandleEvent(eventRecord(proto->GetMyThrad(), code, params));
        events();
    }
    // A datagram from a peer at address:port (by default the controller a member follows).
    void receive(DG2MessageType msg, const std::string& from = "127.0.0.1", int port = 3052)
    {
        char name[DG2::kNameSize + 1] = {};
        std::strncpy(name, from.c_str(), DG2::kNameSize);
        table->setRvData(&msg, IPC_DST_REPLY, port, name, proto->GetMyThrad());
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
        if (id >= TmNet2First && id <= TmNet2Last)
            event(EvNetTimeout2, {id - TmNet2First});
        else if (id >= TmHealth && id <= TmHealth + 3)
            event(EvHealthTimeout);
        else
            event(EvNetTimeout, {id});
    }
    // The running reply time-outs (ids 30..265).
    std::vector<int> replyTimers() const
    {
        std::vector<int> out;
        for (const auto& t : running)
            if (t.first >= TmNetFirst && t.first <= TmNetLast)
                out.push_back(t.first);
        return out;
    }
    // Seconds to a running timer's expiry (-1: not running).
    int left(int id) { return running.count(id) ? running[id] - static_cast<int>(clock.now()) : -1; }

    TempDir dir;
    ManualClock clock;
    std::unique_ptr<FileMap> config;
    FileMap* configPtr = nullptr;
    std::unique_ptr<StCTrl> core;
    std::unique_ptr<IpcData> table;
    IpcData* tablePtr = nullptr;
    std::unique_ptr<UpsDataBlock> ups;
    UpsDataBlock* upsPtr = nullptr;
    std::map<int, int> running; // timer id -> expiry (a second start changes nothing)
    std::vector<EVENTMSGINFO> posted;

protected:
    IpcCTrlTh* proto = nullptr; // the thread under test, made by the rig built on this

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
