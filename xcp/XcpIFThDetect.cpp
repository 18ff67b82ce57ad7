// XcpIFTh: detection (plug-and-play or line-speed hunting, identification,
// command list, capabilities step-up, static blocks, outlet set-up, identity
// bookkeeping), polling, the block requests and the poll-result report.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "config/FileMap.h"
#include "control/Codes.h"
#include "xcp/SerialPort.h"
#include "xcp/UpsDataBlock.h"
#include "xcp/XcpIFTh.h"

namespace {
const unsigned char kCmdIdentify = 0xA0;
const unsigned char kCmdIdentifyOld = 0x31;  // "1"
const unsigned char kCmdStatus = 0x33;       // "3"
const unsigned char kCmdMeters = 0x34;       // "4"
const unsigned char kCmdAlarms = 0x35;       // "5"
const unsigned char kCmdConfig = 0x36;       // "6"
const unsigned char kCmdBatteryTest = 0x3B;  // ";"
const unsigned char kCmdLimits = 0x3C;       // "<"
const unsigned char kCmdCommandList = 0x40;
const unsigned char kCmdOutlets = 0x41;      // "A"
const unsigned char kCmdCapabilities = 0x42; // "B"
const unsigned char kCmdTopology = 0x43;
const unsigned char kCmdAuth = 0xCF;
const unsigned char kEscape = 0x1B;

const int kPnpRate = 1200;
// Line speeds tried by hunting, in this order; zero ends the table.
const int32_t kHuntRates[8] = {9600, 2400, 1200, 19200, 4800, 600, 300, 0};
// The plug-and-play text is read in pieces of this size.
const int kPnpPiece = 32;

// Alarms behind the fixed items of the poll result.
const int kAlarmBatteryLow = 56;
} // namespace

bool XcpIFTh::isSupportCommand(unsigned char code) const { return mSupported.empty() || mSupported.count(code) != 0; }

// ---------------------------------------------------------------- requests

int XcpIFTh::blockRequest(unsigned char code, const std::string& args,
                          void (UpsDataBlock::*parser)(const std::string&))
{
    if (!isSupportCommand(code))
        return XcpOk;
    std::string reply;
    mCommand.push_back(static_cast<char>(code));
    mCommand += args;
    int r = communicateUps(&reply);
    UpsDataBlock* ups = data();
    if (r == XcpOk && ups && parser)
        (ups->*parser)(reply);
    return r;
}

int XcpIFTh::identify(unsigned char code, std::string* reply)
{
    mCommand.push_back(static_cast<char>(code));
    return communicateUps(reply);
}

int XcpIFTh::standardUpsStatusDataBlockRequest()
{
    return blockRequest(kCmdStatus, std::string(), &UpsDataBlock::setUpsStatus);
}

int XcpIFTh::standardMetersBlockRequest() { return blockRequest(kCmdMeters, std::string(), &UpsDataBlock::setMeters); }

int XcpIFTh::currentAlarmsAndEventsDataRequest()
{
    if (!isSupportCommand(kCmdAlarms))
        return XcpOk;
    std::string reply;
    mCommand.push_back(static_cast<char>(kCmdAlarms));
    int r = communicateUps(&reply);
    UpsDataBlock* ups = data();
    if (r == XcpOk && ups)
        ups->setActionLevel(reinterpret_cast<const unsigned char*>(reply.data()), static_cast<int>(reply.size()), 0);
    return r;
}

int XcpIFTh::configBlockRequest() { return blockRequest(kCmdConfig, std::string(), &UpsDataBlock::setConfigBlock); }

int XcpIFTh::batteryTestResultRequest()
{
    return blockRequest(kCmdBatteryTest, std::string(), &UpsDataBlock::setBatteryData);
}

int XcpIFTh::extendedLimitsBlockRequest()
{
    return blockRequest(kCmdLimits, std::string(), &UpsDataBlock::setExtendedLimitsBlock);
}

int XcpIFTh::outletMonitoringBlockRequest()
{
    return blockRequest(kCmdOutlets, std::string(), &UpsDataBlock::setOutlets);
}

int XcpIFTh::upsTopologyDataBlockRequest()
{
    return blockRequest(kCmdTopology, std::string(), &UpsDataBlock::setUpsTopology);
}

int XcpIFTh::standardAuth()
{
    if (!isSupportCommand(kCmdAuth))
        return XcpOk;
    // The UPS family's access code; the UPS does not answer it.
    mCommand.push_back(static_cast<char>(kCmdAuth));
    mCommand.push_back(static_cast<char>(0x69));
    mCommand.push_back(static_cast<char>(0xE8));
    mCommand.push_back(static_cast<char>(0xD5));
    int r = sendCommand();
    flush();
    return r;
}

