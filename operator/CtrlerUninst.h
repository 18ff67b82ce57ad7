// CtrlerUninst: the member's uninstall exchange. When a controller is taken
// off a member's list, the member tells that controller to forget it: on a
// UDP socket of its own, bound to the member's address and port, it offers
// each controller message 129 and then message 130 (the member's address
// and port), repeats each step a fixed number of times, and reports per
// controller whether the removal was confirmed. The call blocks its caller
// for the whole exchange (at most four passes of about 2.4 s).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "ipc/DG2Message.h"

class UdpSocket;

class CtrlerUninst {
public:
    static constexpr int kMaxControllers = 4;
    static constexpr int kMaxRequests = 4;   // of each of 129 and 130, per controller
    static constexpr int kPolls = 12;        // receive polls per pass ...
    static constexpr int kPollPauseMs = 200; // ... this far apart
    static constexpr int kRecvTries = 10;    // RecvGO: receive attempts in a row

    // The operating system, replaceable in tests: the socket maker (empty:
    // SystemUdpSocket) and the pause between receive polls (empty: a real
    // sleep of that many milliseconds).
    struct Seams {
        std::function<std::unique_ptr<UdpSocket>()> makeSocket;
        std::function<void(int ms)> pause;
    };

    CtrlerUninst();
    explicit CtrlerUninst(Seams seams);
    ~CtrlerUninst();

    CtrlerUninst(const CtrlerUninst&) = delete;
    CtrlerUninst& operator=(const CtrlerUninst&) = delete;

    // Runs the exchange with controllers 0 .. count-1. ctrlAddrs: 4 x 32
    // bytes of dotted addresses; ctrlPorts: 4 ports; ownAddr/ownPort: this
    // member's. results[i] = 0: controller i confirmed; 1: it did not.
    // Returns 1 (every result 1) when the socket cannot be set up, else 0.
    int Uninst_func(unsigned char count, char* ctrlAddrs, unsigned short* ctrlPorts, char* ownAddr,
                    unsigned short ownPort, unsigned char* results);

    // UDP socket bound to the own address and port, non-blocking: 0, or 1.
    int InitSocket();
    // Builds message msg (129 or 130) with the body and sends it to the
    // slot's controller: what the socket's send reports (0 sent, -1 not).
    int SendGO(unsigned char msg, unsigned char* body, unsigned short len, unsigned char slot);
    // Up to kRecvTries receive attempts in a row: 0 when a non-empty
    // datagram arrived (converted to host order), else 1.
    int RecvGO(DG2MessageType* buf);
    // The exchange itself (always 0).
    int UninstCtrlerAct(unsigned char count, unsigned char* results);

private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};
