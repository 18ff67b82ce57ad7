// IpcIFTh: the UDP transport thread (number 13) of the coordination network.
// It alone owns the sockets: it receives datagrams, checks them and hands
// each accepted one to the protocol thread that owns it (the member table's
// receive queue, then notification 6000), and it sends what the protocol
// threads put on the member table's send queue, to one peer or to every
// active member. It waits in poll() on the sockets, the send queue's wake-up
// descriptor and its own stop descriptor: a controller sleeps until there is
// work, a member also wakes once a second for its silence tick.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <deque>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>

#include "core/tthread.h"
#include "ipc/IpcDataRecords.h"
#include "ipc/UdpSocket.h"

class Clock;
class FileMap;
class IpcData;
class StCTrl;

class IpcIFTh : public tthread {
public:
    // What the transport reads, handed over by the composition root as the
    // addresses of the global pointers: they are read only once the thread
    // runs, never in the constructor.
    struct Wiring {
        StCTrl* core = nullptr;          // notifications 6000, 6002, 9000
        IpcData** table = nullptr;       // the member table
        FileMap** config = nullptr;      // "Kestrava.ini"
        FileMap** controllers = nullptr; // "Membercnt.cfg" (member role); may point to null
        std::function<std::unique_ptr<UdpSocket>()> makeSocket;     // empty: SystemUdpSocket
        std::function<int(char (*)[32], char (*)[32])> interfaces; // empty: GetNowIPAddr_And_BroadCastAddr
        Clock* clock = nullptr;          // null: Clock::system()
    };

    static constexpr int kBindAttempts = 60;          // main socket, 1 s apart
    static constexpr int kBroadcastBindAttempts = 10; // broadcast socket, 1 s apart
    static constexpr int kSilenceLimit = 120;         // seconds without a registration request
    static constexpr int kClockJump = 5;              // a larger step between passes is a clock jump
    static constexpr int kMemberWaitMs = 1000;        // poll bound on a member (silence tick)
    static constexpr int kLogInterval = 60;           // at most one drop line per this many seconds
    static constexpr size_t kRememberedPeers = 64;    // source names whose UDP sender is kept
    static constexpr int kMaxInterfaces = 64;

    IpcIFTh(int number, const Wiring& wiring);
    ~IpcIFTh() override;

    IpcIFTh(const IpcIFTh&) = delete;
    IpcIFTh& operator=(const IpcIFTh&) = delete;

    // Ends the loop (stop) and closes both sockets once the thread has left
    // it; harmless twice and before the thread ever ran.
    void end();
    // Makes thread_main leave its loop (or its bind retries) soon and return.
    void stop();
    // Bind attempts of the main and the broadcast socket and the pause
    // between attempts (tests shorten the minute of retries).
    void setBindRetry(int count, int broadcastCount, std::chrono::milliseconds pause);

    // Reads the role and the port; on a member starts the silence tick.
    void SockConf();
    // SockConf, then opens and binds the sockets. False when the main socket
    // cannot be opened (a fatal stop with status 1 was requested) or a stop
    // came during the bind retries.
    bool InitSock();
    // One pass of the loop without waiting: receive one datagram, deliver
    // it, drain the send queue, and on a member the silence tick.
    void RunPass();
    // Sends the current record to one peer (null: the stored fixed target).
    // The number of datagrams handed to the socket.
    int SendData(DUP_MEMB_INFO* member, bool closing);
    // Sends the current record to every active member.
    int SendDataAll();
    // Member: the slot thread (8 to 11) of the controller that sent from
    // `address` (its "@CTRL<n>" record); for a controller configured by
    // identity whose address is not known yet, the slot whose identity form
    // (" ID") equals `name` (a fixed 32-byte field). 0 when none: a datagram
    // is taken only from a controller this member follows.
    int GetCtrlNo(const char* address, const char* name);
    // Pause between the copies of a close send, in microseconds.
    long GetCloseSendInterval();
    // Member: the silence tick of one pass (notification 9000 after 120
    // seconds without a registration request; clock jumps do not count).
    void SilenceTick();

    bool isMember() const { return mMember; }
    // The port the main socket is bound to, 0 before (or unbound).
    uint16_t mainPort() const { return mMainPort.load(); }
    bool broadcastOpen() const;
    // True while thread_main is between its start and its return.
    bool running();
    // The process-wide closed flag: set by the close send, never cleared.
    static bool closed() { return sClosed.load(); }
    static void resetClosedForTests() { sClosed.store(false); }

protected:
    void thread_main() override;

private:
    // A log line at most once a minute, with the number of cases since.
    struct RateLog {
        long count = 0;
        bool logged = false;
        time_t last = 0;
        void note(time_t now, const std::string& what, const char* verb);
    };
    struct Peer {
        std::string name;
        std::string address;
        uint16_t port;
    };

    bool wired() const;
    IpcData* table() const;
    std::string conf(const char* key) const;
    time_t now() const;
    void notify(int code, std::initializer_list<int> params);
    bool pauseOrStop(std::chrono::milliseconds pause);
    bool bindWithRetry(UdpSocket& socket, const std::string& address, int attempts, const char* what);
    void openBroadcastSocket(const std::string& address);
    void closeSockets();

    bool receiveOne();
    void deliver(const UdpDatagramInfo& info);
    void drainSendQueue();
    int ownerOf(const std::string& target, const std::string& dstName);
    void armTimeOut(const std::string& target, const std::string& dstName);
    int transmit(const std::string& target, int port, bool replaceAt);
    void remember(const std::string& name, const UdpDatagramInfo& info);
    // The recent sender a reply to a non-member goes to: the one whose
    // datagram carried this source name, else the one that sent from this
    // address (and, when port > 0, this port). Null when none.
    const Peer* remembered(const std::string& name, int port) const;

    Wiring mW;
    Clock* mClock;

    std::unique_ptr<UdpSocket> mMain;
    std::unique_ptr<UdpSocket> mBroadcast;
    std::atomic<uint16_t> mMainPort{0};
    bool mMember = false;
    int mPort = 0;
    int mBindAttempts = kBindAttempts;
    int mBroadcastBindAttempts = kBroadcastBindAttempts;
    std::chrono::milliseconds mBindPause{1000};

    unsigned long mPassCount = 0;
    DG2MessageType mRx;               // receive buffer
    IPC_DATA_REC mRec;                // the record taken from the send queue last
    std::string mTargetAddress;       // fixed target: a reply to a peer that is no member
    int mTargetPort = 0;
    std::deque<Peer> mPeers;          // last senders by source name, oldest first

    time_t mPrevTime = 0;             // member: previous pass
    time_t mRefTime = 0;              // member: last registration request (jump-corrected)

    RateLog mDropLog;
    RateLog mSendLog;

    std::mutex mStateMutex;
    std::condition_variable mStateChanged;
    bool mStopping = false;
    bool mRunning = false;
    int mStopFd = -1;

    static std::atomic<bool> sClosed;
};
