// libFuzzer target of the UPS identification at detection: the plug-and-play
// text, the identification reply (0xA0, or "1" for protocol "2") and the
// identification block parser. Input: byte 0 the text length; byte 1 the
// reply's piece size (low six bits) and in bit 6 whether 0xA0 gets a reply
// without a start byte (so only "1" gets the reply); the text; the reply.
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

    const size_t textLength = std::min<size_t>(data[0], size - 2);
    const std::string text(reinterpret_cast<const char*>(data + 2), textLength);
    const std::string reply(reinterpret_cast<const char*>(data + 2 + textLength), size - 2 - textLength);

    rig.port.dsrFollowsDtr = true;
    rig.port.pnpText = text;
    const ScriptedSerialPort::Reply answer{reply, 0, data[1] & 0x3F};
    if (data[1] & 0x40)
        rig.port.queueReply(0xA0, std::string(1, '\x01'));
    else
        rig.port.queueReply(0xA0, answer);
    rig.port.queueReply(0x31, answer);
    rig.link->portOpen();

    const int r = rig.link->plugAndPlay();
    if (rig.link->commandBuffer().size() != 1 || r < 0 || r > 9 || (r == 0 && rig.link->currentBaudrate() != 1200))
        __builtin_trap();

    // The parser on its own, on the raw bytes, twice (a second
    // identification replaces the first).
    rig.ups->setStandardIDBlock(reply);
    rig.ups->setStandardIDBlock(text);
    if (rig.ups->getUnitName().size() > 255 || rig.ups->getFirmware().empty())
        __builtin_trap();
    rig.ups->getSerielNo();
    return 0;
}
