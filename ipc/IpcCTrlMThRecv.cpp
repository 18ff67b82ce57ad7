// IpcCTrlMTh: dispatch of a received datagram and the handling of each
// message from the controller (power report, shutdown timing, settings,
// schedule, application end) with the member's replies.
#include "ipc/IpcCTrlMTh.h"

#include <arpa/inet.h>
#include <cstring>
#include <unistd.h>

#include "config/FileMap.h"
#include "control/Codes.h"
#include "control/Records.h"
#include "control/StCTrl.h"
#include "core/ErrorLog.h"
#include "ipc/IpcData.h"
#include "xcp/UpsDataBlock.h"

namespace {

constexpr int kAlarmBatteryLow = 56;
constexpr int kLogAppEndFromController = 200;
constexpr int kMaxNotifyParams = int(sizeof(_NOTIFYMSGINFO::params) / sizeof(int32_t));

} // namespace

void IpcCTrlMTh::MsgReply()
{
    const int msg = mMsg.msgNo;
    if (msg == DG2::MsgMemberInfo230) {
        if (!mReRegister) {
            dropped("no re-registration is pending");
            return;
        }
        RVM_230();
        return;
    }
    if (ChkSqFlow()) {
        switch (msg) {
        case DG2::MsgSettings: RVM_0(false); break;
        case DG2::MsgRegister: RVM_35(); break;
        case DG2::MsgAccessCode: RVM_140(false); break;
        case DG2::MsgPowerReport: RVM_141(false); break;
        case DG2::MsgShutdownTiming: RVM_181(false); break;
        default: break;
        }
        return;
    }
    if (mMemb.status != MembActive) {
        dropped("not registered with this controller, or out of sequence");
        return;
    }
    switch (msg) {
    case DG2::MsgSchedule: RVM_81(); break;
    case DG2::MsgRequest29: RVM_29(); break;
    case DG2::MsgSettings: RVM_0(true); break;
    case DG2::MsgRequest30: RVM_30(); break;
    case DG2::MsgRequest31: RVM_31(); break;
    case DG2::MsgAppEnd: RVM_127(); break;
    case DG2::MsgAccessCode: RVM_140(true); break;
    case DG2::MsgPowerReport: RVM_141(true); break;
    case DG2::MsgShutdownTiming: RVM_181(true); break;
    default: dropped("not a request a member answers"); break;
    }
}

void IpcCTrlMTh::replyBody(unsigned char msg, int bodySize, int awaited, int timeOut)
{
    SendReply(msg, static_cast<unsigned short>(bodySize), DG2::kResultOk, awaited, awaited == -1 ? 0 : timeOut, 0);
}

// ---------------------------------------------------------------- 35: registration answered

bool IpcCTrlMTh::Func_35()
{
    DG2Address a;
    if (!DG2UnpackAddress(mMsg, &a)) {
        dropped("registration answer with a malformed body");
        return false;
    }
    bool changed = false;
    if (!a.memberId.empty())
        changed |= setConfIfChanged(key("MyID"), a.memberId);
    changed |= setConfIfChanged(key("MemberEntry"), "1");
    FileMap* map = mWiring.config ? *mWiring.config : nullptr;
    if (changed && map && map->save() == 0)
        ErrorLog::report("controller " + std::to_string(mSlotIndex + 1) +
                         ": the registration could not be saved in the configuration file");
    return true;
}

void IpcCTrlMTh::RVM_35()
{
    if (!Func_35())
        return;
    if (mMemb.sq == SqNew || mMemb.sq == SqRenew)
        SetTimeOut(DG2::MsgSettings, kAwaitSettings);
    else if (mMemb.sq == SqMoved)
        SetTimeOut(DG2::MsgPowerReport, kAwaitReport);
}

// ---------------------------------------------------------------- 0: settings

bool IpcCTrlMTh::Func_0()
{
    DG2Settings s;
    if (!DG2UnpackSettings(mMsg, &s)) {
        dropped("settings with a malformed body or a control character: names not stored");
        return false;
    }
    bool changed = false;
    if (!s.hostName.empty())
        changed |= setConfIfChanged(key("HostName"), s.hostName);
    if (!s.groupName.empty())
        changed |= setConfIfChanged(key("UGName"), s.groupName);
    FileMap* map = mWiring.config ? *mWiring.config : nullptr;
    if (changed) {
        if (map)
            map->save();
        notify(NtControllerInfo, {});
    }
    if (s.alertMode != mAlertMode) {
        mAlertMode = s.alertMode;
        notify(NtMessageFile, {s.alertMode});
    }
    return true;
}

