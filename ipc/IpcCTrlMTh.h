// IpcCTrlMTh: a member-side coordination protocol thread (numbers 8 to 11),
// one per followed controller (slot k = number - 8, configuration index
// k + 1). It registers with its controller (35), answers the exchange the
// controller drives (0, 181, 140, 141, checked step by step), re-registers
// about every 30 s (health check) and whenever the controller went silent,
// keeps the slot's copy of the controller's UPS data, and turns each power
// report into notification 6006, so that the slot's own wink, countdown,
// application end and shutdown run on this host. Silence alone never shuts
// the host down. Controllers given by host name are resolved through
// GetHostNameTh; their addresses are tried one after the other.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "ipc/DG2Bodies.h"
#include "ipc/IpcCTrlTh.h"

class Clock;
class FileMap;
class IpcData;
class StCTrl;
class UpsDataBlock;
struct EVENTMSGINFO;

class IpcCTrlMTh : public IpcCTrlTh {
public:
    // What the thread reads, handed over by the composition root: the
    // addresses of the pointers start-up fills.
    struct Wiring {
        IpcData** table = nullptr;      // the member table (holds this slot's controller record)
        FileMap** config = nullptr;     // "Kestrava.ini"
        FileMap** members = nullptr;    // "Membercnt.cfg"
        UpsDataBlock** ups = nullptr;   // the slot's copy of the controller's UPS data
        Clock* clock = nullptr;         // null: Clock::system() (log pacing)
        // Asks for the resolution of this slot's host name (the argument is
        // the slot index). Empty: notification 6015 to the core, which makes
        // it event 900 for GetHostNameTh. The answer comes in StoreResolved.
        std::function<void(int)> resolve;
    };

    static constexpr int kMaxResolved = 256;
    static constexpr int kAddrText = 32;
    // Time-outs (seconds) and limits of the member's side.
    static constexpr int kRegisterTimeOut = 30;   // 35, one transmission, then given up
    static constexpr int kRetryTimeOut = 5;       // 35 again after a re-registration was not answered
    static constexpr int kAwaitSettings = 30;     // 0 after the reply 35 (full exchange)
    static constexpr int kAwaitReport = 10;       // 141 after the reply 35 (short exchange) or 140
    static constexpr int kAwaitNext = 30;         // 181 after 0 or 141, 140 after 181
    static constexpr int kHealthTime = 30;        // re-registration after a complete exchange
    static constexpr int kFirstCommErrKnown = 30; // first communication-error timer, registered before
    static constexpr int kFirstCommErrNew = 60;   // ... never registered ("MemberEntry%d" "0")
    static constexpr int kResolveWaitSec = 120;   // longest wait for a resolution, then taken as failed
    static constexpr int kDropReportInterval = 60;

    // The unwired thread: only takes its events off the queue.
    explicit IpcCTrlMTh(int number);
    IpcCTrlMTh(int number, StCTrl* core, const Wiring& wiring);
    ~IpcCTrlMTh() override;

    // Start of the thread: the slot's keys read, the controller record
    // entered ("@CTRL<n>"), the first communication-error timer, message 35.
    void Start() override;
    // One pass of the event loop: 600, 601, 603, 604, 802, 803.
    void HandleEvent(const EVENTMSGINFO& ev) override;

    // ---- requests ----
    // Registration by sequence state: 0/1 a new registration (state 1),
    // 2/3 a re-registration (state 3); repeat: the saved request again.
    int SDM_35(bool repeat);
    int SendAppEnd(int value1, int value2); // 127 (shutdown started, slot), close send, no time-out
    int FuncSd_35();
    int FuncSd_230();

