// libFuzzer target of a controller's receive path: any bytes as a datagram,
// through the receive check and the controller protocol (from a member in its
// exchange, then from a stranger). Members keep clean IDs and dotted
// addresses, the member file four lines each, and every queued datagram is
// a well-formed one of this controller.
#include <arpa/inet.h>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <unistd.h>

#include "tests/fakes/ControllerProtocolRig.h"

namespace {

ControllerProtocolRig& rig()
{
    // One rig (and temporary directory) for the run; each input starts from an empty member table.
    static ControllerProtocolRig r;
    return r;
}

void checkQueued(ControllerProtocolRig& r)
{
    for (const IPC_DATA_REC& rec : r.transmit()) {
        const DG2MessageType& m = rec.msg;
        const DG2::BodyLayout* layout = DG2::findLayout(m.msgNo);
        if (m.magic != DG2::kMagic || !layout || m.bodyLen != layout->bodySize || m.dstKind != DG2::KindMember ||
            (m.srcKind != DG2::KindController && m.srcKind != DG2::KindControllerAlt) ||
            (m.result != DG2::kResultOk && m.result != DG2::kResultRequest))
            __builtin_trap();
    }
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
    checkQueued(r);

    for (const char* from : {"127.0.0.5", "127.0.0.6"}) {
        DG2MessageType msg;
        std::memset(&msg, 0, sizeof msg);
        std::memcpy(&msg, data, size < sizeof msg ? size : sizeof msg);
        if (DG2CheckReceived(&msg, size, DG2Role::Controller) != DG2Drop::DG2Accepted)
            return 0;
        r.receive(msg, from, 3069);
        checkQueued(r);
        checkTable(r);
    }
    return 0;
}
