// ControllerProtocolRig: the controller-side protocol thread on a ProtocolRig.
#pragma once

#include <string>

#include "ipc/IpcCTrlCTh.h"
#include "tests/fakes/ProtocolRig.h"

class ControllerProtocolRig : public ProtocolRig {
public:
    static std::string defaultIni()
    {
        return "UPSController=1\nIPAddress=127.0.0.1\nSetUpID=*ABCD\nCtrlPort1=3052\nGroupName=rack-3\n"
               "AccessCode1=8000\nMemberIDData=0\nWinkTime1=30\nShutdownTime1=5\nAppTermTimeOut1=60\n"
               "ShutdownDelay1=120\nAppTermCommand1=/bin/true\n";
    }

    // ini: the whole "Kestrava.ini"; membInfo: "MembInfo.dat" before start.
    explicit ControllerProtocolRig(const std::string& ini = defaultIni(), const std::string& membInfo = "")
        : ProtocolRig("ctrlproto", ini)
    {
        if (!membInfo.empty())
            dir.write("MembInfo.dat", membInfo);
        IpcCTrlCTh::Wiring w;
        w.table = &tablePtr, w.config = &configPtr, w.ups = &upsPtr, w.clock = &clock;
        proto = (th = std::make_unique<IpcCTrlCTh>(ThCtrlSlot0, core.get(), w)).get();
        start();
    }

    // Seconds from now to the expiry of a member's communication-error timer (-1: not running).
    int commErrTimerLeft(int slot) { return left(IpcCTrlTh::CommErrTimerId(slot)); }
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

    std::unique_ptr<IpcCTrlCTh> th;

private:
    std::pair<int, DUP_MEMB_INFO> lookup(std::string id)
    {
        DUP_MEMB_INFO rec;
        const int slot = table->GetMembInfo(&id[0], &rec);
        return {slot, rec};
    }
};
