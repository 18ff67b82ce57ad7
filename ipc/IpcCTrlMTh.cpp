// IpcCTrlMTh: start, event loop, registration, sequence check, time-outs,
// host-name resolution and the display queries. The handling of each
// received message is in IpcCTrlMThRecv.cpp.
#include "ipc/IpcCTrlMTh.h"

#include <arpa/inet.h>
#include <chrono>
#include <cstring>
#include <unistd.h>

#include "config/FileMap.h"
#include "control/Codes.h"
#include "control/Records.h"
#include "control/StCTrl.h"
#include "core/Clock.h"
#include "core/ErrorLog.h"
#include "daemon/Globals.h"
#include "ipc/IpcData.h"

namespace {

// Messages answered in each sequence state, in order; step 0 is the
// controller's reply to the registration.
const int kExchangeFull[] = {DG2::MsgRegister, DG2::MsgSettings, DG2::MsgShutdownTiming, DG2::MsgAccessCode,
                             DG2::MsgPowerReport};
const int kExchangeShort[] = {DG2::MsgRegister, DG2::MsgPowerReport, DG2::MsgShutdownTiming};

bool isDottedIPv4(const std::string& text)
{
    in_addr a;
    return !text.empty() && inet_pton(AF_INET, text.c_str(), &a) == 1;
}

// This member's name in its datagrams: its "IPAddress" when that is an
// address; with "*" (listen on every address) or nothing, the host name, so
// that members listening on every address still have names of their own.
std::string ownNameOf(const std::string& address)
{
    if (isDottedIPv4(address))
        return address;
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) != 0 || host[0] == '\0' ||
        !DG2FieldTextOk(host, strnlen(host, sizeof host)))
        return address;
    return host;
}

} // namespace

IpcCTrlMTh::IpcCTrlMTh(int number) : IpcCTrlMTh(number, nullptr, Wiring{}) {}

IpcCTrlMTh::IpcCTrlMTh(int number, StCTrl* core, const Wiring& wiring)
    : IpcCTrlTh(number, wiring.table ? wiring.table : &mNoTable, core ? *core : gCStCtrl, "", Role::Member),
      mCoreRef(core ? core : &gCStCtrl), mWiring(wiring), mNoTable(nullptr),
      mWired(core && wiring.table && wiring.config), mSlotIndex(StCTrl::SetMyThreadOffset(number) & 3),
      mKind(Kind::Address), mCtrlPort(0), mLastCommCode(-1), mHostFailReported(false), mHostRetried(false),
      mReRegister(false), mTimingKeptLogged(false), mCommandRefusedLogged(false), mAlertMode(-1), mPrevRestarted(0),
      mPrevUpsCommLost(0), mTryIndex(-1), mLastDropReport(-1), mDropped(0), mResolvedCount(0),
      mResolvedReady(false)
{
    std::memset(mSender, 0, sizeof mSender);
    std::memset(mResolved, 0, sizeof mResolved);
    mRecordId = "@CTRL" + std::to_string(mSlotIndex + 1);
}

IpcCTrlMTh::~IpcCTrlMTh() = default;

// ---------------------------------------------------------------- plumbing

Clock& IpcCTrlMTh::clock() { return mWiring.clock ? *mWiring.clock : Clock::system(); }

UpsDataBlock* IpcCTrlMTh::ups() { return mWiring.ups ? *mWiring.ups : nullptr; }

std::string IpcCTrlMTh::conf(const std::string& key)
{
    FileMap* map = mWiring.config ? *mWiring.config : nullptr;
    return map ? map->getConf(key) : std::string();
}

std::string IpcCTrlMTh::memberConf(const std::string& key)
{
    FileMap* map = mWiring.members ? *mWiring.members : nullptr;
    return map ? map->getConf(key) : std::string();
}

std::string IpcCTrlMTh::key(const char* name) const { return name + std::to_string(mSlotIndex + 1); }

bool IpcCTrlMTh::setConfIfChanged(const std::string& k, const std::string& value)
{
    FileMap* map = mWiring.config ? *mWiring.config : nullptr;
    if (!map || map->getConf(k) == value)
        return false;
    map->setConf(k, value);
    return true;
}

