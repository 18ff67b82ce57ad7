// libFuzzer target of the receive paths: any bytes as a datagram, through
// the receive check and the controller protocol (from a member in its
// exchange, then from a stranger), then through a member's receive check and
// its protocol (from its controller, in the middle of a registration).
// Members keep clean IDs and dotted addresses, the member file four lines
// each, the member's configuration stays loadable, and every queued datagram
// is a well-formed one of its side.
#include <arpa/inet.h>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <unistd.h>

#include "tests/fakes/ControllerProtocolRig.h"
#include "tests/fakes/MemberProtocolRig.h"

namespace {

ControllerProtocolRig& rig()
{
    // One rig (and temporary directory) for the run; each input starts from an empty member table.
    static ControllerProtocolRig r;
    return r;
}

void checkQueued(ProtocolRig& r, bool member)
{
    for (const IPC_DATA_REC& rec : r.transmit()) {
        const DG2MessageType& m = rec.msg;
        const DG2::BodyLayout* layout = DG2::findLayout(m.msgNo);
        const bool kinds = member ? m.srcKind == DG2::KindMember && m.dstKind == DG2::KindController
                                  : m.dstKind == DG2::KindMember &&
                                        (m.srcKind == DG2::KindController || m.srcKind == DG2::KindControllerAlt);
        if (m.magic != DG2::kMagic || !layout || m.bodyLen != layout->bodySize || !kinds ||
            (m.result != DG2::kResultOk && m.result != DG2::kResultRequest))
            __builtin_trap();
    }
}

// A member registering with its controller gets the fuzzed datagram from it.
void memberSide(const uint8_t* data, size_t size)
{
    DG2MessageType msg;
    std::memset(&msg, 0, sizeof msg);
    std::memcpy(&msg, data, size < sizeof msg ? size : sizeof msg);
    if (DG2CheckReceived(&msg, size, DG2Role::Member) != DG2Drop::DG2Accepted)
        return;
    // Registered: the whole exchange answered, so unsolicited requests count.
    MemberProtocolRig m;
    DG2Settings s;
    s.hostName = "ctrl", s.groupName = "rack-3", s.port = 3052;
    m.receive(MemberProtocolRig::registrationAnswer("127.0.0.2"));
    m.receive(MemberProtocolRig::fromController(DG2::MsgSettings).pack([&](DG2MessageType* x) {
        return DG2PackSettings(x, s);
    }).msg());
    m.receive(MemberProtocolRig::timing(30, 2, ""));
    m.receive(MemberProtocolRig::fromController(DG2::MsgAccessCode).pack([](DG2MessageType* x) {
        return DG2PackAccessCode(x, "7000");
    }).msg());
    m.receive(MemberProtocolRig::report(false, 0));
    checkQueued(m, true);
    m.receive(msg);
    checkQueued(m, true);
    FileMap reread(m.dir.file("Kestrava.ini"));
    if (!reread.isLoaded() || reread.getConf("UPSController") != "2")
        __builtin_trap();
}

void checkTable(ControllerProtocolRig& r)
{
    for (int s = 1; s < IpcData::kSlots; ++s) {
        DUP_MEMB_INFO m;
        r.table->GetMembInfo(s, &m);
        if (m.memberId[0] == '\0')
            continue;
        in_addr a;
        const std::string address = DG2FieldText(m.address, sizeof m.address);
        if (!DG2FieldTextOk(m.memberId, sizeof m.memberId) || !DG2FieldTextOk(m.name, sizeof m.name) ||
            inet_pton(AF_INET, address.c_str(), &a) != 1 || m.port < 1 || m.port > 65535)
            __builtin_trap();
    }
    if (readLines(r.dir.file("MembInfo.dat")).size() % 4 != 0)
        __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    ControllerProtocolRig& r = rig();
    unlink(r.dir.file("MembInfo.dat").c_str());
    r.th->Start();
    r.transmit();
    // A member waiting to answer message 0.
    r.receive(ControllerProtocolRig::registration("127.0.0.5", 3069), "127.0.0.5", 3069);
    checkQueued(r, false);
    memberSide(data, size);

    for (const char* from : {"127.0.0.5", "127.0.0.6"}) {
        DG2MessageType msg;
        std::memset(&msg, 0, sizeof msg);
        std::memcpy(&msg, data, size < sizeof msg ? size : sizeof msg);
        if (DG2CheckReceived(&msg, size, DG2Role::Controller) != DG2Drop::DG2Accepted)
            return 0;
        r.receive(msg, from, 3069);
        checkQueued(r, false);
        checkTable(r);
    }
    return 0;
}
