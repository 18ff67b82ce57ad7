#include "ipc/IpcIFTh.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "config/FileMap.h"
#include "control/Codes.h"
#include "control/Records.h"
#include "control/StCTrl.h"
#include "core/Clock.h"
#include "core/ErrorLog.h"
#include "core/FatalStop.h"
#include "ipc/IpcData.h"
#include "ipc/SystemUdpSocket.h"
#include "operator/NetworkAddresses.h"

std::atomic<bool> IpcIFTh::sClosed{false};

namespace {

// A fixed text field (NUL-padded, not always NUL-terminated) as a string.
std::string fieldText(const char* field, size_t size) { return std::string(field, strnlen(field, size)); }

std::string sender(const UdpDatagramInfo& info)
{
    return ErrorLog::printable(info.address) + ":" + std::to_string(info.port);
}

// Empties an eventfd (non-blocking): one read takes the whole counter.
void drainEventFd(int fd)
{
    uint64_t value;
    if (fd >= 0)
        (void)!::read(fd, &value, sizeof value);
}

} // namespace

void IpcIFTh::RateLog::note(time_t now, const std::string& what, const char* verb)
{
    ++count;
    // A clock that went backwards ends the quiet minute too.
    if (logged && now >= last && now - last < kLogInterval)
        return;
    ErrorLog::report(std::to_string(count) + (count == 1 ? " datagram " : " datagrams ") + verb +
                     (logged ? " since the last report" : "") + "; the last: " + what);
    count = 0;
    logged = true;
    last = now;
}

IpcIFTh::IpcIFTh(int number, const Wiring& wiring) : tthread(number), mW(wiring), mClock(wiring.clock)
{
    std::memset(&mRx, 0, sizeof mRx);
    std::memset(&mRec, 0, sizeof mRec);
}


IpcIFTh::~IpcIFTh()
{
    closeSockets();
    if (mStopFd >= 0)
        ::close(mStopFd);
}

bool IpcIFTh::wired() const { return mW.core != nullptr && table() != nullptr && mW.config && *mW.config; }

IpcData* IpcIFTh::table() const { return mW.table ? *mW.table : nullptr; }

std::string IpcIFTh::conf(const char* key) const
{
    FileMap* map = mW.config ? *mW.config : nullptr;
    return map ? map->getConf(key) : std::string();
}

time_t IpcIFTh::now() const { return (mClock ? *mClock : Clock::system()).now(); }

void IpcIFTh::notify(int code, std::initializer_list<int> params)
{
    _NOTIFYMSGINFO nt;
    std::memset(&nt, 0, sizeof nt);
    nt.code = code;
    for (int p : params)
        nt.params[nt.count++] = p;
    mW.core->SetNotify(&nt);
}

void IpcIFTh::setBindRetry(int count, int broadcastCount, std::chrono::milliseconds pause)
{
    mBindAttempts = count;
    mBroadcastBindAttempts = broadcastCount;
    mBindPause = pause;
}

bool IpcIFTh::broadcastOpen() const { return mBroadcast && mBroadcast->descriptor() >= 0; }

bool IpcIFTh::running()
{
    std::lock_guard<std::mutex> l(mStateMutex);
    return mRunning;
}

void IpcIFTh::stop()
{
    std::lock_guard<std::mutex> l(mStateMutex);
    mStopping = true;
    if (mStopFd >= 0) {
        const uint64_t one = 1;
        (void)!::write(mStopFd, &one, sizeof one);
    }
}

void IpcIFTh::end()
{
    stop();
    std::unique_lock<std::mutex> l(mStateMutex);
    // The thread closes the sockets itself when it leaves its loop; a close
    // send in progress may hold it a few seconds.
    mStateChanged.wait_for(l, std::chrono::seconds(10), [this] { return !mRunning; });
    if (!mRunning)
        closeSockets();
}

void IpcIFTh::closeSockets()
{
    if (mMain)
        mMain->close();
    if (mBroadcast)
        mBroadcast->close();
    mMainPort.store(0);
}

// ---- set-up ----

void IpcIFTh::SockConf()
{
    mMember = conf("UPSController") == "2";
    mPort = std::atoi(conf(mMember ? "MemberPort" : "CtrlPort1").c_str());
    if (mMember) {
        mPrevTime = now();
        mRefTime = mPrevTime;
    }
}

