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

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/ScriptedSerialPort.h"
#include "xcp/UpsDataBlock.h"
#include "xcp/XcpIFTh.h"
#include "xcp/XcpTh.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    static ManualClock clock(1800000000);
    static FileMap config;
    static bool configured = false;
    if (!configured) {
        config.setConf("DeviceName", "/dev/fuzz");
        configured = true;
    }
    static StCTrl ctrl(&clock, &config);
    static XcpTh events(2, &ctrl);

    const size_t textLength = std::min<size_t>(data[0], size - 2);
    const std::string text(reinterpret_cast<const char*>(data + 2), textLength);
    const std::string reply(reinterpret_cast<const char*>(data + 2 + textLength), size - 2 - textLength);

    UpsDataBlock ups(&clock);
    UpsDataBlock* upsPtr = &ups;
    FileMap* configPtr = &config;
    ScriptedSerialPort port;
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
    XcpIFTh link(3, &ctrl, &port, &configPtr, &upsPtr, &events, &port.sleeper());
    link.portOpen();

    const int r = link.plugAndPlay();
    if (link.commandBuffer().size() != 1)
        __builtin_trap();
    if (r == 0 && link.currentBaudrate() != 1200)
        __builtin_trap();
    if (r < 0 || r > 9)
        __builtin_trap();

    // The parser on its own, on the raw bytes, twice (a second
    // identification replaces the first).
    ups.setStandardIDBlock(reply);
    ups.setStandardIDBlock(text);
    const std::string name = ups.getUnitName();
    const std::string firmware = ups.getFirmware();
    if (name.size() > 255 || firmware.empty())
        __builtin_trap();
    ups.getSerielNo();
    return 0;
}