void IpcCTrlMTh::RVM_0(bool unsolicited)
{
    Func_0();
    DG2Settings own;
    char host[256] = {};
    if (::gethostname(host, sizeof host - 1) == 0 && DG2FieldTextOk(host, sizeof host))
        own.hostName = host;
    own.groupName = conf(key("UGName"));
    const std::string port = conf("MemberPort");
    if (!DG2FieldNumber(port.c_str(), port.size(), &own.port))
        own.port = 0;
    own.shutdownDelay = mCoreRef->getShutdownDelay(mSlotIndex);
    own.countdownTime = mCoreRef->getCountdownTime(mSlotIndex);
    own.winkTime = mCoreRef->getWinkTime(mSlotIndex);
    own.appEndTime = mCoreRef->getAppEndTime(mSlotIndex);
    DG2MessageType m;
    std::memset(&m, 0, sizeof m);
    if (DG2PackSettings(&m, own) < 0)
        std::memset(m.body, 0, DG2::kBodySettings); // an empty answer still moves the exchange on
    std::memcpy(OutBody(), m.body, DG2::kBodySettings);
    replyBody(DG2::MsgSettings, DG2::kBodySettings, unsolicited ? -1 : int(DG2::MsgShutdownTiming), kAwaitNext);
}

// ---------------------------------------------------------------- 140: access code

void IpcCTrlMTh::RVM_140(bool unsolicited)
{
    std::string code;
    if (!DG2UnpackAccessCode(mMsg, &code)) {
        dropped("access code with a malformed body");
        return;
    }
    DG2MessageType m;
    std::memset(&m, 0, sizeof m);
    if (DG2PackAccessCode(&m, conf(key("AccessCode"))) < 0)
        std::memset(m.body, 0, DG2::kBodyAccessCode);
    std::memcpy(OutBody(), m.body, DG2::kBodyAccessCode);
    const bool inExchange = !unsolicited && (mMemb.sq == SqNew || mMemb.sq == SqRenew);
    replyBody(DG2::MsgAccessCode, DG2::kBodyAccessCode, inExchange ? int(DG2::MsgPowerReport) : -1, kAwaitReport);
}

// ---------------------------------------------------------------- 141: power report

bool IpcCTrlMTh::Func_141()
{
    DG2PowerReportBody b;
    if (!DG2UnpackPowerReport(mMsg, &b)) {
        dropped("power report with a malformed body");
        return false;
    }
    const int k = mSlotIndex;
    reportLink(5);
    mCoreRef->ShutDownSetCommStatus(k, 1);

    // The controller's own UPS link: lost (10) or back (11); a restart of
    // its monitoring (9).
    if (b.upsCommLost != mPrevUpsCommLost) {
        memberLog(b.upsCommLost ? LogUpsCommError : LogUpsCommEstablished);
        mCoreRef->ShutDownSetUPSCom(k, b.upsCommLost ? 0 : 1);
    }
    if (b.restarted == 1 && mPrevRestarted != 1) {
        memberLog(9);
        mCoreRef->ShutDownSetUPSCom(k, 0);
    }
    mPrevUpsCommLost = b.upsCommLost;
    mPrevRestarted = b.restarted;

    const int outputCode = mCoreRef->SetOutPutStatus(b.outputOn != 0, b.upsCommLost != 0, k);
    if (outputCode != 0)
        memberLog(outputCode);

    _NOTIFYMSGINFO nt;
    std::memset(&nt, 0, sizeof nt);
    nt.code = NtMemberPowerReport;
    int battery = b.battery == 5 ? 5 : 4;
    int utility = b.utility == 3 ? 3 : 2;
    int n = 4;
    if (UpsDataBlock* u = ups()) {
        u->setAlarmNo(b.alarmMap, b.alarmMapLength, k);
        u->setActionLevel(b.alarmStates, UpsDataBlock::kAlarmBytes, k);
        u->checkAlarm(k);
        u->setMeterValues(b.meters, UpsDataBlock::kMeterCount, k);
        battery = u->isAlarmActive(kAlarmBatteryLow, k) ? 5 : 4;
        utility = u->isUtilityNotParent(k) ? 2 : 3;
        // Room is left for the closing owner.
        n += u->changedAlarmCodes(k, nt.params + n, kMaxNotifyParams - n - 1);
    }
    // Seconds since the power failure on the controller's own clock, so
    // the two hosts' clocks need not agree.
    int elapsed = 0;
    if (utility == 3 && b.alertTime > 0 && b.reportTime >= b.alertTime)
        elapsed = b.reportTime - b.alertTime;
    nt.params[0] = battery;
    nt.params[1] = utility;
    nt.params[2] = elapsed;
    nt.params[3] = 0;
    nt.params[n++] = GetMyThrad();
    nt.count = n;
    mCoreRef->SetNotify(&nt);

    mCoreRef->ShutDownSetPFStatus(k, utility == 2 ? 0 : (battery == 5 ? 2 : 1));
    mCoreRef->SetAPPEndStatus(k, 0);
    return true;
}