int XcpIFTh::commandListBlockRequest()
{
    // While the list is unknown every command counts as supported.
    mSupported.clear();
    std::string reply;
    mCommand.push_back(static_cast<char>(kCmdCommandList));
    int r = communicateUps(&reply);
    if (r != XcpOk)
        return r;
    const size_t announced = reply.empty() ? 0 : static_cast<unsigned char>(reply[0]);
    for (size_t i = 2; i < reply.size(); ++i)
        mSupported.insert(static_cast<unsigned char>(reply[i]));
    return mSupported.size() == announced ? XcpOk : XcpListMismatch;
}

int XcpIFTh::communicationCapabilitiesBlockRequest()
{
    if (!isSupportCommand(kCmdCapabilities))
        return XcpOk;
    std::string reply;
    mCommand.push_back(static_cast<char>(kCmdCapabilities));
    mCommand.push_back('\0');
    int r = communicateUps(&reply);
    if (r != XcpOk)
        return r;
    const unsigned char* d = reinterpret_cast<const unsigned char*>(reply.data());
    const size_t size = reply.size();
    if (size < 2)
        return XcpOk;
    const size_t count = d[1];
    std::vector<int> speeds;
    for (size_t i = 0; i < count && 2 + 2 * i + 1 < size; ++i)
        speeds.push_back(d[2 + 2 * i] | (d[2 + 2 * i + 1] << 8));
    if (2 * count + 2 < size)
        mMaxCommandLength = d[2 * count + 2];
    std::sort(speeds.begin(), speeds.end());
    for (auto it = speeds.rbegin(); it != speeds.rend(); ++it) {
        if (*it <= mBaudrate)
            continue;
        if (setCommunicationParameter(*it) == XcpOk)
            break;
    }
    return XcpOk;
}

// ---------------------------------------------------------------- identification

int XcpIFTh::plugAndPlay()
{
    setBaudrate(kPnpRate);
    mPort->clearBreak();
    if (!setDTR(true))
        return 1;
    if (!setRTS(true))
        return 2;
    int status = 0;
    if (!getModemStatus(&status))
        return 3;
    if (!(status & SerialPort::kDataSetReady))
        return 4;
    pause(500);
    flush();
    if (!setDTR(false))
        return 5;
    if (!getModemStatus(&status))
        return 3;
    if (status & SerialPort::kDataSetReady)
        return 4;
    pause(300);
    if (!setDTR(true))
        return 1;
    if (!getModemStatus(&status))
        return 3;
    if (!(status & SerialPort::kDataSetReady))
        return 4;
    pause(300);

    // Collect the plug-and-play text until the line stays quiet.
    std::string text;
    unsigned char piece[kPnpPiece];
    int n = portRead(piece, kPnpPiece);
    while (n > 0) {
        text.append(reinterpret_cast<const char*>(piece), static_cast<size_t>(n));
        if (text.size() >= mMaxReplyLength)
            break;
        pause(100);
        n = portRead(piece, kPnpPiece);
    }
    if (text.empty())
        return 6;
    for (char& c : text)
        c = static_cast<char>(c & 0x7F);
    if (text.front() != '(' || text.back() != ')')
        return 5;
    // Two hex digits just before the closing parenthesis carry the 8-bit
    // sum of all the other bytes.
    if (text.size() < 4)
        return 7;
    const size_t digits = text.size() - 3;
    unsigned sum = 0;
    for (size_t i = 0; i < text.size(); ++i)
        if (i != digits && i != digits + 1)
            sum += static_cast<unsigned char>(text[i]);
    char expected[3];
    snprintf(expected, sizeof expected, "%02X", sum & 0xFF);
    if (text.compare(digits, 2, expected) != 0)
        return 7;

    flush();
    std::string reply;
    int r = identify(kCmdIdentify, &reply);
    if (r == XcpNoStart) {
        // A UPS whose plug-and-play text names protocol "2" at its fifth
        // byte answers the old identification request instead.
        if (text.size() > 4 && text[4] == '2') {
            reply.clear();
            r = identify(kCmdIdentifyOld, &reply);
        } else {
            return XcpNoStart;
        }
    }
    if (r != XcpOk)
        return r;
    mBaudrate = kPnpRate;
    if (UpsDataBlock* ups = data())
        ups->setStandardIDBlock(reply);
    return XcpOk;
}

