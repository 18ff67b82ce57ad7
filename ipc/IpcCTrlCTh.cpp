// IpcCTrlCTh: start, event loop and the handling of received datagrams.
// The senders are in IpcCTrlCThSend.cpp.
#include "ipc/IpcCTrlCTh.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <vector>

#include "config/FileMap.h"
#include "control/Codes.h"
#include "control/Records.h"
#include "control/StCTrl.h"
#include "core/Clock.h"
#include "core/ErrorLog.h"
#include "daemon/Globals.h"
#include "ipc/IpcData.h"

namespace {

// Messages a member answers in each sequence state, in order; the first
// (35) is the registration that starts the exchange.
const int kExchangeFull[] = {DG2::MsgRegister, DG2::MsgSettings, DG2::MsgShutdownTiming, DG2::MsgAccessCode,
                             DG2::MsgPowerReport};
const int kExchangeMoved[] = {DG2::MsgRegister, DG2::MsgPowerReport, DG2::MsgShutdownTiming};

std::string field(const char* f, size_t size) { return DG2FieldText(f, size); }

bool isDottedIPv4(const std::string& text)
{
    in_addr a;
    return !text.empty() && inet_pton(AF_INET, text.c_str(), &a) == 1;
}

} // namespace

IpcCTrlCTh::IpcCTrlCTh(int number, StCTrl* core, const Wiring& wiring)
    : IpcCTrlTh(number, wiring.table ? wiring.table : &mNoTable, core ? *core : gCStCtrl, "", Role::Controller),
      mCoreRef(core ? core : &gCStCtrl), mWiring(wiring), mNoTable(nullptr),
      mWired(core && wiring.table && wiring.config && wiring.ups), mAppEnd1(0), mAppEnd2(0), mFirstReport(true),
      mSlot(0), mSenderPort(0), mLastDropReport(-1), mDropped(0)
{
    std::memset(mSender, 0, sizeof mSender);
    std::memset(mAddressAtArrival, 0, sizeof mAddressAtArrival);
}


IpcCTrlCTh::~IpcCTrlCTh() = default;

Clock& IpcCTrlCTh::clock() { return mWiring.clock ? *mWiring.clock : Clock::system(); }

std::string IpcCTrlCTh::conf(const char* key)
{
    FileMap* map = mWiring.config ? *mWiring.config : nullptr;
    return map ? map->getConf(key) : std::string();
}

void IpcCTrlCTh::Start()
{
    mOwnAddress = conf("IPAddress").substr(0, DG2::kNameSize);
    mIdentity = conf("SetUpID").substr(0, DG2::kNameSize);
    if (!mIdentity.empty() && mIdentity[0] == '*')
        mIdentity[0] = ' ';
    SetOwnName(mOwnAddress);
    SetDestinationText(mIdentity);
    mFirstReport = true;
    table().LoadMembInfo();
}

std::string IpcCTrlCTh::unwired() const
{
    return mWired ? std::string()
                  : "controller protocol thread has no member table or configuration: members are not served";
}

void IpcCTrlCTh::HandleEvent(const EVENTMSGINFO& ev)
{
    switch (ev.code) {
    case EvNetReceived: {
        IPC_DATA_REC rec;
        if (!table().getRvData(&rec, GetMyThrad()))
            return;
        SetHandled(rec.msg);
        DG2SetField(mSender, DG2::kNameSize, field(rec.name, sizeof rec.name).c_str());
        mSender[DG2::kNameSize] = '\0';
        mSenderPort = rec.value;
        findSender();
        // Time-outs wait under the member ID, those of a request to all
        // members under no name; one that waited for this datagram ends now.
        if (mSlot != 0)
            std::memcpy(rec.name, Member().memberId, sizeof rec.name);
        bool awaited = table().CancelTM(&rec, 0) != 0;
        if (!awaited && mSlot != 0) {
            std::memset(rec.name, 0, sizeof rec.name);
            awaited = table().CancelTM(&rec, 0) != 0;
        }
        MsgReply(awaited);
        break;
    }
    case EvSendUpsStatus:
        SendPowerWong();
        break;
    case EvNetTimeout:
        if (ev.count >= 1)
            MsgTimeOut(ev.params[0]);
        break;
    case EvNetTimeout2: {
        // The communication-error timer of member slot p + 1 ran out.
        if (ev.count < 1)
            break;
        DUP_MEMB_INFO rec;
        if (table().GetMembInfo(ev.params[0] + 1, &rec) == 0 || rec.memberId[0] == '\0')
            break;
        setCurrent(rec);
        table().SetMembStatus(&mMemb, MembCommFail, false);
        break;
    }
    case EvConfigChanged:
        SendAccessCode();
        break;
    case EvTimingChanged:
        SendShutdown();
        break;
    case EvShutdownStatus:
        if (ev.count >= 2)
            SendAppEnd(ev.params[0], ev.params[1]);
        break;
    default:
        break;
    }
}

