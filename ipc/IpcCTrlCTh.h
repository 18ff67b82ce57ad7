// IpcCTrlCTh: the controller-side coordination protocol thread (number 8).
// It answers the registrations of shutdown members, gives members that
// register by identity a member ID, walks each member through the exchange
// of settings, shutdown timing, access code and power report (35, 0, 181,
// 140, 141 for a new or returning member; 35, 141, 181 for one that moved),
// watches each member with its communication-error timer, answers presence
// and uninstall requests, and turns the controller core's decisions (power
// event, access code, shutdown timing, application end) into datagrams to
// all active members.
#pragma once

#include <string>

#include "ipc/DG2Bodies.h"
#include "ipc/IpcCTrlTh.h"

class Clock;
class FileMap;
class IpcData;
class StCTrl;
class UpsDataBlock;
struct EVENTMSGINFO;

class IpcCTrlCTh : public IpcCTrlTh {
public:
    // What the thread reads, handed over by the composition root: the
    // addresses of the pointers start-up fills.
    struct Wiring {
        IpcData** table = nullptr;     // the member table
        FileMap** config = nullptr;    // "Kestrava.ini"
        UpsDataBlock** ups = nullptr;  // the UPS data (message 141)
        Clock* clock = nullptr;        // null: Clock::system() (report time of 141, log pacing)
    };

    // Send table: reply time-out and repetition limits of the requests.
    static constexpr int kReplyTimeOut = 10;
    static constexpr int kLimitRepeat = 3;      // 0, 140, 181: two repetitions
    static constexpr int kLimitPowerReport = 0; // 141: never repeated
    // Dropped datagrams are reported at most once per this many seconds.
    static constexpr int kDropReportInterval = 60;
    // Member IDs of members known by identity: identity text + 4 hex digits.
    static constexpr int kIdDigits = 4;

    IpcCTrlCTh(int number, StCTrl* core, const Wiring& wiring);
    ~IpcCTrlCTh() override;

    // Start of the thread: own address ("IPAddress") as own name, identity
    // text ("SetUpID", a leading "*" made a space) as destination text, the
    // member file loaded.
    void Start() override;
    // One pass of the event loop: 600, 602, 603, 604, 800, 801, 802; other
    // events are ignored.
    void HandleEvent(const EVENTMSGINFO& ev) override;

    // ---- requests to all active members ----
    int SendPowerWong();                     // 141, time-out 10, limit 0
    int SendAccessCode();                    // 140, time-out 10, limit 3
    int SendShutdown();                      // 181, time-out 10, limit 3
    int SendAppEnd(int value1, int value2);  // 127, close send, no time-out

    // Build message N (FuncSd_N: the body size, or -1 when a value does not
    // fit, logged) and queue it: a new request with the send table's values,
    // or (repeat) the saved request again to the current member.
    int SDM_0(bool repeat, IPC_DST_MODE mode);
    int SDM_35(bool repeat, IPC_DST_MODE mode);
    int SDM_127(bool repeat, IPC_DST_MODE mode);
    int SDM_140(bool repeat, IPC_DST_MODE mode);
    int SDM_141(bool repeat, IPC_DST_MODE mode);
    int SDM_181(bool repeat, IPC_DST_MODE mode);
    int FuncSd_0();
    int FuncSd_35();
    int FuncSd_127();
    int FuncSd_140();
    int FuncSd_141();
    int FuncSd_181();

    // ---- received datagrams ----
    // Dispatch of the datagram being handled; awaited: a time-out that
    // waited for it was cancelled.
    void MsgReply(bool awaited);
    // A reply time-out ran out: repeat or give up (protocol base).
    int MsgTimeOut(int timerId);
    // Sequence check of the datagram being handled against the current
    // member's state and step; advances the step when it passes.
    bool ChkSqFlow();
    // A new member ID for a member known by identity; "MemberIDData" is
    // advanced and the configuration saved.
    std::string GetMember_ID();

    void RVM_0();
    void RVM_35();
    void RVM_127();
    void RVM_129();
    void RVM_130();
    void RVM_140();
    void RVM_141();
    void RVM_181();
    void RVM_229();
    void RVM_230();
    // Registration check: true when the member was entered (current member
    // set, sequence state 1, 2 or 3 at step 1).
    bool FuncRv_35();
    bool FuncRv_0();
    void FuncRv_127();

    const std::string& IdentityText() const { return mIdentity; }
    const std::string& OwnAddress() const { return mOwnAddress; }
    // Number of datagrams dropped since the last report line.
    int DroppedUnreported() const { return mDropped; }

protected:
    std::string unwired() const override;
    int Resend(unsigned char msg) override;
    void GiveUp(unsigned char msg) override;

private:
    // The sender of the datagram being handled, as a member: the member
    // whose ID the registration names (35), else the member whose ID is the
    // source name, else the member at the sender's address. The current
    // member is set to it (slot), or cleared (0).
    int findSender();
    // The member ID a registration names, when it is one the table knows:
    // the source name of a member by address, the body's ID of one by
    // identity; empty when none.
    std::string registrationId();
    // The member's port: the registration body's, else the port it sent from.
    int registrationPort();
    std::string idStem() const;
    bool isIdentityId(const std::string& id) const;
    void setCurrent(const DUP_MEMB_INFO& rec);
    void clearCurrent();
    void resetSequence();
    void replyEcho(unsigned char msg, unsigned short bodyLength);
    int sendRequest(unsigned char msg, int bodySize, int timeOut, int limit, bool repeat, IPC_DST_MODE mode);
    int toAll(int (IpcCTrlCTh::*sdm)(bool, IPC_DST_MODE));
    void dropped(const std::string& why);
    std::string conf(const char* key);
    Clock& clock();

    StCTrl* mCoreRef;
    Wiring mWiring;
    IpcData* mNoTable;           // what mTable points at while not wired
    bool mWired;
    std::string mOwnAddress;     // "IPAddress", 32-byte bound
    std::string mIdentity;       // "SetUpID" with a leading "*" made a space, 32-byte bound
    int mAppEnd1;                // values of the application-end message
    int mAppEnd2;
    bool mFirstReport;           // the next 141 is the first since start
    int mSlot;                   // slot of the current member (0: none)
    char mSender[DG2::kNameSize + 1]; // UDP sender address of the datagram handled
    int mSenderPort;
    char mAddressAtArrival[kMembAddrSize + 1]; // current member's stored address before this datagram
    long mLastDropReport;        // clock time of the last drop line (-1: none yet)
    int mDropped;
};
