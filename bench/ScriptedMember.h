// ScriptedMember: a shutdown member played by the idle-cost benchmark over UDP on the
// loopback, speaking the daemon's own datagram definitions. It sends
// registrations and raw bytes to a controller, receives what a member would
// accept, and answers requests as a member does (same number, result 0, body
// echoed; its own host name in the settings). Every receive has a deadline.
#pragma once

#include <chrono>
#include <cstring>
#include <poll.h>
#include <string>
#include <vector>

#include "ipc/DG2Bodies.h"
#include "ipc/DG2Message.h"
#include "ipc/SystemUdpSocket.h"
#include "tests/fakes/DG2Builder.h"

class ScriptedMember {
public:
    // Sends from `address` (127.0.0.x) under source name `name` to the controller.
    ScriptedMember(const std::string& address, const std::string& name, const std::string& ctrlAddress,
                   uint16_t ctrlPort)
        : mAddress(address), mName(name), mCtrlAddress(ctrlAddress), mCtrlPort(ctrlPort)
    {
        mOk = mSocket.open() == UdpStatus::Ok && mSocket.bind(address, 0) == UdpStatus::Ok;
    }

    bool ok() const { return mOk; }
    uint16_t port() const { return mSocket.localPort(); }
    void setName(const std::string& name) { mName = name; }
    // Destination name of its datagrams (default: the controller's address).
    void setControllerName(const std::string& name) { mCtrlName = name; }

    // A registration request: member ID in the body (empty on a first one).
    DG2MessageType registration(const std::string& memberId = "") const
    {
        const DG2Address a{memberId, mAddress, port()};
        return builder(DG2::MsgRegister)
            .pack([&](DG2MessageType* m) { return DG2PackAddress(m, DG2::MsgRegister, a); })
            .msg();
    }
    // A request with an empty body of the message's size.
    DG2MessageType request(uint8_t msgNo) const { return builder(msgNo).msg(); }
    // The member's answer to a controller's request.
    DG2MessageType replyTo(const DG2MessageType& req) const
    {
        DG2Builder b(req);
        b.result(DG2::kResultOk).from(mName.c_str(), DG2::KindMember).to(controllerName().c_str(),
                                                                          DG2::KindController);
        DG2Settings s;
        if (req.msgNo == DG2::MsgSettings && DG2UnpackSettings(req, &s)) {
            s.hostName = mName + "-host";
            b.pack([&](DG2MessageType* m) { return DG2PackSettings(m, s); });
        }
        return b.msg();
    }

    bool send(const DG2MessageType& m) { return sendRaw(DG2Builder(m).wire()); }
    bool sendRaw(const std::string& bytes)
    {
        return mSocket.send(bytes.data(), bytes.size(), mCtrlAddress, mCtrlPort) == UdpStatus::Ok;
    }

    // The next datagram a member would accept, within `seconds`; false when none came.
    bool receive(DG2MessageType* out, double seconds)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                end - std::chrono::steady_clock::now()).count();
            if (left <= 0)
                return false;
            pollfd p = {mSocket.descriptor(), POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left)) <= 0)
                continue;
            DG2MessageType m;
            memset(&m, 0, sizeof m);
            UdpDatagramInfo info;
            if (mSocket.receive(&m, sizeof m, info) == UdpStatus::Ok &&
                DG2CheckReceived(&m, info.size, DG2Role::Member) == DG2Drop::DG2Accepted) {
                *out = m;
                return true;
            }
        }
    }

    // Hands everything received within `seconds` to fn until it returns false.
    template <class Fn>
    void each(double seconds, Fn fn)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        DG2MessageType m;
        for (;;) {
            const double left = std::chrono::duration<double>(end - std::chrono::steady_clock::now()).count();
            if (left <= 0 || !receive(&m, left) || !fn(m))
                return;
        }
    }

    // Answers every request until message `last` was received, or for
    // `seconds`; the numbers received, in order.
    std::vector<int> answerUntil(int last, double seconds)
    {
        std::vector<int> seen;
        each(seconds, [&](const DG2MessageType& m) {
            seen.push_back(m.msgNo);
            if (m.result == DG2::kResultRequest)
                send(replyTo(m));
            return m.msgNo != last;
        });
        return seen;
    }

    // Everything received within `seconds`, unanswered.
    std::vector<DG2MessageType> collect(double seconds)
    {
        std::vector<DG2MessageType> all;
        each(seconds, [&](const DG2MessageType& m) { return all.push_back(m), true; });
        return all;
    }

private:
    std::string controllerName() const { return mCtrlName.empty() ? mCtrlAddress : mCtrlName; }
    DG2Builder builder(uint8_t msgNo) const
    {
        return DG2Builder(msgNo).from(mName.c_str(), DG2::KindMember).to(controllerName().c_str(),
                                                                          DG2::KindController);
    }

    SystemUdpSocket mSocket;
    bool mOk = false;
    std::string mAddress, mName, mCtrlAddress, mCtrlName;
    uint16_t mCtrlPort;
};
