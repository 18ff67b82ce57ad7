#include "ipc/IpcCTrlTh.h"

#include <cstring>
#include <utility>

#include "control/Codes.h"
#include "control/Records.h"
#include "control/StCTrl.h"
#include "core/ErrorLog.h"
#include "ipc/IpcData.h"

IpcCTrlTh::IpcCTrlTh(int number, IpcData** table, StCTrl& core, std::string ownName, Role role)
    : tthread(number), mTable(table), mCore(core), mOwnName(std::move(ownName)), mRole(role),
      mMembByIdentity(false)
{
    std::memset(&mMsg, 0, sizeof mMsg);
    std::memset(mPeerName, 0, sizeof mPeerName);
    std::memset(mAddressedAs, 0, sizeof mAddressedAs);
    std::memset(&mMemb, 0, sizeof mMemb);
    std::memset(&mRet, 0, sizeof mRet);
    std::memset(&mOut, 0, sizeof mOut);
}

IpcCTrlTh::~IpcCTrlTh() = default;

void IpcCTrlTh::thread_main()
{
    EVENTMSGINFO ev;
    const std::string why = unwired();
    if (!why.empty()) {
        ErrorLog::report(why);
        for (;;)
            mCore.GetEvent(&ev, GetMyThrad());
    }
    Start();
    for (;;) {
        mCore.GetEvent(&ev, GetMyThrad());
        HandleEvent(ev);
    }
}

bool IpcCTrlTh::InstallTypeIsIP() const { return mCtrlAddr.empty() || mCtrlAddr[0] != '*'; }

void IpcCTrlTh::SetHandled(const DG2MessageType& msg)
{
    mMsg = msg;
    std::memcpy(mPeerName, msg.srcName, sizeof mPeerName);
    std::memcpy(mAddressedAs, msg.dstName, sizeof mAddressedAs);
}

void IpcCTrlTh::SetMember(const DUP_MEMB_INFO& rec, bool byIdentity)
{
    mMemb = rec;
    mMembByIdentity = byIdentity;
    static_assert(sizeof mPeerName == sizeof rec.memberId, "peer name and member ID are one field size");
    std::memcpy(mPeerName, rec.memberId, sizeof mPeerName);
}

int IpcCTrlTh::CommErrTimerId(int slot)
{
    if (slot < 1 || TmNet2First + slot - 1 > TmNet2Last)
        return 0;
    return TmNet2First + slot - 1;
}

void IpcCTrlTh::fillHeader(unsigned char msg, unsigned char result, const char* dst, const char* src,
                           uint16_t srcKind, uint16_t dstKind, unsigned short bodyLength)
{
    DG2MessageType& m = mOut.msg;
    m.magic = DG2::kMagic;
    m.result = result;
    m.msgNo = msg;
    m.hedVer = 0; // stamped by the transport
    m.srcForm = 0;
    m.dstForm = 0;
    // The source may be a fixed 32-byte field without a terminating NUL.
    char srcCopy[DG2::kNameSize + 1] = {};
    std::memcpy(srcCopy, src, strnlen(src, DG2::kNameSize));
    char dstCopy[DG2::kNameSize + 1] = {};
    std::memcpy(dstCopy, dst, strnlen(dst, DG2::kNameSize));
    DG2SetField(m.srcName, sizeof m.srcName, srcCopy);
    DG2SetField(m.dstName, sizeof m.dstName, dstCopy);
    m.srcKind = srcKind;
    m.dstKind = dstKind;
    std::memset(m.reserved, 0, sizeof m.reserved);
    m.bodyLen = bodyLength;
}

// Destination of a request: the destination text for a peer known by
// identity; otherwise a controller addresses the member's address name and
// a member its configured controller address.
const char* IpcCTrlTh::requestDestination() const
{
    if (mMembByIdentity)
        return mDstText.c_str();
    return IsController() ? mMemb.address : mCtrlAddr.c_str();
}

int IpcCTrlTh::queue(IPC_DST_MODE mode, int extra)
{
    mOut.mode = mode;
    mOut.value = extra;
    std::memcpy(mOut.name, mPeerName, sizeof mOut.name);
    mOut.threadId = GetMyThrad();
    return table().setSdData(&mOut);
}

// The timer block of a new request or reply: attempt counter 0.
void IpcCTrlTh::fillTimerBlock(unsigned char msg, unsigned short bodyLength, int awaited, int timeOut, int limit)
{
    IPC_DATA_RET& r = mOut.ret;
    std::memset(&r, 0, sizeof r);
    std::memcpy(r.peerName, mPeerName, sizeof r.peerName);
    r.msgNo = msg;
    r.bodyLen = bodyLength;
    r.awaited = awaited;
    r.timeOut = timeOut;
    r.limit = limit;
    r.threadId = GetMyThrad();
}

int IpcCTrlTh::SendData(unsigned char msg, unsigned short bodyLength, int timeOut, int limit, IPC_DST_MODE mode,
                        int extra)
{
    const uint16_t from = IsController() ? DG2::KindController : DG2::KindMember;
    const uint16_t to = IsController() ? DG2::KindMember : DG2::KindController;
    fillHeader(msg, DG2::kResultRequest, requestDestination(), mOwnName.c_str(), from, to, bodyLength);

    fillTimerBlock(msg, bodyLength, msg, timeOut, limit);
    return queue(mode, extra);
}

