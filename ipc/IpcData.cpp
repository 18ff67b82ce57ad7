// IpcData: member table, datagram queues and reply-timer table.
#include "ipc/IpcData.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include <sys/eventfd.h>
#include <unistd.h>

#include "control/Codes.h"
#include "control/StCTrl.h"
#include "core/ErrorLog.h"

namespace {

std::string idOf(const char* field) { return MemberFiles::field(field, kMembIdSize); }

} // namespace

// Holds the table's lock for one operation.
class IpcData::Locked {
public:
    explicit Locked(MutexControl& m) : mM(m) { mM.Lock(kLock); }
    ~Locked() { mM.unLock(kLock); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    MutexControl& mM;
};

// The table's lock as a lockable object, for the receive queue's condition.
struct IpcData::SlotLock {
    MutexControl& m;
    void lock() { m.Lock(kLock); }
    void unlock() { m.unLock(kLock); }
};

IpcData::IpcData(StCTrl& core, const std::string& dataDir, const std::string& homeDir, FileSystem* fs)
    : mCore(core), mFiles((dataDir.empty() ? homeDir : dataDir) + "/MembInfo.dat", homeDir + "/membCommInfo.tmp", fs)
{
    mMutex.MutexInit(kLock);
    clearTable();
    // Reply time-outs run in the timer service under the network time-out ids.
    for (int32_t id = TmNetFirst; id <= TmNetLast; ++id)
        mFreeTimerIds.push_back(id);
    mSendWake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (mSendWake < 0)
        ErrorLog::report(std::string("send queue wake-up descriptor not made: ") + std::strerror(errno));
}

IpcData::~IpcData()
{
    if (mSendWake >= 0)
        ::close(mSendWake);
}

void IpcData::clearTable()
{
    std::memset(mMembers, 0, sizeof mMembers);
    mIdIndex.clear();
    mSlotIndex.clear();
    for (int s = 1; s < kSlots; ++s)
        mSlotIndex[s] = std::string();
}

// The slot of a member ID through the ID index; an unknown ID is entered
// with slot 0 (it stays there, marking a name asked for but not a member).
int IpcData::slotOf(const char* id) { return mIdIndex[idOf(id)]; }

// The same without entering anything: for names that come from the network.
int IpcData::findSlot(const std::string& id) const
{
    auto it = mIdIndex.find(id);
    return it == mIdIndex.end() ? 0 : it->second;
}

int IpcData::writeStatusFile()
{
    std::string text;
    for (int s = 1; s < kSlots; ++s)
        text += MemberFiles::statusLines(s, mMembers[s]);
    return mFiles.writeStatus(text) ? 1 : 0;
}

int IpcData::saveMembers()
{
    std::vector<MemberFiles::Entry> list;
    for (const auto& kv : mIdIndex) {
        if (kv.second == 0 || kv.first.empty())
            continue;
        const DUP_MEMB_INFO& m = mMembers[kv.second];
        MemberFiles::Entry e;
        e.id = kv.first;
        e.name = MemberFiles::field(m.name, sizeof m.name);
        e.address = MemberFiles::field(m.address, sizeof m.address);
        e.port = m.port;
        list.push_back(e);
    }
    return mFiles.writeMembers(list) ? 1 : 0;
}

// ---- members ----

int IpcData::LoadMembInfo()
{
    Locked l(mMutex);
    clearTable();
    std::vector<MemberFiles::Entry> list;
    mFiles.readMembers(&list, kMaxMembers);
    int slot = 0;
    for (const MemberFiles::Entry& e : list) {
        DUP_MEMB_INFO& m = mMembers[++slot];
        MemberFiles::setField(m.memberId, sizeof m.memberId, e.id);
        MemberFiles::setField(m.name, sizeof m.name, e.name);
        MemberFiles::setField(m.address, sizeof m.address, e.address);
        m.port = e.port;
        m.status = MembNotActive;
        m.sq = SqIdle;
        mIdIndex[e.id] = slot;
        mSlotIndex[slot] = e.id;
    }
    return slot;
}

int IpcData::SaveMembInfo()
{
    Locked l(mMutex);
    return saveMembers();
}

int IpcData::InitMember(std::string address, int port, std::string id, bool flag, int threadId, SQ_STAT sq,
                        char* text)
{
    id = id.substr(0, kMembIdSize);
    if (id.empty() || !MemberFiles::isClean(id) || !MemberFiles::isClean(address)) {
        ErrorLog::report("member \"" + ErrorLog::printable(id) + "\" at \"" + ErrorLog::printable(address) +
               "\" refused: an empty ID or a control character in its ID or address");
        return -1;
    }
    std::string extra = text ? MemberFiles::field(text, kMembTextSize) : std::string();
    Locked l(mMutex);
    int& slot = mIdIndex[id];
    bool known = slot != 0;
    if (!known) {
        for (int s = 1; s < kSlots && slot == 0; ++s)
            if (mSlotIndex[s].empty())
                slot = s;
        if (slot == 0) {
            ErrorLog::report("member \"" + ErrorLog::printable(id) + "\" refused: the member table holds 63 members");
            return -1;
        }
        mSlotIndex[slot] = id;
        std::memset(&mMembers[slot], 0, sizeof mMembers[slot]);
        mMembers[slot].status = MembNoEntry;
    }
    DUP_MEMB_INFO& m = mMembers[slot];
    m.port = port;
    m.sq = sq;
    m.flag = flag ? 1 : 0;
    m.threadId = threadId;
    MemberFiles::setField(m.address, sizeof m.address, address);
    MemberFiles::setField(m.memberId, sizeof m.memberId, id);
    MemberFiles::setField(m.text, sizeof m.text, extra);
    return known ? 0 : slot;
}

int IpcData::DeleteMember(std::string id, int saveFile)
{
    id = id.substr(0, kMembIdSize);
    Locked l(mMutex);
    int slot = findSlot(id);
    if (slot == 0)
        return 0;
    std::memset(&mMembers[slot], 0, sizeof mMembers[slot]);
    mIdIndex.erase(id);
    mSlotIndex[slot] = std::string();
    if (saveFile)
        saveMembers();
    writeStatusFile();
    return slot;
}

int IpcData::SetMembStatus(DUP_MEMB_INFO* rec, MEMB_STAT status, bool fileOnly)
{
    Locked l(mMutex);
    if (fileOnly)
        return writeStatusFile();
    if (!rec)
        return 0;
    int slot = slotOf(rec->memberId);
    if (slot == 0)
        return 0;
    rec->status = status;
    mMembers[slot].status = status;
    writeStatusFile();
    return slot;
}

int IpcData::SetMembSq(DUP_MEMB_INFO* rec, SQ_STAT sq, int param)
{
    if (!rec)
        return 0;
    Locked l(mMutex);
    int slot = slotOf(rec->memberId);
    if (slot != 0) {
        rec->sq = mMembers[slot].sq = sq;
        rec->sqParam = mMembers[slot].sqParam = param;
    }
    return slot;
}

int IpcData::SetMembIPAddr(DUP_MEMB_INFO* rec, const char* address)
{
    if (!rec || !address)
        return 0;
    if (!MemberFiles::isClean(address)) {
        ErrorLog::report("address \"" + ErrorLog::printable(address) + "\" of member \"" + ErrorLog::printable(idOf(rec->memberId)) +
               "\" refused: it holds a control character");
        return -1;
    }
    Locked l(mMutex);
    int slot = slotOf(rec->memberId);
    if (slot != 0) {
        MemberFiles::setField(rec->address, sizeof rec->address, address);
        MemberFiles::setField(mMembers[slot].address, sizeof rec->address, address);
    }
    return slot;
}

int IpcData::SetMembNameString(DUP_MEMB_INFO* rec, const char* name)
{
    if (!rec || !name)
        return 0;
    if (!MemberFiles::isClean(name)) {
        ErrorLog::report("name \"" + ErrorLog::printable(name) + "\" of member \"" + ErrorLog::printable(idOf(rec->memberId)) +
               "\" refused: it holds a control character");
        return -1;
    }
    Locked l(mMutex);
    int slot = slotOf(rec->memberId);
    if (slot != 0) {
        MemberFiles::setField(rec->name, sizeof rec->name, name);
        MemberFiles::setField(mMembers[slot].name, sizeof rec->name, name);
    }
    return slot;
}

int IpcData::GetMembId(const char* address, char* id)
{
    if (id)
        std::memset(id, 0, kMembIdSize);
    if (!address)
        return 0;
    Locked l(mMutex);
    for (int s = 1; s < kSlots; ++s) {
        if (!mSlotIndex[s].empty() && MemberFiles::field(mMembers[s].address, kMembAddrSize) == address) {
            if (id)
                std::memcpy(id, mMembers[s].memberId, kMembIdSize);
            return s;
        }
    }
    return 0;
}

int IpcData::GetMembInfo(char* name, DUP_MEMB_INFO* out)
{
    Locked l(mMutex);
    int slot = name ? findSlot(MemberFiles::field(name, kMembIdSize)) : 0;
    if (out) {
        if (slot != 0)
            *out = mMembers[slot];
        else
            std::memset(out, 0, sizeof *out);
    }
    return slot;
}

int IpcData::GetMembInfo(int slot, DUP_MEMB_INFO* out)
{
    if (slot < 1 || slot >= kSlots)
        slot = 0;
    Locked l(mMutex);
    if (out) {
        if (slot != 0)
            *out = mMembers[slot];
        else
            std::memset(out, 0, sizeof *out);
    }
    return slot;
}

int IpcData::GetMembStatus(IPC_DATA_REC* rec)
{
    if (!rec)
        return MembNoEntry;
    Locked l(mMutex);
    int slot = findSlot(MemberFiles::field(rec->name, sizeof rec->name));
    return slot != 0 ? mMembers[slot].status : MembNoEntry;
}

int IpcData::GetDetectMember(DUP_MEMB_INFO* out)
{
    if (!out)
        return 0;
    Locked l(mMutex);
    int n = 0;
    for (const auto& kv : mIdIndex)
        if (kv.second != 0 && mMembers[kv.second].status == MembActive)
            out[n++] = mMembers[kv.second];
    return n;
}

int IpcData::GetThreadID(char* address)
{
    if (!address)
        return 0;
    Locked l(mMutex);
    for (int s = 1; s < kSlots; ++s) {
        const DUP_MEMB_INFO& m = mMembers[s];
        if (m.memberId[0] == '@' && MemberFiles::field(m.address, sizeof m.address) == address)
            return m.threadId;
    }
    return 0;
}

// ---- queues ----

int IpcData::setSdData(IPC_DATA_REC* rec)
{
    if (!rec)
        return 0;
    {
        Locked l(mMutex);
        mSendQueue.push_back(*rec);
    }
    if (mSendWake >= 0) {
        // Only a full counter (2^64 - 2 unread wake-ups) can refuse this;
        // the descriptor is readable then anyway.
        const uint64_t one = 1;
        (void)!::write(mSendWake, &one, sizeof one);
    }
    return 1;
}

int IpcData::getSdData(IPC_DATA_REC* rec)
{
    if (!rec)
        return 0;
    Locked l(mMutex);
    if (mSendQueue.empty())
        return 0;
    *rec = mSendQueue.front();
    mSendQueue.pop_front();
    return 1;
}

int IpcData::setRvData(DG2MessageType* msg, IPC_DST_MODE mode, int value, char* name, int threadId)
{
    if (!msg)
        return 0;
    IPC_DATA_REC rec;
    std::memset(&rec, 0, sizeof rec);
    rec.mode = mode;
    rec.msg = *msg;
    rec.value = value;
    if (name)
        std::memcpy(rec.name, name, strnlen(name, sizeof rec.name));
    rec.threadId = threadId;
    {
        Locked l(mMutex);
        mReceiveQueue.push_back(rec);
    }
    mRvChanged.notify_all();
    return 1;
}

int IpcData::getRvData(IPC_DATA_REC* rec, int threadId)
{
    if (!rec)
        return 0;
    // One wait bounded like the 128 tries 10 ms apart it stands for, woken
    // whenever the head of the queue may have changed.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kRvAttempts * kRvPauseMs);
    SlotLock lockable{mMutex};
    std::unique_lock<SlotLock> lock(lockable);
    for (bool last = false;;) {
        if (mReceiveQueue.empty())
            return 0;
        if (mReceiveQueue.front().threadId == threadId) {
            *rec = mReceiveQueue.front();
            mReceiveQueue.pop_front();
            lock.unlock();
            mRvChanged.notify_all(); // the next record may be another waiter's
            return 1;
        }
        if (last)
            return 0;
        last = mRvChanged.wait_until(lock, deadline) == std::cv_status::timeout;
    }
}

// ---- reply timers ----

int IpcData::GetTimerID()
{
    Locked l(mMutex);
    int32_t id = mFreeTimerIds.front();
    mFreeTimerIds.pop_front();
    mFreeTimerIds.push_back(id);
    return id;
}

int IpcData::SetTimerInfo(int id, IPC_DATA_RET* ret)
{
    if (!ret)
        return 0;
    ret->timerId = id;
    if (ret->handle == 0)
        ret->handle = id;
    Locked l(mMutex);
    mTimers[id] = *ret;
    return 1;
}

IPC_DATA_RET IpcData::GetTimerInfo(int id, int* found)
{
    IPC_DATA_RET out;
    std::memset(&out, 0, sizeof out);
    Locked l(mMutex);
    auto it = mTimers.find(id);
    bool have = it != mTimers.end() && it->second.timerId == id;
    if (it != mTimers.end())
        out = it->second;
    if (found)
        *found = have ? 1 : 0;
    return out;
}

int IpcData::EraseTimerInfo(int id)
{
    Locked l(mMutex);
    return static_cast<int>(mTimers.erase(id));
}

void IpcData::notifyTimerStop(const IPC_DATA_RET& ret)
{
    _NOTIFYMSGINFO nt;
    std::memset(&nt, 0, sizeof nt);
    nt.code = NtNetTimerCancel;
    nt.count = 1;
    nt.params[0] = ret.handle;
    mCore.SetNotify(&nt);
}

int IpcData::CancelTM(IPC_DATA_REC* rec, int x)
{
    if (!rec)
        return 0;
    const int msg = rec->msg.msgNo;
    Locked l(mMutex);
    for (auto it = mTimers.begin(); it != mTimers.end(); ++it) {
        const IPC_DATA_RET& e = it->second;
        if (e.awaited != msg)
            continue;
        bool samePeer = std::strncmp(e.peerName, rec->name, sizeof e.peerName) == 0;
        bool atForm = msg == DG2::MsgMemberInfo230 && e.peerName[0] == '@' && e.value == x;
        if (samePeer || atForm) {
            IPC_DATA_RET gone = e;
            mTimers.erase(it);
            notifyTimerStop(gone);
            return 1;
        }
    }
    return 0;
}

int IpcData::CancelMembTM(const char* name)
{
    if (!name)
        return 0;
    Locked l(mMutex);
    int n = 0;
    for (auto it = mTimers.begin(); it != mTimers.end();) {
        if (std::strncmp(it->second.peerName, name, sizeof it->second.peerName) == 0) {
            IPC_DATA_RET gone = it->second;
            it = mTimers.erase(it);
            notifyTimerStop(gone);
            ++n;
        } else {
            ++it;
        }
    }
    return n;
}

size_t IpcData::sendQueued()
{
    Locked l(mMutex);
    return mSendQueue.size();
}

size_t IpcData::receiveQueued()
{
    Locked l(mMutex);
    return mReceiveQueue.size();
}

size_t IpcData::timersPending()
{
    Locked l(mMutex);
    return mTimers.size();
}