void IpcCTrlMTh::RVM_141(bool unsolicited)
{
    if (!Func_141())
        return;
    // The reply carries the report back as it came.
    std::memcpy(OutBody(), mMsg.body, DG2::kBodyPowerReport);
    const bool shortExchange = !unsolicited && mMemb.sq == SqMoved;
    const bool fullDone = !unsolicited && (mMemb.sq == SqNew || mMemb.sq == SqRenew) && mMemb.sqParam >= 5;
    replyBody(DG2::MsgPowerReport, DG2::kBodyPowerReport, shortExchange ? int(DG2::MsgShutdownTiming) : -1,
              kAwaitNext);
    if (fullDone)
        exchangeComplete();
    else
        rearmCommErrTimer();
}

// ---------------------------------------------------------------- 181: shutdown timing

bool IpcCTrlMTh::Func_181()
{
    DG2_ShutdownTimming t;
    if (!DG2UnpackShutdownTiming(mMsg, &t)) {
        dropped("shutdown timing with a malformed body");
        return false;
    }
    FileMap* cfg = mWiring.config ? *mWiring.config : nullptr;
    FileMap* list = mWiring.members ? *mWiring.members : nullptr;
    bool changed = false;
    bool listChanged = false;
    auto keep = [&](const char* name, const std::string& value) {
        changed |= setConfIfChanged(key(name), value);
        if (list && list->getConf(name) != value) {
            list->setConf(name, value);
            listChanged = true;
        }
    };
    if (conf("AcceptControllerTiming") != "0") {
        keep("WinkTime", std::to_string(t.winkTime));
        keep("ShutdownTime", std::to_string(t.shutdownTime));
        keep("AppTermTimeOut", std::to_string(t.appTermTimeOut));
        keep("ShutdownDelay", std::to_string(t.shutdownDelay));
    } else if (!mTimingKeptLogged) {
        mTimingKeptLogged = true;
        ErrorLog::report("controller " + std::to_string(mSlotIndex + 1) +
                         ": its shutdown timing is not taken (\"AcceptControllerTiming=0\"); the slot keeps its own");
    }
    const std::string command = DG2FieldText(t.appTermCommand, sizeof t.appTermCommand);
    if (conf("AcceptControllerCommand") != "0") {
        keep("AppTermCommand", command);
    } else if (command != conf(key("AppTermCommand")) && !mCommandRefusedLogged) {
        mCommandRefusedLogged = true;
        ErrorLog::report("controller " + std::to_string(mSlotIndex + 1) + ": its application-termination command \"" +
                         ErrorLog::printable(command) + "\" is not taken (\"AcceptControllerCommand=0\")");
    }
    if (changed && cfg && cfg->save() == 0)
        ErrorLog::report("controller " + std::to_string(mSlotIndex + 1) +
                         ": the shutdown timing could not be saved in the configuration file");
    if (listChanged && list->save() == 0)
        ErrorLog::report("the shutdown timing could not be saved in \"Membercnt.cfg\"");
    mCoreRef->getShutdownTiming(mSlotIndex);
    if (changed)
        notify(NtControllerInfo, {});
    return true;
}

