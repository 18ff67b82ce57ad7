// IpcData: the member table of the coordination network (one instance,
// gIpcData). It holds the known members (on a controller the shutdown
// members registered with it, on a member its peers), the send queue from
// the protocol threads to the UDP transport, the receive queue the other
// way, and the table of pending reply timers with the pool of their ids.
// The member list survives restarts in "MembInfo.dat"; every status change
// rewrites the operator's "membCommInfo.tmp". One lock (slot 15 of its own
// MutexControl) serialises every operation, file writes included.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <string>

#include "core/MutexControl.h"
#include "ipc/IpcDataRecords.h"
#include "ipc/MemberFiles.h"

class FileSystem;
class StCTrl;

class IpcData {
public:
    static const int kSlots = 64;          // slot 0 means "no member"
    static const int kMaxMembers = kSlots - 1;
    static const int kLock = 15;           // lock slot of the table
    static const int kRvAttempts = 128;    // getRvData: attempts ...
    static const int kRvPauseMs = 10;      // ... this far apart, as one bounded wait

    // core: receives the timer-stop notifications of CancelTM. dataDir: the
    // directory of "MembInfo.dat" (the "Path" setting; empty: homeDir, never
    // the root directory). homeDir: where
    // "membCommInfo.tmp" is written. fs: the file system (null: the real one).
    IpcData(StCTrl& core, const std::string& dataDir, const std::string& homeDir, FileSystem* fs = nullptr);
    ~IpcData();

    IpcData(const IpcData&) = delete;
    IpcData& operator=(const IpcData&) = delete;

    // ---- members ----
    // Empties the table and loads "MembInfo.dat" into slots 1, 2, 3 ... in
    // file order, each "Not Active" with sequence state 0. Returns the
    // number loaded (0 with a missing file).
    int LoadMembInfo();
    // Replaces "MembInfo.dat" with the members in member-ID order: 1, or 0
    // (old file kept, logged) when it cannot be written.
    int SaveMembInfo();
    // A known ID: updates its record and returns 0. A new ID: takes the
    // lowest free slot with status 0 and returns it; -1 when all 63 are in
    // use, or (with a log line) when the ID is empty or the ID or address
    // holds a control character.
    int InitMember(std::string address, int port, std::string id, bool flag, int threadId, SQ_STAT sq, char* text);
    // Removes the member and frees its slot; with saveFile set also rewrites
    // "MembInfo.dat". Refreshes "membCommInfo.tmp". The freed slot, 0 when
    // the ID is not a member.
    int DeleteMember(std::string id, int saveFile);
    // fileOnly: only rewrites "membCommInfo.tmp" (returns 1). Otherwise sets
    // the status of rec's member in rec and in the table and rewrites the
    // file: the slot, or 0 with nothing changed when the ID is no member.
    int SetMembStatus(DUP_MEMB_INFO* rec, MEMB_STAT status, bool fileOnly);
    // Sets sequence state and parameter in rec and in the table: the slot, 0
    // when unknown.
    int SetMembSq(DUP_MEMB_INFO* rec, SQ_STAT sq, int param);
    // Stores a new address (in rec and in the table; the caller saves the
    // file): the slot, 0 when unknown, -1 (logged) for a control character.
    int SetMembIPAddr(DUP_MEMB_INFO* rec, const char* address);
    // Stores a new display name (bounded to the field) the same way.
    int SetMembNameString(DUP_MEMB_INFO* rec, const char* name);
    // The member ID (32-byte field) of the first member in slot order with
    // this address: the slot, 0 (id cleared) when none.
    int GetMembId(const char* address, char* id);
    // The record of the member with this member ID: the slot, 0 with an
    // all-zero record when none.
    int GetMembInfo(char* name, DUP_MEMB_INFO* out);
    // The record of a slot; slot 0 (or out of range) gives an all-zero record.
    int GetMembInfo(int slot, DUP_MEMB_INFO* out);
    // Status of the member whose ID is the record's peer name; 0 when none.
    int GetMembStatus(IPC_DATA_REC* rec);
    // Every "Active" member in member-ID order into out (room for
    // kMaxMembers records): their number.
    int GetDetectMember(DUP_MEMB_INFO* out);
    // Thread ID of the member whose ID begins with "@" and whose address is
    // this one; 0 when none.
    int GetThreadID(char* address);

    // ---- queues ----
    // Appends a copy to the send queue and wakes the transport through
    // sendWakeDescriptor(): 1.
    int setSdData(IPC_DATA_REC* rec);
    // The oldest send record: 1, or 0 when the queue is empty.
    int getSdData(IPC_DATA_REC* rec);
    int setRvData(DG2MessageType* msg, IPC_DST_MODE mode, int value, char* name, int threadId);
    // Takes the oldest received record when it is addressed to threadId: 1.
    // 0 at once when the queue is empty; while the oldest record is another
    // thread's, waits up to kRvAttempts * kRvPauseMs for it to go (woken as
    // soon as the head changes), then 0 with the queue unchanged. Only the
    // oldest record is ever taken: a record for another thread holds up the
    // queue until its owner takes it.
    int getRvData(IPC_DATA_REC* rec, int threadId);
    // An eventfd (close-on-exec, non-blocking) that setSdData makes
    // readable. The transport waits on it in poll() and reads it empty
    // before it drains the send queue, so no queued record is missed.
    // -1 when it could not be made (logged; the transport then looks at
    // the queue once a second).
    int sendWakeDescriptor() const { return mSendWake; }

    // ---- reply timers ----
    // The next id of the rotating pool (network time-out ids 30..265).
    int GetTimerID();
    // Stores id in the entry (and, when the entry has no handle, as its
    // handle), then inserts or replaces the entry under id.
    int SetTimerInfo(int id, IPC_DATA_RET* ret);
    // A copy of the entry under id; *found = 1 when one with that stored id
    // exists, else 0 and an all-zero entry (nothing is stored).
    IPC_DATA_RET GetTimerInfo(int id, int* found);
    int EraseTimerInfo(int id);
    // Removes the first entry awaiting the record's message number from the
    // record's peer (message 230: from a peer whose name begins with "@"
    // and whose value is x) and tells the controller core to stop its timer
    // (notification 6003 with the handle), while locked: 1, or 0 when none.
    int CancelTM(IPC_DATA_REC* rec, int x);
    // The same for every entry of one peer name: the number removed.
    int CancelMembTM(const char* name);

    // Queue lengths and timer-table size (for tests and diagnostics).
    size_t sendQueued();
    size_t receiveQueued();
    size_t timersPending();

private:
    StCTrl& mCore;
    MemberFiles mFiles;
    MutexControl mMutex;
    // Waiters of getRvData: woken whenever the receive queue changes.
    std::condition_variable_any mRvChanged;

    DUP_MEMB_INFO mMembers[kSlots];
    std::map<std::string, int> mIdIndex;   // member ID -> slot (0: not a member)
    std::map<int, std::string> mSlotIndex; // slot -> member ID ("" : free)
    std::deque<IPC_DATA_REC> mSendQueue;
    std::deque<IPC_DATA_REC> mReceiveQueue;
    std::map<int32_t, IPC_DATA_RET> mTimers;
    std::deque<int32_t> mFreeTimerIds;
    int mSendWake = -1;                    // eventfd written by setSdData

    class Locked;
    struct SlotLock;

    int slotOf(const char* id);
    int findSlot(const std::string& id) const;
    void clearTable();
    int writeStatusFile();
    int saveMembers();
    void notifyTimerStop(const IPC_DATA_RET& ret);
};
