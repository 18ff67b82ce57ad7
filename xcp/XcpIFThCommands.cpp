// XcpIFTh: the action commands. Each is preceded by the authentication
// frame; all but the delayed power-off are skipped when the UPS does not
// list them; the reply (block 9) must echo the command code in its data
// byte 1.
#include "control/StCTrl.h"
#include "xcp/XcpIFTh.h"

namespace {
const unsigned char kCmdPowerOffRestart = 0x8A;
const unsigned char kCmdUpsOn = 0x89;
const unsigned char kCmdScheduledOnOff = 0x93;
const unsigned char kCmdOutletParameter = 0x97;
const unsigned char kCmdCommParameter = 0x98;

// Outlet parameter number sent by sendOutletParameter.
const char kOutletParameterNumber = 0x02;

std::string segmentByte(int segment)
{
    // Segment 0 (or below) means the UPS as a whole: no segment byte.
    return segment > 0 ? std::string(1, static_cast<char>(segment & 0xFF)) : std::string();
}

std::string word16(unsigned value)
{
    std::string s;
    s.push_back(static_cast<char>(value & 0xFF));
    s.push_back(static_cast<char>((value >> 8) & 0xFF));
    return s;
}
} // namespace

int XcpIFTh::actionCommand(unsigned char code, const std::string& args, bool always, bool check)
{
    if (!always && !isSupportCommand(code))
        return XcpOk;
    int r = standardAuth();
    if (r != XcpOk)
        return r;
    std::string reply;
    mCommand.push_back(static_cast<char>(code));
    mCommand += args;
    r = communicateUps(&reply);
    if (r != XcpOk || !check)
        return r;
    if (reply.size() < 2 || static_cast<unsigned char>(reply[1]) != code)
        return XcpBadChecksum;
    return XcpOk;
}

int XcpIFTh::upsStop() { return delayedLoadPowerOffAndRestartRequest(0); }

int XcpIFTh::delayedLoadPowerOffAndRestartRequest(int segment)
{
    // The delay covers the hosts' application end and shutdown, taken from
    // the controller when the command is sent.
    unsigned delay = 0;
    if (mCtrl)
        delay = static_cast<unsigned>(mCtrl->getShutdownDelay(0) + mCtrl->getAppEndTime(0)) & 0xFFFF;
    return actionCommand(kCmdPowerOffRestart, word16(delay) + segmentByte(segment), true, true);
}

int XcpIFTh::setUPSOn(int segment) { return actionCommand(kCmdUpsOn, segmentByte(segment), false, true); }

int XcpIFTh::setScheduledUPSOnOff(int segment)
{
    return actionCommand(kCmdScheduledOnOff, std::string(2, '\0') + segmentByte(segment), false, true);
}

int XcpIFTh::sendOutletParameter(int segment)
{
    std::string args;
    args.push_back(kOutletParameterNumber);
    args.push_back(static_cast<char>(segment & 0xFF));
    args += word16(0);
    return actionCommand(kCmdOutletParameter, args, false, true);
}

int XcpIFTh::setCommunicationParameter(int rate)
{
    if (!isSupportCommand(kCmdCommParameter))
        return XcpOk;
    int r = standardAuth();
    if (r != XcpOk)
        return r;
    std::string reply;
    mCommand.push_back(static_cast<char>(kCmdCommParameter));
    mCommand.push_back('\0');
    mCommand.push_back('\1');
    mCommand += word16(static_cast<unsigned>(rate));
    // The host switches to the new speed whatever the UPS answered.
    communicateUps(&reply);
    setBaudrate(rate);
    flush();
    return XcpOk;
}