void IpcCTrlMTh::RVM_181(bool unsolicited)
{
    if (!Func_181())
        return;
    DG2_ShutdownTimming own;
    std::memset(&own, 0, sizeof own);
    own.winkTime = mCoreRef->getWinkTime(mSlotIndex);
    own.shutdownTime = mCoreRef->getCountdownTime(mSlotIndex);
    own.appTermTimeOut = mCoreRef->getAppEndTime(mSlotIndex);
    own.shutdownDelay = mCoreRef->getShutdownDelay(mSlotIndex);
    DG2MessageType m;
    std::memset(&m, 0, sizeof m);
    if (DG2PackShutdownTiming(&m, own) < 0)
        std::memset(m.body, 0, DG2::kBodyShutdownTiming);
    std::memcpy(OutBody(), m.body, DG2::kBodyShutdownTiming);
    const bool fullExchange = !unsolicited && (mMemb.sq == SqNew || mMemb.sq == SqRenew);
    const bool shortDone = !unsolicited && mMemb.sq == SqMoved && mMemb.sqParam >= 3;
    replyBody(DG2::MsgShutdownTiming, DG2::kBodyShutdownTiming, fullExchange ? int(DG2::MsgAccessCode) : -1,
              kAwaitNext);
    if (shortDone)
        exchangeComplete();
}

// ---------------------------------------------------------------- other requests

bool IpcCTrlMTh::Func_81()
{
    int minutes = 0;
    if (!DG2UnpackSchedule(mMsg, &minutes)) {
        dropped("schedule with a malformed body");
        return false;
    }
    notify(NtSchedule, {minutes, 0, GetMyThrad()});
    return true;
}

void IpcCTrlMTh::RVM_81()
{
    if (!Func_81())
        return;
    std::memcpy(OutBody(), mMsg.body, DG2::kBodySchedule);
    replyBody(DG2::MsgSchedule, DG2::kBodySchedule, -1, 0);
}

// Requests 29, 30 and 31 carry nothing this member acts on: the body is
// answered as it came, so the sender sees the member alive.
void IpcCTrlMTh::RVM_29()
{
    if (mMsg.bodyLen != DG2::kBodyRequest29)
        return dropped("request 29 of the wrong size");
    std::memcpy(OutBody(), mMsg.body, DG2::kBodyRequest29);
    replyBody(DG2::MsgRequest29, DG2::kBodyRequest29, -1, 0);
}

void IpcCTrlMTh::RVM_30()
{
    if (mMsg.bodyLen != DG2::kBodyRequest30)
        return dropped("request 30 of the wrong size");
    std::memcpy(OutBody(), mMsg.body, DG2::kBodyRequest30);
    replyBody(DG2::MsgRequest30, DG2::kBodyRequest30, -1, 0);
}

void IpcCTrlMTh::RVM_31()
{
    if (mMsg.bodyLen != DG2::kBodyRequest31)
        return dropped("request 31 of the wrong size");
    std::memcpy(OutBody(), mMsg.body, DG2::kBodyRequest31);
    replyBody(DG2::MsgRequest31, DG2::kBodyRequest31, -1, 0);
}

bool IpcCTrlMTh::FuncRv_127()
{
    DG2AppEnd a;
    if (!DG2UnpackAppEnd(mMsg, &a)) {
        dropped("application end with a malformed body");
        return false;
    }
    if (mMemb.status != MembActive)
        return false;
    // The controller's host is going down: nothing more will come from it.
    CancelCommunicationErrorTimer();
    setStatus(MembNotActive);
    memberLog(kLogAppEndFromController);
    mCoreRef->ShutDownSetCommStatus(mSlotIndex, 3);
    notify(NtControllerInfo, {});
    return true;
}

void IpcCTrlMTh::RVM_127() { FuncRv_127(); }

bool IpcCTrlMTh::FuncRv_230()
{
    DG2MemberInfo230Body b;
    if (mMsg.bodyLen != DG2::kBodyMemberInfo230 || !DG2GetBody(mMsg, &b) ||
        !DG2FieldTextOk(b.memberId, sizeof b.memberId) || !DG2FieldTextOk(b.address, sizeof b.address)) {
        dropped("member information with a malformed body");
        return false;
    }
    // The controller may only name the address it sends from.
    const std::string address = DG2FieldText(b.address, sizeof b.address);
    in_addr a;
    if (address.empty() || inet_pton(AF_INET, address.c_str(), &a) != 1 || address != mSender)
        return false;
    if (std::strncmp(mMemb.address, address.c_str(), sizeof mMemb.address) != 0)
        table().SetMembIPAddr(&mMemb, address.c_str());
    return true;
}

void IpcCTrlMTh::RVM_230()
{
    FuncRv_230();
    SDM_35(false);
}