// Waits `pause`, or less when a stop comes: false on a stop.
bool IpcIFTh::pauseOrStop(std::chrono::milliseconds pause)
{
    int fd;
    {
        std::lock_guard<std::mutex> l(mStateMutex);
        if (mStopping)
            return false;
        fd = mStopFd;
    }
    pollfd p = {fd, POLLIN, 0};
    int r = ::poll(&p, fd >= 0 ? 1 : 0, static_cast<int>(pause.count()));
    if (r > 0)
        return false;
    std::lock_guard<std::mutex> l(mStateMutex);
    return !mStopping;
}

bool IpcIFTh::bindWithRetry(UdpSocket& socket, const std::string& address, int attempts, const char* what)
{
    in_addr parsed;
    if (mPort < 0 || mPort > 65535 || !UdpSocket::parseBindAddress(address, parsed)) {
        ErrorLog::report(std::string(what) + " not bound: \"" + ErrorLog::printable(address) + "\" port " +
                         std::to_string(mPort) + " is no IPv4 address and port");
        return false;
    }
    for (int i = 1;; ++i) {
        if (socket.bind(address, static_cast<uint16_t>(mPort)) == UdpStatus::Ok)
            return true;
        if (i >= attempts) {
            ErrorLog::report(std::string(what) + " not bound to " + ErrorLog::printable(address) + " port " +
                             std::to_string(mPort) + " after " + std::to_string(attempts) +
                             " attempts: " + std::strerror(socket.error()));
            return false;
        }
        if (!pauseOrStop(mBindPause))
            return false;
    }
}

bool IpcIFTh::InitSock()
{
    SockConf();
    mMain = mW.makeSocket ? mW.makeSocket() : std::unique_ptr<UdpSocket>(new SystemUdpSocket);
    // The socket is made non-blocking (and close-on-exec, broadcast on) as
    // it is opened: a socket that cannot be is of no use to the loop.
    if (mMain->open() != UdpStatus::Ok) {
        std::string why = std::string("coordination socket not opened: ") + std::strerror(mMain->error());
        ErrorLog::report(why);
        FatalStop::request(1, why.c_str());
        return false;
    }
    const std::string address = conf("IPAddress");
    const bool any = !address.empty() && address[0] == '*';
    if (bindWithRetry(*mMain, any ? "*" : address, mBindAttempts, "coordination socket"))
        mMainPort.store(mMain->localPort());
    {
        std::lock_guard<std::mutex> l(mStateMutex);
        if (mStopping)
            return false;
    }
    // A socket bound to one unicast address does not see the subnet's
    // broadcasts: a controller bound to its own address reads them on a
    // second socket bound to the interface's broadcast address.
    if (!mMember && conf("UPSController") == "1" && !any)
        openBroadcastSocket(address);
    return true;
}

void IpcIFTh::openBroadcastSocket(const std::string& address)
{
    char addrs[kMaxInterfaces][32] = {};
    char bcasts[kMaxInterfaces][32] = {};
    int n = mW.interfaces ? mW.interfaces(addrs, bcasts) : GetNowIPAddr_And_BroadCastAddr(addrs, bcasts);
    std::string bcast;
    for (int i = 0; i < n && i < kMaxInterfaces; ++i)
        if (fieldText(addrs[i], 32) == address)
            bcast = fieldText(bcasts[i], 32);
    if (bcast.empty())
        return;
    mBroadcast = mW.makeSocket ? mW.makeSocket() : std::unique_ptr<UdpSocket>(new SystemUdpSocket);
    if (mBroadcast->open() != UdpStatus::Ok ||
        !bindWithRetry(*mBroadcast, bcast, mBroadcastBindAttempts, "broadcast socket")) {
        mBroadcast->close();
        mBroadcast.reset();
    }
}

// ---- the loop ----

void IpcIFTh::thread_main()
{
    if (!wired()) {
        ErrorLog::report("coordination transport not started: no member table or configuration");
        return;
    }
    {
        std::lock_guard<std::mutex> l(mStateMutex);
        if (mStopping)
            return;
        if (mStopFd < 0)
            mStopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        mRunning = true;
    }
    if (InitSock()) {
        const int wake = table()->sendWakeDescriptor();
        bool pollFailed = false;
        for (;;) {
            pollfd fds[4];
            nfds_t n = 0;
            for (int fd : {mMain->descriptor(), mBroadcast ? mBroadcast->descriptor() : -1, wake, mStopFd})
                if (fd >= 0)
                    fds[n++] = pollfd{fd, POLLIN, 0};
            // A controller has nothing to do until a descriptor is ready
            // (without the send queue's descriptor it looks once a second).
            int r = ::poll(fds, n, mMember || wake < 0 ? kMemberWaitMs : -1);
            if (r < 0 && errno != EINTR) {
                if (!pollFailed)
                    ErrorLog::report(std::string("coordination transport: poll failed: ") + std::strerror(errno));
                pollFailed = true;
                std::this_thread::sleep_for(std::chrono::seconds(1));
            }
            {
                std::lock_guard<std::mutex> l(mStateMutex);
                if (mStopping)
                    break;
            }
            RunPass();
        }
    }
    closeSockets();
    std::lock_guard<std::mutex> l(mStateMutex);
    mRunning = false;
    mStateChanged.notify_all();
}