int IpcCTrlTh::SendReply(unsigned char msg, unsigned short bodyLength, unsigned char result, int awaited,
                         int timeOut, int extra)
{
    const char* dst;
    uint16_t from;
    uint16_t to;
    if (IsController()) {
        if (mMsg.srcName[0] == ' ')
            dst = mDstText.c_str();
        else if (msg == DG2::MsgMemberInfo230 || msg == DG2::MsgPresence || msg == DG2::MsgRegister ||
                 msg == DG2::MsgUninstall)
            dst = mMsg.srcName;
        else
            dst = mMemb.address;
        from = mMsg.dstKind == DG2::KindControllerAlt ? uint16_t(DG2::KindControllerAlt)
                                                      : uint16_t(DG2::KindController);
        to = DG2::KindMember;
    } else {
        dst = mDstText.c_str();
        from = DG2::KindMember;
        to = DG2::KindController;
    }
    fillHeader(msg, result, dst, mAddressedAs, from, to, bodyLength);

    fillTimerBlock(msg, bodyLength, awaited, timeOut, 0);
    return queue(IPC_DST_REPLY, extra);
}

int IpcCTrlTh::SendRetry()
{
    const uint16_t from = IsController() ? DG2::KindController : DG2::KindMember;
    const uint16_t to = IsController() ? DG2::KindMember : DG2::KindController;
    fillHeader(mRet.msgNo, DG2::kResultRequest, requestDestination(), mOwnName.c_str(), from, to,
               static_cast<unsigned short>(mRet.bodyLen));
    mOut.ret = mRet;
    // The repetition runs under a new timer: the old one was erased.
    mOut.ret.handle = 0;
    mOut.ret.timerId = 0;
    mOut.ret.attempts = mOut.ret.attempts + 1 > kAttemptWrap ? 0 : mOut.ret.attempts + 1;
    return queue(IPC_DST_REPLY, 0);
}

int IpcCTrlTh::postTimer(int code, int id, int time)
{
    _NOTIFYMSGINFO nt;
    std::memset(&nt, 0, sizeof nt);
    nt.code = code;
    nt.params[0] = id;
    if (code == NtCommErrTimerCancel) {
        nt.params[1] = GetMyThrad();
        nt.count = 2;
    } else {
        nt.params[1] = time;
        nt.params[2] = 0; // one-shot
        nt.params[3] = GetMyThrad();
        nt.count = 4;
    }
    return mCore.SetNotify(&nt);
}

int IpcCTrlTh::SetTimeOut(int awaited, int timeOut)
{
    const int id = table().GetTimerID();
    postTimer(NtNetTimerStart, id, timeOut);
    IPC_DATA_RET r;
    std::memset(&r, 0, sizeof r);
    std::memcpy(r.peerName, mPeerName, sizeof r.peerName);
    r.awaited = awaited;
    r.timeOut = timeOut;
    r.threadId = GetMyThrad();
    table().SetTimerInfo(id, &r);
    return id;
}

void IpcCTrlTh::rearmCommErrTimer()
{
    CancelCommunicationErrorTimer();
    SetCommunicationErrorTimer();
}

int IpcCTrlTh::PeerSlot()
{
    char name[DG2::kNameSize + 1] = {};
    std::memcpy(name, mPeerName, DG2::kNameSize);
    DUP_MEMB_INFO rec;
    return table().GetMembInfo(name, &rec);
}

int IpcCTrlTh::SetCommunicationErrorTimer_First(int time)
{
    const int id = CommErrTimerId(PeerSlot());
    if (id == 0)
        return 0;
    return postTimer(NtCommErrTimerStart, id, time);
}

int IpcCTrlTh::SetCommunicationErrorTimer() { return SetCommunicationErrorTimer_First(kCommErrTime); }

int IpcCTrlTh::CancelCommunicationErrorTimer()
{
    const int id = CommErrTimerId(PeerSlot());
    if (id == 0)
        return 0;
    return postTimer(NtCommErrTimerCancel, id, 0);
}

void IpcCTrlTh::GiveUp(unsigned char) {}

int IpcCTrlTh::HandleTimeOut(int timerId)
{
    int found = 0;
    IPC_DATA_RET r = table().GetTimerInfo(timerId, &found);
    if (!found)
        return 0;
    mRet = r;
    mMsg.msgNo = r.msgNo;
    std::memcpy(mPeerName, r.peerName, sizeof mPeerName);
    char name[DG2::kNameSize + 1] = {};
    std::memcpy(name, r.peerName, DG2::kNameSize);
    table().GetMembInfo(name, &mMemb);
    // A member ID that begins with a blank is a member known by identity.
    mMembByIdentity = mMemb.memberId[0] == ' ';
    table().EraseTimerInfo(timerId);

    if (mRet.limit != -1 && mRet.attempts >= mRet.limit) {
        GiveUp(mRet.msgNo);
        return 2;
    }
    mRet.attempts = mRet.attempts + 1 > kAttemptWrap ? 0 : mRet.attempts + 1;
    Resend(mRet.msgNo);
    return 1;
}