void IpcCTrlMTh::notify(int code, std::initializer_list<int> params)
{
    _NOTIFYMSGINFO nt;
    std::memset(&nt, 0, sizeof nt);
    nt.code = code;
    for (int p : params)
        nt.params[nt.count++] = p;
    mCoreRef->SetNotify(&nt);
}

void IpcCTrlMTh::memberLog(int code, int value) { notify(NtMemberLog, {value, code, GetMyThrad()}); }

// Link codes (4 lost, 5 established) are reported only when they change.
void IpcCTrlMTh::reportLink(int code)
{
    if (mLastCommCode == code)
        return;
    mLastCommCode = code;
    memberLog(code);
}

// The controller record as the table holds it now; requests to a
// controller by identity go to the identity text.
void IpcCTrlMTh::refresh()
{
    std::string id = mRecordId;
    DUP_MEMB_INFO rec;
    if (table().GetMembInfo(&id[0], &rec) == 0)
        std::memset(&rec, 0, sizeof rec);
    SetMember(rec, mKind == Kind::Identity);
    // SetMember takes the peer name from the record; keep it even when the
    // record is gone, so timers and replies stay this slot's.
    std::memset(mPeerName, 0, sizeof mPeerName);
    std::memcpy(mPeerName, mRecordId.data(), std::min(mRecordId.size(), sizeof mPeerName));
}

void IpcCTrlMTh::setSq(SQ_STAT sq, int step) { table().SetMembSq(&mMemb, sq, step); }

void IpcCTrlMTh::setStatus(MEMB_STAT status) { table().SetMembStatus(&mMemb, status, false); }

void IpcCTrlMTh::dropped(const std::string& why)
{
    const long now = static_cast<long>(clock().now());
    if (mLastDropReport >= 0 && now >= mLastDropReport && now - mLastDropReport < kDropReportInterval) {
        ++mDropped;
        return;
    }
    std::string line = "controller " + std::to_string(mSlotIndex + 1) + " (\"" + ErrorLog::printable(mCtrlText) +
                       "\"): datagram " + std::to_string(mMsg.msgNo) + " from \"" + ErrorLog::printable(mSender) +
                       "\" dropped: " + why;
    if (mDropped > 0)
        line += " (" + std::to_string(mDropped) + " more dropped since the last report)";
    ErrorLog::report(line);
    mLastDropReport = now;
    mDropped = 0;
}

// ---------------------------------------------------------------- start and loop

void IpcCTrlMTh::Start()
{
    const int n = mSlotIndex + 1;
    mCtrlText = memberConf("IPAddress" + std::to_string(n));
    if (mCtrlText.empty())
        mCtrlText = conf(key("CtrlIPAddress"));
    mCtrlText = mCtrlText.substr(0, DG2::kNameSize);
    if (isDottedIPv4(mCtrlText)) {
        mKind = Kind::Address;
    } else if (!mCtrlText.empty() && mCtrlText[0] == '*') {
        mKind = Kind::Identity;
        mIdentity = mCtrlText;
        mIdentity[0] = ' ';
    } else {
        mKind = Kind::HostName;
        mSettingHost = mCtrlText;
    }
    int port = 0;
    std::string text = memberConf("Port" + std::to_string(n));
    if (!DG2FieldNumber(text.c_str(), text.size(), &port) || port < 1 || port > 65535) {
        text = conf(key("CtrlPort"));
        if (!DG2FieldNumber(text.c_str(), text.size(), &port) || port < 1 || port > 65535)
            port = 0;
    }
    mCtrlPort = port;

    // A member by identity names itself and its controller by the identity.
    SetOwnName(mKind == Kind::Identity ? mIdentity : ownNameOf(conf("IPAddress")).substr(0, DG2::kNameSize));
    SetControllerAddress(mCtrlText);
    SetDestinationText(mKind == Kind::Identity ? mIdentity : mCtrlText);
    mHostFailReported = false;
    mHostRetried = false;
    mReRegister = false;
    mTryIndex = -1;

    if (mCtrlText.empty() || mCtrlPort == 0 || !DG2FieldTextOk(mCtrlText.c_str(), mCtrlText.size())) {
        ErrorLog::report("controller " + std::to_string(n) + " (\"" + ErrorLog::printable(mCtrlText) +
                         "\") is not followed: no usable address or port (\"IPAddress" + std::to_string(n) +
                         "\", \"Port" + std::to_string(n) + "\", \"CtrlPort" + std::to_string(n) + "\")");
        mCtrlPort = 0;
        return;
    }
    std::vector<char> label(mCtrlText.begin(), mCtrlText.end());
    label.push_back('\0');
    table().InitMember(mKind == Kind::Address ? mCtrlText : std::string(), mCtrlPort, mRecordId, false,
                       GetMyThrad(), SqIdle, label.data());
    refresh();
    if (conf(key("MemberEntry")) != "0" && !mReRegister) {
        setStatus(MembNotActive);
        SetCommunicationErrorTimer_First(kFirstCommErrKnown);
    } else {
        SetCommunicationErrorTimer_First(kFirstCommErrNew);
    }
    SDM_35(false);
}

