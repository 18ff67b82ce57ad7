// CuiIFTh: the console interface thread (number 6). Serves the local
// console tool over TCP, one connection at a time: presence checks and
// changes of configuration keys, which are stored, saved, answered and
// handed to the controller core when they must act at once.
#pragma once

#include <atomic>
#include <cstdint>
#include <netinet/in.h>
#include <string>

#include "core/tthread.h"

class FileMap;
class StCTrl;

// Request and answer record of the console port (native byte order: the
// console tool runs on the same machine).
struct CUIMSGINFO {
    int32_t command;
    char key[128];
    char value[128];
};
static_assert(sizeof(CUIMSGINFO) == 260, "the console record is 260 bytes");

class CuiIFTh : public tthread {
public:
    enum {
        CmdPresence = 1,  // answered with CmdAnswer
        CmdSetConf = 10,  // store key = value, save, answer with CmdAnswer
        CmdAnswer = 128,
    };

    // ctrl: the controller core that receives the change notifications.
    // config: the address of the configuration map pointer that start-up
    // fills (the map whose keys the console reads and changes).
    CuiIFTh(int number, StCTrl* ctrl, FileMap** config);
    ~CuiIFTh() override;

    // Creates the listening socket on the port "CuiPort" (30 bind attempts
    // one second apart, backlog 1). Returns 1 whether or not the bind
    // succeeded.
    int InitSock();
    // Serves the current connection until it ends.
    int Attend();
    // Tells the controller core about a key whose change acts at once
    // ("AccessCode1", "ShutdownDelay1", "DumpLogRate").
    void SetConfNotify(std::string key);

    // The address the console port is bound to (any local address unless
    // set, in dotted form, before the thread starts).
    void setListenAddress(const char* dotted);
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
    in_addr_t mListenAddr; // network byte order
};
