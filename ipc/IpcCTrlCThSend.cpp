// IpcCTrlCTh: the requests of the controller side (bodies and queueing),
// their repetition and the requests to all active members.
#include "ipc/IpcCTrlCTh.h"

#include <cstring>

#include "control/StCTrl.h"
#include "core/Clock.h"
#include "core/ErrorLog.h"
#include "ipc/IpcData.h"
#include "xcp/UpsDataBlock.h"

namespace {

void notSent(int msg, const char* why)
{
    ErrorLog::report("message " + std::to_string(msg) + " not sent: " + why);
}

} // namespace

// ---------------------------------------------------------------- bodies

int IpcCTrlCTh::FuncSd_0()
{
    DG2MessageType m;
    std::memset(&m, 0, sizeof m);
    DG2Settings s;
    s.hostName = mOwnAddress;
    s.groupName = conf("GroupName");
    const std::string port = conf("CtrlPort1");
    if (!DG2FieldNumber(port.c_str(), port.size(), &s.port))
        s.port = -1; // refused by the pack below
    s.shutdownDelay = mCoreRef->getShutdownDelay(0);
    s.countdownTime = mCoreRef->getCountdownTime(0);
    s.winkTime = mCoreRef->getWinkTime(0);
    s.appEndTime = mCoreRef->getAppEndTime(0);
    s.runCommand = mCoreRef->getRunCommand(0);
    const int n = DG2PackSettings(&m, s);
    if (n < 0) {
        notSent(DG2::MsgSettings, "a setting does not fit (\"CtrlPort1\", timing, command or group name)");
        return -1;
    }
    std::memcpy(OutBody(), m.body, n);
    return n;
}

int IpcCTrlCTh::FuncSd_35()
{
    DG2MessageType m;
    std::memset(&m, 0, sizeof m);
    DG2Address a;
    a.memberId = DG2FieldText(mMemb.memberId, sizeof mMemb.memberId);
    a.address = DG2FieldText(mMemb.address, sizeof mMemb.address);
    a.port = mMemb.port;
    const int n = DG2PackAddress(&m, DG2::MsgRegister, a);
    if (n < 0) {
        notSent(DG2::MsgRegister, "the member's port does not fit");
        return -1;
    }
    std::memcpy(OutBody(), m.body, n);
    return n;
}

int IpcCTrlCTh::FuncSd_127()
{
    DG2MessageType m;
    std::memset(&m, 0, sizeof m);
    DG2AppEnd a;
    a.value1 = mAppEnd1;
    a.value2 = mAppEnd2;
    a.senderName = mOwnAddress;
    const int n = DG2PackAppEnd(&m, a);
    if (n < 0) {
        notSent(DG2::MsgAppEnd, "a value does not fit its 16-bit field");
        return -1;
    }
    std::memcpy(OutBody(), m.body, n);
    return n;
}

int IpcCTrlCTh::FuncSd_140()
{
    DG2MessageType m;
    std::memset(&m, 0, sizeof m);
    const int n = DG2PackAccessCode(&m, conf("AccessCode1"));
    if (n < 0) {
        notSent(DG2::MsgAccessCode, "\"AccessCode1\" holds a control character");
        return -1;
    }
    std::memcpy(OutBody(), m.body, n);
    return n;
}

int IpcCTrlCTh::FuncSd_141()
{
    UpsDataBlock* ups = mWiring.ups ? *mWiring.ups : nullptr;
    if (!ups) {
        notSent(DG2::MsgPowerReport, "no UPS data yet");
        return -1;
    }
    DG2PowerReportBody b;
    DG2PowerReportFromUps(*ups, 0, &b);
    b.restarted = mFirstReport ? 1 : 0;
    // Without an outlet table the UPS reports no outlet state: its output
    // is taken as on (it is powering this host).
    b.outputOn = ups->outletCount() > 0 ? (ups->outletOnFlag() ? 1 : 0) : 1;
    b.reportTime = static_cast<int32_t>(clock().now());
    DG2MessageType m;
    std::memset(&m, 0, sizeof m);
    const int n = DG2PackPowerReport(&m, b);
    if (n < 0) {
        notSent(DG2::MsgPowerReport, "the UPS data does not fit the report");
        return -1;
    }
    mFirstReport = false;
    std::memcpy(OutBody(), m.body, n);
    return n;
}

