// CuiIFTh: the console interface thread (number 6). Serves the local
// console tool over TCP, one connection at a time: presence checks, the
// read-only status report, and changes of configuration keys, which are
// stored, saved, answered and handed to the controller core when they must
// act at once.
#pragma once

#include <atomic>
#include <cstdint>
#include <netinet/in.h>
#include <string>

#include "core/tthread.h"
#include "operator/ConsoleRequest.h"
#include "operator/StatusReport.h"

class FileMap;
class IpcData;
class StCTrl;
class UpsDataBlock;

class CuiIFTh : public tthread {
public:
    enum {
        CmdPresence = 1,  // answered with CmdAnswer
        CmdSetConf = 10,  // store key = value, save, answer with CmdAnswer
        CmdStatus = ConsoleRequest::CmdStatus, // answered with status items, then CmdAnswer
        CmdAnswer = 128,
        CmdRefused = ConsoleRequest::CmdRefused, // the request was refused; nothing stored
    };
    // A connection that sends nothing for this long is closed.
    static const int kIdleTimeoutMs = 60 * 1000;

    // ctrl: the controller core that receives the change notifications.
    // config: the address of the configuration map pointer that start-up
    // fills (the map whose keys the console reads and changes). ups and
    // members: the addresses of the UPS data and member table pointers that
    // the status report reads (null: not shown).
    CuiIFTh(int number, StCTrl* ctrl, FileMap** config, UpsDataBlock** ups = nullptr, IpcData** members = nullptr);
    ~CuiIFTh() override;

    // Creates the listening socket on the address "CuiAddress" (127.0.0.1
    // when missing, empty or invalid; "*" for every address) and the port
    // "CuiPort" (30 bind attempts one second apart, backlog 1). Returns 1;
    // when the bind failed the listening socket stays -1.
    int InitSock();
    // Serves the current connection until it ends, is idle for the idle
    // time-out, or sends a record that is not whole.
    int Attend();
    // Tells the controller core about a key whose change acts at once
    // ("AccessCode1", "ShutdownDelay1", "DumpLogRate").
    void SetConfNotify(std::string key);

    // The value of "CuiAddress" as a bind address (network byte order):
    // false for an invalid text, which leaves *addr unchanged.
    static bool parseListenAddress(const std::string& text, in_addr_t* addr);
    // Replaces the idle time-out (before the thread starts; for tests).
    void setIdleTimeout(int ms) { mIdleTimeoutMs = ms; }
    // The listening socket (-1 until InitSock made it).
    int listenSocket() const { return mListenSock.load(); }
    // Ends the thread: the listening and connection sockets are shut down
    // and the thread returns instead of ending the process. For tests.
    void requestStop();

protected:
    void thread_main() override;

private:
    FileMap* config() const { return mConfig ? *mConfig : nullptr; }

    StCTrl* mCtrl;
    FileMap** mConfig;
    std::atomic<int> mListenSock;
    std::atomic<int> mConnSock;
    std::atomic<bool> mStop;
    in_addr_t mListenAddr; // network byte order; set by InitSock from "CuiAddress"
    int mIdleTimeoutMs = kIdleTimeoutMs;
    StatusReport::Sources mStatus;

    // Sends the whole buffer within the idle time-out; false when the peer
    // does not take it in time or the connection failed.
    bool sendAll(int conn, const void* data, size_t size);

    // A line for the system log and standard error: refused requests, idle
    // connections, an invalid address, a port that cannot be bound.
    void report(const std::string& line);
};