int XcpIFTh::baudrateHunting()
{
    int r = XcpTimeout;
    for (int i = 0; kHuntRates[i] != 0; ++i) {
        const int rate = kHuntRates[i];
        setBaudrate(rate);
        const char wake = static_cast<char>(kEscape);
        sendCommand(&wake, 1);
        pause(100);
        flush();
        r = standardAuth();
        if (r != XcpOk)
            continue;
        std::string reply;
        r = identify(kCmdIdentify, &reply);
        if (r != XcpOk) {
            reply.clear();
            r = identify(kCmdIdentifyOld, &reply);
        }
        if (r == XcpOk) {
            mBaudrate = rate;
            if (UpsDataBlock* ups = data())
                ups->setStandardIDBlock(reply);
            return XcpOk;
        }
    }
    return r;
}

int XcpIFTh::standardIDBlockRequest()
{
    if (plugAndPlay() == XcpOk)
        return XcpOk;
    int r = baudrateHunting();
    flush();
    return r;
}

// ---------------------------------------------------------------- detection and polling

int XcpIFTh::detect()
{
    UpsDataBlock* ups = data();
    if (mPortFd < 1 || mPortLost) {
        bool opened = portOpen() != 0;
        if (ups)
            ups->setPortAlert(opened);
    }
    int r = standardIDBlockRequest();
    if (r != XcpOk)
        return r;
    if ((r = commandListBlockRequest()) != XcpOk)
        return r;
    if ((r = communicationCapabilitiesBlockRequest()) != XcpOk)
        return r;
    if ((r = configBlockRequest()) != XcpOk)
        return r;
    if ((r = extendedLimitsBlockRequest()) != XcpOk)
        return r;
    if ((r = upsTopologyDataBlockRequest()) != XcpOk)
        return r;
    if ((r = outletMonitoringBlockRequest()) != XcpOk)
        return r;
    const int segments = ups ? ups->outletCount() : 0;
    for (int n = 1; n <= segments; ++n)
        if ((r = sendOutletParameter(n)) != XcpOk)
            return r;
    for (int n = 1; n <= segments; ++n) {
        if ((r = setScheduledUPSOnOff(n)) != XcpOk)
            return r;
        if ((r = setUPSOn(n)) != XcpOk)
            return r;
    }
    updateIdentity();
    return XcpOk;
}

void XcpIFTh::updateIdentity()
{
    UpsDataBlock* ups = data();
    FileMap* config = mConfig ? *mConfig : nullptr;
    if (!ups || !config)
        return;
    const struct {
        const char* key;
        std::string value;
    } identity[] = {
        {"UPSFirmWare", ups->getFirmware()},
        {"UPSSerial", ups->getSerielNo()},
        {"ModelName", ups->getUnitName()},
    };
    bool written = false;
    for (const auto& item : identity) {
        if (config->getConf(item.key) != item.value) {
            config->setConf(item.key, item.value);
            written = true;
        }
    }
    if (written)
        config->save();
}

int XcpIFTh::polling()
{
    int r;
    if ((r = currentAlarmsAndEventsDataRequest()) != XcpOk)
        return r;
    if ((r = standardMetersBlockRequest()) != XcpOk)
        return r;
    if ((r = standardUpsStatusDataBlockRequest()) != XcpOk)
        return r;
    if ((r = outletMonitoringBlockRequest()) != XcpOk)
        return r;
    if ((r = batteryTestResultRequest()) != XcpOk)
        return r;
    if (UpsDataBlock* ups = data())
        ups->checkAlarm(0);
    return XcpOk;
}

void XcpIFTh::checkNotify(_NOTIFYMSGINFO* nt)
{
    UpsDataBlock* ups = data();
    nt->code = NtUpsPollResult;
    int n = 0;
    if (!ups) {
        nt->params[n++] = 4;
        nt->params[n++] = 2;
        nt->params[n++] = 0;
        nt->params[n++] = 0;
        nt->params[n++] = 8;
        nt->count = n;
        return;
    }
    nt->params[n++] = ups->isAlarmActive(kAlarmBatteryLow, 0) ? 5 : 4;
    nt->params[n++] = ups->isUtilityNotParent(0) ? 2 : 3;
    nt->params[n++] = 0;
    nt->params[n++] = ups->CheckSegStatus() ? 1 : 0;
    // Room is left for the closing item.
    n += ups->changedAlarmCodes(0, nt->params + n, 255 - n);
    nt->params[n++] = 8;
    nt->count = n;
}