std::string IpcCTrlMTh::unwired() const
{
    return mWired ? std::string()
                  : "member protocol thread " + std::to_string(GetMyThrad()) +
                        " has no member table or configuration: its controller is not followed";
}

void IpcCTrlMTh::HandleEvent(const EVENTMSGINFO& ev)
{
    switch (ev.code) {
    case EvNetReceived: {
        IPC_DATA_REC rec;
        if (!table().getRvData(&rec, GetMyThrad()))
            return;
        if (mCtrlPort == 0)
            return;
        SetHandled(rec.msg);
        std::memset(mSender, 0, sizeof mSender);
        std::memcpy(mSender, rec.name, DG2::kNameSize);
        refresh();
        // A controller found by identity is reached where its datagrams come from.
        if (mKind == Kind::Identity && mMemb.address[0] == '\0' && isDottedIPv4(mSender))
            table().SetMembIPAddr(&mMemb, mSender);
        // Time-outs wait under the record's ID: one that waited for this datagram ends now.
        std::memset(rec.name, 0, sizeof rec.name);
        std::memcpy(rec.name, mRecordId.data(), std::min(mRecordId.size(), sizeof rec.name));
        table().CancelTM(&rec, 0);
        MsgReply();
        break;
    }
    case EvHealthTimeout:
        if (mCtrlPort != 0)
            SDM_35(false);
        break;
    case EvNetTimeout:
        if (ev.count >= 1 && mCtrlPort != 0)
            MsgTimeOut(ev.params[0]);
        break;
    case EvNetTimeout2: {
        if (mCtrlPort == 0)
            break;
        refresh();
        // The communication-error timer: the controller has been silent.
        if (mMemb.status != MembNoEntry)
            setStatus(MembCommFail);
        reportLink(4);
        mCoreRef->ShutDownSetCommStatus(mSlotIndex, 2);
        notify(NtControllerInfo, {});
        break;
    }
    case EvShutdownStatus:
        if (ev.count >= 2)
            SendAppEnd(ev.params[0], ev.params[1]);
        break;
    case EvTimersStopped:
        // Only the registration starts again: the slot's power timers are
        // not this thread's and keep running.
        if (mCtrlPort == 0)
            break;
        refresh();
        setStatus(MembCommFail);
        SDM_35(false);
        break;
    default:
        break;
    }
}

// ---------------------------------------------------------------- registration

int IpcCTrlMTh::FuncSd_35()
{
    DG2Address a;
    a.memberId = conf(key("MyID"));
    // The IDs a controller gives by identity begin with a blank, which the
    // configuration file does not keep: it is put back here.
    if (mKind == Kind::Identity && !a.memberId.empty() && a.memberId[0] != ' ')
        a.memberId = " " + a.memberId;
    a.memberId = a.memberId.substr(0, DG2::kNameSize);
    const std::string own = conf("IPAddress");
    if (isDottedIPv4(own))
        a.address = own;
    const std::string port = conf("MemberPort");
    if (!DG2FieldNumber(port.c_str(), port.size(), &a.port) || a.port > 65535)
        a.port = 0;
    DG2MessageType m;
    std::memset(&m, 0, sizeof m);
    int n = DG2PackAddress(&m, DG2::MsgRegister, a);
    if (n < 0) {
        // A member ID with a control character: register as a new member.
        a.memberId.clear();
        n = DG2PackAddress(&m, DG2::MsgRegister, a);
    }
    if (n < 0)
        return -1;
    std::memcpy(OutBody(), m.body, n);
    return n;
}

