// MemberProtocolRig: the member-side protocol thread of slot 0 (thread 8) on a ProtocolRig, with
// its controller list.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ipc/IpcCTrlMTh.h"
#include "tests/fakes/ProtocolRig.h"

class MemberProtocolRig : public ProtocolRig {
public:
    static constexpr const char* kIni =
        "UPSController=2\nIPAddress=127.0.0.2\nMemberPort=3069\nCtrlIPAddress1=127.0.0.1\nCtrlPort1=3052\n"
        "MemberEntry1=0\nMyID1=\nHostName1=\nUGName1=\nAccessCode1=7000\nWinkTime1=10\nShutdownTime1=1\n"
        "AppTermTimeOut1=10\nShutdownDelay1=10\nAppTermCommand1=\nAcceptControllerCommand=0\n"
        "AcceptControllerTiming=1\n";

    // `controller`: the followed controller's entry in the controller list.
    explicit MemberProtocolRig(const std::string& ini = kIni, const std::string& controller = "127.0.0.1",
                               std::function<void(int)> resolve = {}, bool startNow = true)
        : ProtocolRig("membproto", ini)
    {
        dir.write("Membercnt.cfg", "IPAddress1=" + controller + "\nPort1=3052\nWinkTime=\nShutdownTime=\n"
                                   "AppTermTimeOut=\nShutdownDelay=\nAppTermCommand=\n");
        membersPtr = (members = std::make_unique<FileMap>(dir.file("Membercnt.cfg"))).get();
        proto = (th = std::make_unique<IpcCTrlMTh>(
                     ThCtrlSlot0, core.get(),
                     IpcCTrlMTh::Wiring{&tablePtr, &configPtr, &membersPtr, &upsPtr, &clock, std::move(resolve)}))
                    .get();
        if (startNow)
            start();
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

    std::unique_ptr<FileMap> members;
    FileMap* membersPtr = nullptr;
    std::unique_ptr<IpcCTrlMTh> th;
};