void IpcIFTh::RunPass()
{
    receiveOne();
    drainSendQueue();
    if (mMember)
        SilenceTick();
    ++mPassCount;
}

// Takes one datagram: on odd passes from the broadcast socket first (when
// it is open), otherwise from the main socket first; the other socket is
// tried when the first has none.
bool IpcIFTh::receiveOne()
{
    UdpSocket* order[2] = {mMain.get(), mBroadcast.get()};
    if (mBroadcast && (mPassCount & 1) != 0)
        std::swap(order[0], order[1]);
    for (UdpSocket* s : order) {
        if (s == nullptr || s->descriptor() < 0)
            continue;
        std::memset(&mRx, 0, sizeof mRx);
        UdpDatagramInfo info;
        switch (s->receive(&mRx, sizeof mRx, info)) {
        case UdpStatus::WouldBlock:
            continue;
        case UdpStatus::Truncated:
            mDropLog.note(now(), "larger than " + std::to_string(sizeof mRx) + " bytes from " + sender(info),
                          "dropped");
            return true;
        case UdpStatus::Error:
            mDropLog.note(now(), std::string("receive failed: ") + std::strerror(s->error()), "dropped");
            return true;
        case UdpStatus::Ok:
            deliver(info);
            return true;
        }
    }
    return false;
}

void IpcIFTh::deliver(const UdpDatagramInfo& info)
{
    DG2Drop why = DG2CheckReceived(&mRx, info.size, mMember ? DG2Role::Member : DG2Role::Controller);
    if (why != DG2Drop::DG2Accepted) {
        // Peers of this host's own role share its broadcasts (and a socket
        // bound to any address hears this host's own): normal traffic, not
        // bad input, so dropped without a log line.
        const uint16_t ownKind = mMember ? DG2::KindMember : DG2::KindController;
        if (why == DG2Drop::DG2NotForUs && mRx.magic == DG2::kMagic && mRx.srcKind == ownKind)
            return;
        mDropLog.note(now(), std::string(DG2DropText(why)) + " (" + std::to_string(info.size) + " bytes) from " +
                                 sender(info),
                      "dropped");
        return;
    }
    const int owner = mMember ? GetCtrlNo(info.address.c_str(), mRx.dstName) : int(ThCtrlSlot0);
    if (owner == 0) {
        mDropLog.note(now(), "from " + sender(info) + ", no controller this member follows (addressed to \"" +
                                 ErrorLog::printable(fieldText(mRx.dstName, DG2::kNameSize)) + "\")",
                      "dropped");
        return;
    }
    remember(fieldText(mRx.srcName, DG2::kNameSize), info);
    char address[DG2::kNameSize + 1] = {};
    std::strncpy(address, info.address.c_str(), DG2::kNameSize);
    // Mode 0: a received datagram has no destination.
    table()->setRvData(&mRx, IPC_DST_ALL, info.port, address, owner);
    notify(NtNetReceived, {owner});
}

void IpcIFTh::remember(const std::string& name, const UdpDatagramInfo& info)
{
    for (auto it = mPeers.begin(); it != mPeers.end(); ++it) {
        if (it->name == name) {
            mPeers.erase(it);
            break;
        }
    }
    mPeers.push_back(Peer{name, info.address, info.port});
    if (mPeers.size() > kRememberedPeers)
        mPeers.pop_front();
}

const IpcIFTh::Peer* IpcIFTh::remembered(const std::string& name, int port) const
{
    for (const Peer& p : mPeers)
        if (p.name == name)
            return &p;
    // The protocol may name a stranger by the address its request came from,
    // with its port as the record's value: still only a recent sender's.
    for (const Peer& p : mPeers)
        if (p.address == name && (port <= 0 || p.port == port))
            return &p;
    return nullptr;
}