// ---------------------------------------------------------------- members

// The member IDs of members by identity: the identity text, cut so that the
// digits fit the ID field, then kIdDigits lower-case hex digits.
std::string IpcCTrlCTh::idStem() const { return mIdentity.substr(0, kMembIdSize - kIdDigits); }

bool IpcCTrlCTh::isIdentityId(const std::string& id) const
{
    const std::string stem = idStem();
    if (stem.empty() || id.size() != stem.size() + kIdDigits || id.compare(0, stem.size(), stem) != 0)
        return false;
    for (size_t i = stem.size(); i < id.size(); ++i)
        if (!((id[i] >= '0' && id[i] <= '9') || (id[i] >= 'a' && id[i] <= 'f')))
            return false;
    return true;
}

std::string IpcCTrlCTh::registrationId()
{
    const std::string src = field(mMsg.srcName, sizeof mMsg.srcName);
    if (src.empty() || src[0] != ' ')
        return src;
    DG2AddressBody body;
    if (!DG2GetBody(mMsg, &body) || !DG2FieldTextOk(body.memberId, sizeof body.memberId))
        return std::string();
    const std::string id = DG2FieldText(body.memberId, sizeof body.memberId);
    return isIdentityId(id) ? id : std::string();
}

int IpcCTrlCTh::registrationPort()
{
    // The body's port when it reads as one; a peer that leaves the body's
    // fields empty is reached where its request came from.
    DG2AddressBody body;
    int port = 0;
    if (DG2GetBody(mMsg, &body) && DG2FieldNumber(body.port, sizeof body.port, &port) && port >= 1 && port <= 65535)
        return port;
    return mSenderPort;
}

void IpcCTrlCTh::setCurrent(const DUP_MEMB_INFO& rec)
{
    SetMember(rec, rec.flag != 0 || rec.memberId[0] == ' ');
}

void IpcCTrlCTh::clearCurrent()
{
    DUP_MEMB_INFO none;
    std::memset(&none, 0, sizeof none);
    SetMember(none, false);
    mSlot = 0;
}

int IpcCTrlCTh::findSender()
{
    clearCurrent();
    const std::string src = field(mMsg.srcName, sizeof mMsg.srcName);
    std::string id;
    if (mMsg.msgNo == DG2::MsgRegister)
        id = registrationId();
    else
        id = src;
    DUP_MEMB_INFO rec;
    int slot = 0;
    if (!id.empty()) {
        std::vector<char> key(id.begin(), id.end());
        key.push_back('\0');
        slot = table().GetMembInfo(key.data(), &rec);
    }
    // A member by identity sends under its member ID or under the identity
    // text, and a member answers under the address the controller wrote to:
    // the sender address. A foreign identity is nobody.
    if (slot == 0 && mMsg.msgNo != DG2::MsgRegister && !id.empty() && (id[0] != ' ' || id == mIdentity)) {
        char memberId[kMembIdSize];
        slot = table().GetMembId(mSender, memberId);
        if (slot != 0)
            table().GetMembInfo(slot, &rec);
    }
    if (slot == 0)
        return 0;
    setCurrent(rec);
    mSlot = slot;
    std::memset(mAddressAtArrival, 0, sizeof mAddressAtArrival);
    std::memcpy(mAddressAtArrival, rec.address, kMembAddrSize);
    return slot;
}

void IpcCTrlCTh::resetSequence()
{
    if (mSlot != 0)
        table().SetMembSq(&mMemb, SqIdle, 0);
}

