// libFuzzer target of the UPS identification at detection: the serial
// plug-and-play handshake text, the identification reply that follows it
// (0xA0, or "1" for a UPS whose text names protocol "2") and the parse of
// the identification block into the UPS data.
//
// Input: byte 0 is the length of the plug-and-play text; byte 1 holds in
// its low six bits the size of the pieces the identification reply arrives
// in, and in bit 6 whether 0xA0 is answered without a start byte (so that
// only "1" gets the reply); then the text, then the reply.
#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/fakes/XcpLinkRig.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    XcpLinkRig rig;
    rig.wire();
    XcpIFTh& link = *rig.link;
    UpsDataBlock& ups = *rig.ups;
    ScriptedSerialPort& port = rig.port;

    const size_t textLength = std::min<size_t>(data[0], size - 2);
    const std::string text(reinterpret_cast<const char*>(data + 2), textLength);
    const std::string reply(reinterpret_cast<const char*>(data + 2 + textLength), size - 2 - textLength);

    port.dsrFollowsDtr = true;
    port.pnpText = text;
    ScriptedSerialPort::Reply answer;
    answer.bytes = reply;
    answer.chunk = data[1] & 0x3F;
    if (data[1] & 0x40)
        port.queueReply(0xA0, std::string(1, '\x01'));
    else
        port.queueReply(0xA0, answer);
    port.queueReply(0x31, answer);
    link.portOpen();

    const int r = link.plugAndPlay();
    if (link.commandBuffer().size() != 1 || r < 0 || r > 9 || (r == 0 && link.currentBaudrate() != 1200))
        __builtin_trap();

    // The parser on its own, on the raw bytes, twice (a second
    // identification replaces the first).
    ups.setStandardIDBlock(reply);
    ups.setStandardIDBlock(text);
    if (ups.getUnitName().size() > 255 || ups.getFirmware().empty())
        __builtin_trap();
    ups.getSerielNo();
    return 0;
}