int IpcCTrlCTh::FuncSd_181()
{
    DG2_ShutdownTimming t;
    std::memset(&t, 0, sizeof t);
    t.winkTime = mCoreRef->getWinkTime(0);
    t.shutdownTime = mCoreRef->getCountdownTime(0);
    t.appTermTimeOut = mCoreRef->getAppEndTime(0);
    t.shutdownDelay = mCoreRef->getShutdownDelay(0);
    const std::string command = mCoreRef->getRunCommand(0);
    if (command.size() >= sizeof t.appTermCommand) {
        notSent(DG2::MsgShutdownTiming, "\"AppTermCommand1\" is longer than 127 bytes");
        return -1;
    }
    std::memcpy(t.appTermCommand, command.data(), command.size());
    DG2MessageType m;
    std::memset(&m, 0, sizeof m);
    const int n = DG2PackShutdownTiming(&m, t);
    if (n < 0) {
        notSent(DG2::MsgShutdownTiming, "a timing value does not fit its 16-bit field");
        return -1;
    }
    std::memcpy(OutBody(), m.body, n);
    return n;
}

// ---------------------------------------------------------------- queueing

int IpcCTrlCTh::sendRequest(unsigned char msg, int bodySize, int timeOut, int limit, bool repeat, IPC_DST_MODE mode)
{
    if (bodySize < 0)
        return 0;
    if (repeat)
        return SendRetry();
    return SendData(msg, static_cast<unsigned short>(bodySize), timeOut, limit, mode, 0);
}

int IpcCTrlCTh::SDM_0(bool repeat, IPC_DST_MODE mode)
{
    return sendRequest(DG2::MsgSettings, FuncSd_0(), kReplyTimeOut, kLimitRepeat, repeat, mode);
}

int IpcCTrlCTh::SDM_35(bool repeat, IPC_DST_MODE mode)
{
    return sendRequest(DG2::MsgRegister, FuncSd_35(), kReplyTimeOut, kLimitRepeat, repeat, mode);
}

int IpcCTrlCTh::SDM_127(bool repeat, IPC_DST_MODE mode)
{
    return sendRequest(DG2::MsgAppEnd, FuncSd_127(), 0, 0, repeat, mode);
}

int IpcCTrlCTh::SDM_140(bool repeat, IPC_DST_MODE mode)
{
    return sendRequest(DG2::MsgAccessCode, FuncSd_140(), kReplyTimeOut, kLimitRepeat, repeat, mode);
}

int IpcCTrlCTh::SDM_141(bool repeat, IPC_DST_MODE mode)
{
    return sendRequest(DG2::MsgPowerReport, FuncSd_141(), kReplyTimeOut, kLimitPowerReport, repeat, mode);
}

int IpcCTrlCTh::SDM_181(bool repeat, IPC_DST_MODE mode)
{
    return sendRequest(DG2::MsgShutdownTiming, FuncSd_181(), kReplyTimeOut, kLimitRepeat, repeat, mode);
}

int IpcCTrlCTh::Resend(unsigned char msg)
{
    // A member deleted meanwhile gets nothing more.
    char id[kMembIdSize + 1] = {};
    std::memcpy(id, mMemb.memberId, kMembIdSize);
    mSlot = id[0] ? table().GetMembInfo(id, &mMemb) : 0;
    if (mSlot == 0)
        return 0;
    switch (msg) {
    case DG2::MsgSettings: return SDM_0(true, IPC_DST_REPLY);
    case DG2::MsgRegister: return SDM_35(true, IPC_DST_REPLY);
    case DG2::MsgAccessCode: return SDM_140(true, IPC_DST_REPLY);
    case DG2::MsgPowerReport: return SDM_141(true, IPC_DST_REPLY);
    case DG2::MsgShutdownTiming: return SDM_181(true, IPC_DST_REPLY);
    default: return 0;
    }
}

// ---------------------------------------------------------------- to all members

int IpcCTrlCTh::toAll(int (IpcCTrlCTh::*sdm)(bool, IPC_DST_MODE))
{
    // The transport addresses each active member itself.
    clearCurrent();
    return (this->*sdm)(false, IPC_DST_ALL);
}

int IpcCTrlCTh::SendPowerWong() { return toAll(&IpcCTrlCTh::SDM_141); }

int IpcCTrlCTh::SendAccessCode() { return toAll(&IpcCTrlCTh::SDM_140); }

int IpcCTrlCTh::SendShutdown() { return toAll(&IpcCTrlCTh::SDM_181); }

int IpcCTrlCTh::SendAppEnd(int value1, int value2)
{
    mAppEnd1 = value1;
    mAppEnd2 = value2;
    clearCurrent();
    return SDM_127(false, IPC_DST_CLOSE);
}