void IpcCTrlCTh::dropped(const std::string& why)
{
    const long now = static_cast<long>(clock().now());
    if (mLastDropReport >= 0 && now >= mLastDropReport && now - mLastDropReport < kDropReportInterval) {
        ++mDropped;
        return;
    }
    std::string line = "datagram " + std::to_string(mMsg.msgNo) + " from \"" + ErrorLog::printable(mSender) +
                       "\" (\"" + ErrorLog::printable(field(mMsg.srcName, sizeof mMsg.srcName)) +
                       "\") dropped: " + why;
    if (mDropped > 0)
        line += " (" + std::to_string(mDropped) + " more dropped since the last report)";
    ErrorLog::report(line);
    mLastDropReport = now;
    mDropped = 0;
}

// ---------------------------------------------------------------- dispatch

void IpcCTrlCTh::MsgReply(bool awaited)
{
    const int msg = mMsg.msgNo;
    if (msg == DG2::MsgMemberInfo230) {
        RVM_230();
        return;
    }
    if (msg == DG2::MsgMemberInfo229) {
        RVM_229();
        return;
    }
    if (mSlot != 0) {
        if (std::strncmp(mMemb.address, mSender, kMembAddrSize) != 0 && isDottedIPv4(mSender) &&
            table().SetMembIPAddr(&mMemb, mSender) > 0)
            table().SaveMembInfo();
    } else if (msg == DG2::MsgPresence) {
        RVM_129();
        return;
    } else if (msg == DG2::MsgUninstall) {
        RVM_130();
        return;
    }

    if (ChkSqFlow()) {
        switch (msg) {
        case DG2::MsgAccessCode: RVM_140(); break;
        case DG2::MsgPowerReport: RVM_141(); break;
        case DG2::MsgShutdownTiming: RVM_181(); break;
        case DG2::MsgSettings: RVM_0(); break;
        case DG2::MsgRegister: RVM_35(); break;
        default: break;
        }
        return;
    }
    if (awaited)
        return; // an answer to a request of ours, outside the exchange
    switch (msg) {
    case DG2::MsgPresence: RVM_129(); break;
    case DG2::MsgUninstall: RVM_130(); break;
    case DG2::MsgAppEnd: RVM_127(); break;
    default:
        if (mSlot != 0) {
            table().CancelMembTM(mMemb.memberId);
            resetSequence();
            dropped("out of sequence; the member's exchange starts afresh");
        } else {
            dropped("the sender is not a member");
        }
        break;
    }
}

bool IpcCTrlCTh::ChkSqFlow()
{
    if (mMsg.msgNo == DG2::MsgRegister)
        return true;
    if (mSlot == 0)
        return false;
    const int* list = nullptr;
    int count = 0;
    if (mMemb.sq == SqNew || mMemb.sq == SqRenew) {
        list = kExchangeFull;
        count = sizeof kExchangeFull / sizeof kExchangeFull[0];
    } else if (mMemb.sq == SqMoved) {
        list = kExchangeMoved;
        count = sizeof kExchangeMoved / sizeof kExchangeMoved[0];
    }
    const int step = mMemb.sqParam;
    if (list == nullptr || step < 0 || step >= count || list[step] != mMsg.msgNo)
        return false;
    table().SetMembSq(&mMemb, mMemb.sq, step + 1);
    return true;
}

int IpcCTrlCTh::MsgTimeOut(int timerId) { return HandleTimeOut(timerId); }

void IpcCTrlCTh::GiveUp(unsigned char msg)
{
    char id[kMembIdSize + 1] = {};
    std::memcpy(id, mMemb.memberId, kMembIdSize);
    mSlot = id[0] ? table().GetMembInfo(id, &mMemb) : 0;
    if (mSlot == 0)
        return;
    switch (msg) {
    case DG2::MsgRegister:
        table().SetMembStatus(&mMemb, MembCommFail, false);
        break;
    case DG2::MsgSettings:
    case DG2::MsgAccessCode:
    case DG2::MsgPowerReport:
    case DG2::MsgShutdownTiming:
        resetSequence();
        break;
    default:
        break;
    }
}

// ---------------------------------------------------------------- registration