int IpcCTrlMTh::sendRegistration(int timeOut, int limit)
{
    const int n = FuncSd_35();
    if (n < 0)
        return 0;
    return SendData(DG2::MsgRegister, static_cast<unsigned short>(n), timeOut, limit, IPC_DST_REPLY, 0);
}

int IpcCTrlMTh::SDM_35(bool repeat)
{
    if (!mWired || mCtrlPort == 0)
        return 0;
    if (repeat) {
        refresh();
        return SendRetry();
    }
    refresh();
    // A new registration ends whatever the earlier one still waited for.
    table().CancelMembTM(mRecordId.c_str());
    const bool renew = mMemb.sq == SqRenew || mMemb.sq == SqMoved;
    setSq(renew ? SqMoved : SqNew, 0);
    if (mKind == Kind::HostName && !prepareHostAddress(!renew))
        return 0;
    return sendRegistration(kRegisterTimeOut, 0);
}

void IpcCTrlMTh::TOM_35()
{
    refresh();
    if (mMemb.sq != SqMoved) {
        if (mKind == Kind::HostName)
            ++mTryIndex; // the next resolved address
        SDM_35(false);
        return;
    }
    if (mMemb.status == MembCommFail)
        setSq(SqRenew, 0);
    if (mKind != Kind::HostName) {
        sendRegistration(kRetryTimeOut, -1);
        return;
    }
    if (!mHostRetried) {
        mHostRetried = true;
        sendRegistration(kRetryTimeOut, 0);
        return;
    }
    // The address may have changed: resolve the name again.
    mHostRetried = false;
    mReRegister = true;
    mTryIndex = -1;
    setSq(SqIdle, 0);
    SDM_35(false);
}

int IpcCTrlMTh::MsgTimeOut(int timerId) { return HandleTimeOut(timerId); }

void IpcCTrlMTh::GiveUp(unsigned char)
{
    const int awaited = mRet.awaited;
    refresh();
    if (awaited == DG2::MsgRegister || awaited == DG2::MsgMemberInfo230)
        TOM_35();
    else
        SDM_35(false);
}

int IpcCTrlMTh::Resend(unsigned char)
{
    if (mRet.awaited != DG2::MsgRegister && mRet.awaited != DG2::MsgMemberInfo230)
        return 0;
    return SDM_35(true);
}

bool IpcCTrlMTh::ChkSqFlow()
{
    const int msg = mMsg.msgNo;
    const int sq = mMemb.sq;
    const int step = mMemb.sqParam;
    if (sq == SqIdle)
        return msg == DG2::MsgRegister;
    if (sq == SqMoved && step == 1 && msg == DG2::MsgSettings) {
        // Our controller gives a member at its old address the full
        // exchange: follow it, and stop waiting for the short one's 141.
        setSq(SqRenew, 2);
        IPC_DATA_REC r;
        std::memset(&r, 0, sizeof r);
        r.msg.msgNo = DG2::MsgPowerReport;
        std::memcpy(r.name, mRecordId.data(), std::min(mRecordId.size(), sizeof r.name));
        table().CancelTM(&r, 0);
        return true;
    }
    const int* list = sq == SqMoved ? kExchangeShort : kExchangeFull;
    const int count = sq == SqMoved ? 3 : 5;
    if (step < 0 || step >= count || list[step] != msg)
        return false;
    setSq(static_cast<SQ_STAT>(sq), step + 1);
    return true;
}

void IpcCTrlMTh::exchangeComplete()
{
    setSq(SqRenew, 0);
    setStatus(MembActive);
    mCoreRef->ShutDownSetCommStatus(mSlotIndex, 1);
    rearmCommErrTimer();
    SetHealthChkTimer();
    mReRegister = false;
    mHostRetried = false;
    notify(NtControllerInfo, {});
}

int IpcCTrlMTh::SetHealthChkTimer()
{
    notify(NtHealthTimerStart, {TmHealth + mSlotIndex, kHealthTime, 0, GetMyThrad()});
    return 1;
}