void IpcIFTh::drainSendQueue()
{
    // Emptied first: a record queued after this read writes it again.
    drainEventFd(table()->sendWakeDescriptor());
    while (table()->getSdData(&mRec)) {
        if (mRec.mode != IPC_DST_REPLY && mRec.mode != IPC_DST_ONE) {
            SendDataAll();
            continue;
        }
        char name[DG2::kNameSize + 1] = {};
        std::memcpy(name, mRec.name, DG2::kNameSize);
        DUP_MEMB_INFO member;
        if (table()->GetMembInfo(name, &member) != 0) {
            SendData(&member, false);
            continue;
        }
        // No member: a reply to a stranger goes back where its request came
        // from, never to an address read from a datagram's text.
        const Peer* peer = remembered(name, mRec.value);
        if (peer == nullptr) {
            mSendLog.note(now(),
                          "message " + std::to_string(mRec.msg.msgNo) + " for \"" + ErrorLog::printable(name) +
                              "\", neither a member nor a recent sender",
                          "not sent");
            continue;
        }
        mTargetAddress = peer->address;
        mTargetPort = peer->port;
        SendData(nullptr, false);
    }
}

// ---- sending ----

int IpcIFTh::ownerOf(const std::string& target, const std::string& dstName)
{
    if (!mMember)
        return ThCtrlSlot0;
    // The slot thread that queued the record owns its exchange; a record
    // of no slot thread goes by the target, as a received datagram would.
    if (mRec.threadId >= ThCtrlSlot0 && mRec.threadId <= ThCtrlSlot3)
        return mRec.threadId;
    char name[DG2::kNameSize + 1] = {};
    std::memcpy(name, dstName.data(), std::min(dstName.size(), size_t(DG2::kNameSize)));
    return GetCtrlNo(target.c_str(), name);
}

void IpcIFTh::armTimeOut(const std::string& target, const std::string& dstName)
{
    const int owner = ownerOf(target, dstName);
    const int id = table()->GetTimerID();
    IPC_DATA_RET ret = mRec.ret;
    table()->SetTimerInfo(id, &ret);
    notify(NtNetTimerStart, {id, ret.timeOut, 0, owner});
}

int IpcIFTh::SendData(DUP_MEMB_INFO* member, bool closing)
{
    std::string target;
    int port;
    if (member == nullptr) {
        target = mTargetAddress;
        port = mTargetPort;
    } else {
        target = fieldText(member->address, sizeof member->address);
        port = member->port;
    }
    const DG2MessageType& m = mRec.msg;
    const std::string dstName = fieldText(m.dstName, sizeof m.dstName);

    if (mRec.ret.timeOut > 0 && mRec.ret.awaited != -1)
        armTimeOut(target, dstName);
    // Deliberately after the time-out: the protocol sees a silent peer.
    if (target == "NotSend")
        return 0;

    if (mRec.mode == IPC_DST_CLOSE && !closing) {
        int sent = 0;
        for (int copy = 0; copy < 3; ++copy) {
            sent += transmit(target, port, false);
            ::usleep(static_cast<useconds_t>(GetCloseSendInterval()));
        }
        sClosed.store(true);
        return sent;
    }

    // After the close send only a member's application end still leaves.
    const bool memberAppEnd = mMember && m.msgNo == DG2::MsgAppEnd;
    if (sClosed.load()) {
        if (!memberAppEnd)
            return 0;
    } else if (memberAppEnd) {
        sClosed.store(true);
    }

    // A registration request restarts the silence tick.
    if (mMember && m.magic == DG2::kMagic && m.result == DG2::kResultRequest && m.msgNo == DG2::MsgRegister &&
        ownerOf(target, dstName) != 0)
        mRefTime = now();
    return transmit(target, port, true);
}