std::string IpcCTrlCTh::GetMember_ID()
{
    FileMap* map = mWiring.config ? *mWiring.config : nullptr;
    int n = 0;
    const std::string last = conf("MemberIDData");
    if (!DG2FieldNumber(last.c_str(), last.size(), &n))
        n = 0;
    const std::string stem = idStem();
    auto next = [](int c) { return (c + 1) % 65536 == 0 ? 1 : (c + 1) % 65536; };
    int candidate = next(n);
    std::string name;
    for (int tries = 0; tries < 65535; ++tries) {
        char digits[8];
        std::snprintf(digits, sizeof digits, "%04x", candidate);
        name = stem + digits;
        std::vector<char> key(name.begin(), name.end());
        key.push_back('\0');
        DUP_MEMB_INFO rec;
        if (table().GetMembInfo(key.data(), &rec) == 0)
            break;
        candidate = next(candidate);
    }
    if (map) {
        map->setConfNum("MemberIDData", candidate);
        map->save();
    }
    return name;
}

bool IpcCTrlCTh::FuncRv_35()
{
    const std::string src = field(mMsg.srcName, sizeof mMsg.srcName);
    const std::string dst = field(mMsg.dstName, sizeof mMsg.dstName);
    const bool byIdentity = !src.empty() && src[0] == ' ';
    if (src.empty()) {
        dropped("registration without a source name");
        return false;
    }
    if (byIdentity && src != mIdentity) {
        dropped("registration under another controller's identity");
        return false;
    }
    if (!dst.empty() && dst[0] == ' ') {
        const size_t stem = mIdentity.size() > size_t(kIdDigits) ? mIdentity.size() - kIdDigits : 0;
        if (dst.size() != mIdentity.size() || dst.compare(0, stem, mIdentity, 0, stem) != 0) {
            dropped("registration addressed to another identity");
            return false;
        }
    }
    const int port = registrationPort();
    if (port < 1 || port > 65535) {
        dropped("registration from no usable port");
        return false;
    }
    if (!DG2FieldTextOk(mMsg.srcName, sizeof mMsg.srcName) || !isDottedIPv4(mSender)) {
        dropped("registration with a control character in its name or from no IPv4 address");
        return false;
    }

    // The member as the table knew it when the datagram arrived.
    SQ_STAT sq = SqNew;
    std::string id = registrationId();
    if (mSlot != 0)
        sq = std::strncmp(mAddressAtArrival, mSender, kMembAddrSize) == 0 ? SqRenew : SqMoved;
    else if (byIdentity)
        id = GetMember_ID();
    if (table().InitMember(mSender, port, id, byIdentity, GetMyThrad(), sq, nullptr) < 0)
        return false; // logged by the table
    std::vector<char> key(id.begin(), id.end());
    key.push_back('\0');
    DUP_MEMB_INFO rec;
    mSlot = table().GetMembInfo(key.data(), &rec);
    if (mSlot == 0)
        return false;
    setCurrent(rec);
    table().SetMembSq(&mMemb, sq, 1);
    return true;
}

void IpcCTrlCTh::RVM_35()
{
    if (mSlot != 0)
        table().CancelMembTM(mMemb.memberId);
    if (!FuncRv_35())
        return;
    // The reply echoes the body with the member ID the member is registered under.
    DG2AddressBody body;
    std::memcpy(&body, mMsg.body, sizeof body);
    DG2SetField(body.memberId, sizeof body.memberId, field(mMemb.memberId, kMembIdSize).c_str());
    std::memcpy(OutBody(), &body, sizeof body);
    SendReply(DG2::MsgRegister, DG2::kBodyRegister, DG2::kResultOk, -1, 0, mSenderPort);
    if (mMemb.sq == SqMoved)
        SDM_141(false, IPC_DST_REPLY);
    else
        SDM_0(false, IPC_DST_REPLY);
}

// ---------------------------------------------------------------- exchange

bool IpcCTrlCTh::FuncRv_0()
{
    // The member's host name, when its answer carries a readable one; an
    // answer without it still completes the step.
    DG2SettingsBody body;
    if (!DG2GetBody(mMsg, &body) || !DG2FieldTextOk(body.hostName, sizeof body.hostName))
        return false;
    const std::string name = DG2FieldText(body.hostName, sizeof body.hostName);
    if (!name.empty() && table().SetMembNameString(&mMemb, name.c_str()) > 0)
        table().SaveMembInfo();
    return true;
}

void IpcCTrlCTh::RVM_0()
{
    FuncRv_0();
    if (mMemb.sq == SqNew || mMemb.sq == SqRenew)
        SDM_181(false, IPC_DST_REPLY);
    else
        resetSequence();
}

