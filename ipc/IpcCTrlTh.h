// IpcCTrlTh: the protocol base of the two coordination threads (controller
// side and member side). It fills outgoing datagram headers, queues
// requests and replies on the member table's send queue with the timer
// block that makes a request repeat when no answer comes, arms reply
// time-outs and the per-member communication-error timer through the
// controller core, and runs the shared part of a reply time-out (give up
// or repeat). The sides supply how a message is sent again and what giving
// up does.
#pragma once

#include <string>

#include "core/tthread.h"
#include "ipc/DG2Message.h"
#include "ipc/IpcDataRecords.h"

class IpcData;
class StCTrl;
struct EVENTMSGINFO;

class IpcCTrlTh : public tthread {
public:
    enum class Role { Controller, Member };

    // Attempt counters wrap to 0 above this value.
    static constexpr int kAttemptWrap = 100000;
    // Time of the communication-error timer re-armed after each exchange.
    static constexpr int kCommErrTime = 90;

    // number: thread number (also the owner of the timers it arms); table:
    // where the member table's pointer lives (read at each use: the table is
    // made only once the configuration is loaded); core: the controller
    // core; ownName: this host's own name text (source name of requests,
    // SetOwnName changes it); role: which side this thread is.
    IpcCTrlTh(int number, IpcData** table, StCTrl& core, std::string ownName, Role role);
    ~IpcCTrlTh() override;

    IpcCTrlTh(const IpcCTrlTh&) = delete;
    IpcCTrlTh& operator=(const IpcCTrlTh&) = delete;

    // True unless the configured controller address text begins with "*"
    // (a controller reached by identity).
    bool InstallTypeIsIP() const;

    // Queues a new request; the body must already be in the outgoing image
    // (OutBody()). Returns the member table's answer (1 queued).
    int SendData(unsigned char msg, unsigned short bodyLength, int timeOut, int limit, IPC_DST_MODE mode, int extra);
    // Queues a reply to the datagram being handled; awaited -1: no wait.
    int SendReply(unsigned char msg, unsigned short bodyLength, unsigned char result, int awaited, int timeOut,
                  int extra);
    // Queues the saved request again from the working timer block.
    int SendRetry();
    // Arms a time-out for message `awaited` without sending: the new timer id.
    int SetTimeOut(int awaited, int timeOut);

    // Start of the thread, and one pass of its event loop (the sides).
    virtual void Start() = 0;
    virtual void HandleEvent(const EVENTMSGINFO& ev) = 0;

    // Communication-error timer of the current peer (by member number).
    int SetCommunicationErrorTimer_First(int time);
    int SetCommunicationErrorTimer();
    int CancelCommunicationErrorTimer();
    // Stops and starts it again with the fixed time (a running timer keeps
    // its expiry when only started again).
    void rearmCommErrTimer();
    // Timer id the communication-error timer of a member slot runs under
    // (the further network time-out ids), so the owner can map an expiry
    // back to its member; 0 for a slot out of range.
    static int CommErrTimerId(int slot);

    // ---- working state ----
    // Takes a received datagram as the one being handled: its source name
    // becomes the peer name, its destination name the name this host was
    // addressed under.
    void SetHandled(const DG2MessageType& msg);
    // Takes a member record as the current member; its member ID becomes the
    // peer name. byIdentity: the member registered by identity (requests go
    // to the destination text).
    void SetMember(const DUP_MEMB_INFO& rec, bool byIdentity);
    void SetDestinationText(const std::string& text) { mDstText = text; }
    void SetOwnName(const std::string& name) { mOwnName = name; }
    const std::string& OwnName() const { return mOwnName; }
    void SetControllerAddress(const std::string& text) { mCtrlAddr = text; }
    unsigned char* OutBody() { return mOut.msg.body; }
    const DUP_MEMB_INFO& Member() const { return mMemb; }
    const IPC_DATA_RET& WorkingBlock() const { return mRet; }

protected:
    // The thread: Start(), then every event through HandleEvent. A thread
    // whose wiring is missing (unwired() says why) only takes its events off
    // the queue, so they never hold up the others.
    void thread_main() override;
    virtual std::string unwired() const = 0;

    // The shared part of a reply time-out: fetches the timer block (none:
    // nothing, 0), loads the peer's member record, erases the timer, then
    // gives up (GiveUp, returns 2) when the counter reached a limit other
    // than -1, or else counts one attempt and calls Resend (returns 1).
    int HandleTimeOut(int timerId);
    // Sends message msg again in repetition mode; ends in SendRetry.
    virtual int Resend(unsigned char msg) = 0;
    // What giving up on message msg does to the current member.
    virtual void GiveUp(unsigned char msg);

    bool IsController() const { return mRole == Role::Controller; }
    // Slot of the current peer in the member table (0: not a member).
    int PeerSlot();

    // The member table (the one the wiring points at now).
    IpcData& table() const { return **mTable; }

    IpcData** mTable;
    StCTrl& mCore;
    std::string mOwnName;
    const Role mRole;

    DG2MessageType mMsg;                 // datagram being handled
    char mPeerName[DG2::kNameSize];      // peer, as the datagram named it
    char mAddressedAs[DG2::kNameSize];   // name the peer addressed this host under
    DUP_MEMB_INFO mMemb;                 // current member
    bool mMembByIdentity;
    IPC_DATA_RET mRet;                   // working timer block
    IPC_DATA_REC mOut;                   // outgoing record
    std::string mDstText;                // destination of a peer known by identity
    std::string mCtrlAddr;               // configured controller address (member side)

private:
    void fillHeader(unsigned char msg, unsigned char result, const char* dst, const char* src, uint16_t srcKind,
                    uint16_t dstKind, unsigned short bodyLength);
    const char* requestDestination() const;
    void fillTimerBlock(unsigned char msg, unsigned short bodyLength, int awaited, int timeOut, int limit);
    int postTimer(int code, int id, int time);
    int queue(IPC_DST_MODE mode, int extra);
};