int IpcCTrlMTh::SendAppEnd(int value1, int value2)
{
    if (!mWired || mCtrlPort == 0)
        return 0;
    refresh();
    DG2AppEnd a;
    a.value1 = value1;
    a.value2 = value2;
    a.senderName = OwnName();
    DG2MessageType m;
    std::memset(&m, 0, sizeof m);
    const int n = DG2PackAppEnd(&m, a);
    if (n < 0) {
        ErrorLog::report("message 127 not sent: a value does not fit its 16-bit field");
        return 0;
    }
    std::memcpy(OutBody(), m.body, n);
    return SendData(DG2::MsgAppEnd, static_cast<unsigned short>(n), 0, 0, IPC_DST_CLOSE, 0);
}

int IpcCTrlMTh::FuncSd_230()
{
    std::memset(OutBody(), 0, DG2::kBodyMemberInfo230);
    return DG2::kBodyMemberInfo230;
}

// ---------------------------------------------------------------- host names

void IpcCTrlMTh::StoreResolved(const std::vector<std::string>& addresses)
{
    {
        std::lock_guard<std::mutex> l(mResolveMutex);
        int n = 0;
        for (const std::string& a : addresses) {
            if (n >= kMaxResolved)
                break;
            std::memset(mResolved[n], 0, kAddrText);
            std::memcpy(mResolved[n], a.data(), std::min(a.size(), size_t(kAddrText - 1)));
            ++n;
        }
        mResolvedCount = n;
        mResolvedReady.store(true, std::memory_order_release);
    }
    mResolveCv.notify_all();
}

const char* IpcCTrlMTh::ResolvedAddress(int i) const
{
    return i >= 0 && i < mResolvedCount ? mResolved[i] : "";
}

bool IpcCTrlMTh::waitResolved()
{
    std::unique_lock<std::mutex> l(mResolveMutex);
    return mResolveCv.wait_for(l, std::chrono::seconds(kResolveWaitSec), [this] { return ResolvedReady(); });
}

// Sets the controller record's address to the resolved address to try
// now: the next one of the last resolution, or the first of a new one when
// the list is used up (or fresh is asked for). False when the name does
// not resolve (reported once until it does).
bool IpcCTrlMTh::prepareHostAddress(bool fresh)
{
    if (fresh && mTryIndex >= mResolvedCount)
        mTryIndex = -1;
    if (mTryIndex < 0 || mTryIndex >= mResolvedCount) {
        mResolvedReady.store(false, std::memory_order_release);
        if (mWiring.resolve)
            mWiring.resolve(mSlotIndex);
        else
            notify(NtResolveHost, {mSlotIndex});
        if (!waitResolved()) {
            ErrorLog::report("controller " + std::to_string(mSlotIndex + 1) + ": no answer from the name resolution of \"" +
                             ErrorLog::printable(mSettingHost) + "\" within " + std::to_string(kResolveWaitSec) + " s");
            mResolvedCount = 0;
        }
        mTryIndex = 0;
    }
    if (mResolvedCount == 0) {
        mTryIndex = -1;
        if (!mHostFailReported) {
            mHostFailReported = true;
            memberLog(292);
        }
        return false;
    }
    mHostFailReported = false;
    const std::string address = ResolvedAddress(mTryIndex);
    if (std::strncmp(mMemb.address, address.c_str(), sizeof mMemb.address) != 0)
        table().SetMembIPAddr(&mMemb, address.c_str());
    return true;
}

// ---------------------------------------------------------------- queries

int IpcCTrlMTh::GetDisplayType() const
{
    if (!mCtrlText.empty() && mCtrlText[0] == '@')
        return 2;
    switch (mKind) {
    case Kind::Identity: return 1;
    case Kind::HostName: return 2;
    default: return 0;
    }
}

std::string IpcCTrlMTh::GeDisplayHostName()
{
    switch (GetDisplayType()) {
    case 1:
        return conf(key("UGName"));
    case 2: {
        const std::string name = conf(key("HostName"));
        return name.empty() ? mSettingHost : name;
    }
    default: {
        const std::string address = conf(key("CtrlIPAddress"));
        return address.empty() ? mCtrlText : address;
    }
    }
}