void IpcCTrlCTh::RVM_181()
{
    if (mMemb.sq == SqNew || mMemb.sq == SqRenew) {
        SDM_140(false, IPC_DST_REPLY);
        return;
    }
    if (mMemb.sq == SqMoved) {
        // A moved member completed its short exchange: it is served again.
        table().SetMembStatus(&mMemb, MembActive, false);
        rearmCommErrTimer();
    }
    resetSequence();
}

void IpcCTrlCTh::RVM_140()
{
    if (mMemb.sq == SqNew || mMemb.sq == SqRenew)
        SDM_141(false, IPC_DST_REPLY);
    else
        resetSequence();
}

void IpcCTrlCTh::RVM_141()
{
    if (mMemb.sq == SqNew || mMemb.sq == SqRenew) {
        table().SetMembStatus(&mMemb, MembActive, false);
        resetSequence();
        rearmCommErrTimer();
    } else if (mMemb.sq == SqMoved) {
        SDM_181(false, IPC_DST_REPLY);
    } else {
        resetSequence();
    }
}

void IpcCTrlCTh::FuncRv_127()
{
    if (mSlot == 0 || mMemb.status != MembActive)
        return;
    CancelCommunicationErrorTimer();
    table().SetMembStatus(&mMemb, MembNotActive, false);
}

void IpcCTrlCTh::RVM_127() { FuncRv_127(); }

// ---------------------------------------------------------------- presence, uninstall, member info

void IpcCTrlCTh::replyEcho(unsigned char msg, unsigned short bodyLength)
{
    // Replies come from this controller's own address (what the uninstall
    // exchange matches) and go to the sender: its member record when it is
    // a member, else its address and port.
    DG2SetField(mAddressedAs, sizeof mAddressedAs, mOwnAddress.c_str());
    if (mSlot == 0)
        std::memcpy(mPeerName, mSender, sizeof mPeerName);
    std::memmove(OutBody(), mMsg.body, bodyLength);
    SendReply(msg, bodyLength, DG2::kResultOk, -1, 0, mSenderPort);
}

void IpcCTrlCTh::RVM_129() { replyEcho(DG2::MsgPresence, DG2::kBodyPresence); }

void IpcCTrlCTh::RVM_130()
{
    if (mMsg.bodyLen != DG2::kBodyUninstall) {
        dropped("malformed uninstall request");
        return;
    }
    replyEcho(DG2::MsgUninstall, DG2::kBodyUninstall);
    // Only the member itself (its address and port) can have itself forgotten.
    DG2Address body;
    if (!DG2UnpackAddress(mMsg, &body) || body.address != mSender || body.port != mSenderPort)
        return;
    for (int s = 1; s < IpcData::kSlots; ++s) {
        DUP_MEMB_INFO rec;
        table().GetMembInfo(s, &rec);
        if (rec.memberId[0] == '\0' || field(rec.address, kMembAddrSize) != body.address || rec.port != body.port)
            continue;
        setCurrent(rec);
        mSlot = s;
        CancelCommunicationErrorTimer();
        table().CancelMembTM(rec.memberId);
        table().DeleteMember(field(rec.memberId, kMembIdSize), 1);
        clearCurrent();
        return;
    }
}

void IpcCTrlCTh::RVM_229() {}

void IpcCTrlCTh::RVM_230()
{
    DG2MemberInfo230Body b;
    if (mMsg.bodyLen != DG2::kBodyMemberInfo230 || !DG2GetBody(mMsg, &b) ||
        !DG2FieldTextOk(b.memberId, sizeof b.memberId) || !DG2FieldTextOk(b.address, sizeof b.address))
        return;
    const std::string id = field(b.memberId, sizeof b.memberId);
    const std::string address = field(b.address, sizeof b.address);
    // A member may name only the address it sends from.
    if (id.empty() || !isDottedIPv4(address) || address != mSender)
        return;
    std::vector<char> key(id.begin(), id.end());
    key.push_back('\0');
    DUP_MEMB_INFO rec;
    if (table().GetMembInfo(key.data(), &rec) == 0)
        return;
    if (table().SetMembIPAddr(&rec, address.c_str()) > 0)
        table().SaveMembInfo();
}