    // ---- received datagrams ----
    void MsgReply();
    int MsgTimeOut(int timerId);
    bool ChkSqFlow();
    void TOM_35();
    void RVM_0(bool unsolicited);
    void RVM_29();
    void RVM_30();
    void RVM_31();
    void RVM_35();
    void RVM_81();
    void RVM_127();
    void RVM_140(bool unsolicited);
    void RVM_141(bool unsolicited);
    void RVM_181(bool unsolicited);
    void RVM_230();
    bool Func_0();
    bool Func_35();
    bool Func_81();
    bool FuncRv_127();
    bool Func_141();
    bool Func_181();
    bool FuncRv_230();
    int SetHealthChkTimer();

    // ---- queries ----
    // 2: controller given by host name (or a text beginning with "@"),
    // 1: by identity ("*ID"), 0: by dotted address.
    int GetDisplayType() const;
    std::string GeDisplayHostName();
    const std::string& GetSettingHostName() const { return mSettingHost; }
    bool ControllerIsHost() const { return GetDisplayType() == 2; }
    bool ControllerIsIP() const { return GetDisplayType() == 0; }
    int Slot() const { return mSlotIndex; }
    const std::string& ControllerText() const { return mCtrlText; }
    // The controller record as this thread last read it.
    const DUP_MEMB_INFO& Controller() const { return Member(); }
    // Last link code reported (4 lost, 5 established; -1 none yet).
    int LastCommCode() const { return mLastCommCode; }

    // ---- host-name resolution (filled by GetHostNameTh) ----
    void StoreResolved(const std::vector<std::string>& addresses);
    bool ResolvedReady() const { return mResolvedReady.load(std::memory_order_acquire); }
    int ResolvedCount() const { return mResolvedCount; }
    const char* ResolvedAddress(int i) const;

protected:
    std::string unwired() const override;
    int Resend(unsigned char msg) override;
    void GiveUp(unsigned char msg) override;

private:
    enum class Kind { Address, Identity, HostName };

    std::string conf(const std::string& key);
    std::string memberConf(const std::string& key);
    std::string key(const char* name) const; // name + slot index (1..4)
    bool setConfIfChanged(const std::string& key, const std::string& value);
    Clock& clock();
    UpsDataBlock* ups();
    void refresh();
    void setSq(SQ_STAT sq, int step);
    void setStatus(MEMB_STAT status);
    void memberLog(int code, int value = 0);
    void notify(int code, std::initializer_list<int> params);
    void reportLink(int code);
    void exchangeComplete();
    bool prepareHostAddress(bool fresh);
    bool waitResolved();
    int sendRegistration(int timeOut, int limit);
    void replyBody(unsigned char msg, int bodySize, int awaited, int timeOut);
    void dropped(const std::string& why);

    StCTrl* mCoreRef;
    Wiring mWiring;
    IpcData* mNoTable;
    bool mWired;
    int mSlotIndex;             // k
    std::string mRecordId;      // "@CTRL<n>"
    std::string mCtrlText;      // controller as configured (address, host name or "*ID")
    std::string mSettingHost;   // the configured host name (host-name controllers)
    std::string mIdentity;      // " ID" for a controller by identity
    Kind mKind;
    int mCtrlPort;
    char mSender[DG2::kNameSize + 1]; // UDP sender address of the datagram handled

    int mLastCommCode;          // 4 or 5, -1 none yet
    bool mHostFailReported;     // 292 reported since the last successful resolution
    bool mHostRetried;          // a re-registration to a host-name controller was repeated once
    bool mReRegister;           // re-registration pending: register anew, 230 accepted
    bool mTimingKeptLogged;
    bool mCommandRefusedLogged;
    int mAlertMode;             // message-file mode last passed on (-1 none)
    uint8_t mPrevRestarted;     // bytes 1316 and 1317 of the last power report
    uint8_t mPrevUpsCommLost;
    int mTryIndex;              // resolved address tried now (-1: none)
    long mLastDropReport;
    int mDropped;

    // Resolution hand-over with GetHostNameTh: table and count written
    // before the flag (release), read after it (acquire).
    char mResolved[kMaxResolved][kAddrText];
    int mResolvedCount;
    std::atomic<bool> mResolvedReady;
    std::mutex mResolveMutex;
    std::condition_variable mResolveCv;
};
