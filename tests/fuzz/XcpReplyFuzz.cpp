// libFuzzer target of the UPS link's reply handling: any bytes, in any
// pieces, as the reply to a request or command, through the frame walk and
// every block parser and the alarm tracking. Input: byte 0 picks the
// request, byte 1 the piece size, the rest is the reply.
#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/fakes/XcpLinkRig.h"

namespace {
const unsigned char kCodes[] = {0xA0, 0x31, 0x33, 0x34, 0x35, 0x36, 0x3B, 0x3C,
                                0x40, 0x41, 0x42, 0x43, 0x89, 0x8A, 0x93, 0x97};

int request(XcpIFTh& link, unsigned char code)
{
    switch (code) {
    case 0xA0:
    case 0x31: {
        std::string reply;
        link.commandBuffer().push_back(static_cast<char>(code));
        return link.communicateUps(&reply);
    }
    case 0x33: return link.standardUpsStatusDataBlockRequest();
    case 0x34: return link.standardMetersBlockRequest();
    case 0x35: return link.currentAlarmsAndEventsDataRequest();
    case 0x36: return link.configBlockRequest();
    case 0x3B: return link.batteryTestResultRequest();
    case 0x3C: return link.extendedLimitsBlockRequest();
    case 0x40: return link.commandListBlockRequest();
    case 0x41: return link.outletMonitoringBlockRequest();
    case 0x42: return link.communicationCapabilitiesBlockRequest();
    case 0x43: return link.upsTopologyDataBlockRequest();
    case 0x89: return link.setUPSOn(1);
    case 0x8A: return link.upsStop();
    case 0x93: return link.setScheduledUPSOnOff(2);
    default: return link.sendOutletParameter(1);
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    XcpLinkRig rig;
    rig.wire();

    const unsigned char code = kCodes[data[0] % sizeof kCodes];
    const std::string bytes(reinterpret_cast<const char*>(data + 2), size - 2);

    rig.link->portOpen();
    rig.link->setMaxCommandLength(64);

    // A first identification gives the parsers a meter map and lengths.
    rig.ups->setStandardIDBlock(bytes);

    rig.port.queueReply(code, ScriptedSerialPort::Reply{bytes, 0, data[1] % 40, 50 * (data[1] / 40)});
    request(*rig.link, code);
    if (rig.link->commandBuffer().size() != 1)
        __builtin_trap();

    rig.ups->setConfigBlock(bytes);
    rig.ups->setExtendedLimitsBlock(bytes);
    rig.ups->setUpsTopology(bytes);
    rig.ups->setOutlets(bytes);
    rig.ups->setMeters(bytes);
    rig.ups->setUpsStatus(bytes);
    rig.ups->setBatteryData(bytes);
    rig.ups->setAlarmNo(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()), 1);
    rig.ups->setActionLevel(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()), 1);
    rig.ups->checkAlarm(0);
    rig.ups->checkAlarm(1);
    rig.ups->getAlertDiffTime(1);
    rig.ups->getMeterMessage();
    rig.ups->getFirmware();
    _NOTIFYMSGINFO nt;
    rig.link->checkNotify(&nt);
    if (nt.count < 5 || nt.count > 256)
        __builtin_trap();
    return 0;
}