// Converts and stamps a copy of the current datagram and sends it, as
// header plus body length bytes: to the target, or with an empty target to
// the broadcast address of every interface.
int IpcIFTh::transmit(const std::string& target, int port, bool replaceAt)
{
    DG2MessageType out = mRec.msg;
    const std::string what = "message " + std::to_string(out.msgNo) + " to \"" + ErrorLog::printable(target) +
                             "\" port " + std::to_string(port);
    if (out.bodyLen > DG2::kMaxBody || port <= 0 || port > 65535) {
        mSendLog.note(now(), what + ": body length " + std::to_string(out.bodyLen) + " or port out of range",
                      "not sent");
        return 0;
    }
    const size_t size = DG2::kHeaderSize + size_t(out.bodyLen);
    if (!ByteOrderChg(&out)) {
        mSendLog.note(now(), what + ": unknown message number", "not sent");
        return 0;
    }
    if (replaceAt && out.srcName[0] == '@')
        DG2SetField(out.srcName, sizeof out.srcName, target.c_str());
    SetHedVer(&out);

    std::vector<std::string> targets;
    if (!target.empty()) {
        targets.push_back(target);
    } else {
        char addrs[kMaxInterfaces][32] = {};
        char bcasts[kMaxInterfaces][32] = {};
        int n = mW.interfaces ? mW.interfaces(addrs, bcasts) : GetNowIPAddr_And_BroadCastAddr(addrs, bcasts);
        // No interface listed: the routine names the limited broadcast.
        for (int i = 0; i < (n > 0 ? n : 1) && i < kMaxInterfaces; ++i)
            if (bcasts[i][0] != '\0')
                targets.push_back(fieldText(bcasts[i], 32));
    }
    int sent = 0;
    for (const std::string& to : targets) {
        if (mMain->send(&out, size, to, static_cast<uint16_t>(port)) == UdpStatus::Ok)
            ++sent;
        else
            mSendLog.note(now(),
                          "message " + std::to_string(mRec.msg.msgNo) + " to " + ErrorLog::printable(to) + ":" +
                              std::to_string(port) + ": " + std::strerror(mMain->error()),
                          "not sent");
    }
    return sent;
}

int IpcIFTh::SendDataAll()
{
    const bool closing = mRec.mode == IPC_DST_CLOSE;
    const int passes = closing ? 3 : 1;
    std::vector<DUP_MEMB_INFO> list(IpcData::kMaxMembers);
    int sent = 0;
    for (int pass = 0; pass < passes; ++pass) {
        const int n = table()->GetDetectMember(list.data());
        for (int i = 0; i < n; ++i) {
            DUP_MEMB_INFO& member = list[i];
            std::string dst = fieldText(member.address, sizeof member.address);
            if (!mMember && member.memberId[0] == ' ') {
                // A member that registered by identity: the identity form
                // of the destination name.
                dst = conf("SetUpID");
                if (dst.empty())
                    dst = " ";
                dst[0] = ' ';
            }
            DG2SetField(mRec.msg.dstName, sizeof mRec.msg.dstName, dst.c_str());
            sent += SendData(&member, closing);
        }
        if (closing)
            ::usleep(static_cast<useconds_t>(GetCloseSendInterval()));
    }
    if (closing)
        sClosed.store(true);
    return sent;
}

int IpcIFTh::GetCtrlNo(const char* address, const char* name)
{
    IpcData* t = table();
    if (t == nullptr)
        return 0;
    // A controller this member follows is known by the address it sends
    // from: its "@" record in the member table carries it.
    if (address != nullptr && address[0] != '\0') {
        std::string copy(address);
        const int owner = t->GetThreadID(&copy[0]);
        if (owner >= ThCtrlSlot0 && owner <= ThCtrlSlot3)
            return owner;
    }
    // A controller configured by identity ("*ID") whose address is not known
    // yet is found by the identity form of the destination name (" ID"); once
    // its first datagram has given its address, only that address counts.
    const std::string wanted = name ? fieldText(name, DG2::kNameSize) : std::string();
    FileMap* controllers = mW.controllers ? *mW.controllers : nullptr;
    for (int i = 1; controllers != nullptr && !wanted.empty() && i <= 4; ++i) {
        std::string entry = controllers->getConf("IPAddress" + std::to_string(i));
        if (entry.size() < 2 || entry[0] != '*')
            continue;
        entry[0] = ' ';
        // The name arrived in a 32-byte field: a longer entry was cut to it.
        if (entry.substr(0, DG2::kNameSize) != wanted)
            continue;
        char id[] = "@CTRL0";
        id[5] = char('0' + i);
        DUP_MEMB_INFO rec;
        if (t->GetMembInfo(id, &rec) != 0 && rec.address[0] == '\0' && rec.threadId == i + 7)
            return i + 7;
    }
    return 0;
}

long IpcIFTh::GetCloseSendInterval()
{
    const std::string address = conf("IPAddress");
    const size_t dot = address.rfind('.');
    const long octet = std::atol(dot == std::string::npos ? address.c_str() : address.c_str() + dot + 1);
    return (octet & 0x3F) * 30000L + 30000L;
}

void IpcIFTh::SilenceTick()
{
    const time_t t = now();
    const time_t step = t - mPrevTime;
    // A jump of the clock moves the reference with it: only time that
    // really passed counts as silence.
    if (step < 0 || step > kClockJump)
        mRefTime += step;
    if (t - mRefTime > kSilenceLimit) {
        mRefTime = t;
        notify(NtStopAllTimers, {});
    }
    mPrevTime = t;
}
