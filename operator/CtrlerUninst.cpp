#include "operator/CtrlerUninst.h"

#include <cstring>
#include <poll.h>
#include <string>

#include "core/ErrorLog.h"
#include "ipc/DG2Bodies.h"
#include "ipc/SystemUdpSocket.h"
#include "ipc/UdpSocket.h"

namespace {

constexpr int kAddrSize = DG2::kNameSize;

std::string fieldText(const char* field, size_t size) { return std::string(field, strnlen(field, size)); }

} // namespace

struct CtrlerUninst::Impl {
    Seams seams;
    std::unique_ptr<UdpSocket> socket;
    char ownAddr[kAddrSize] = {};
    char ctrlAddrs[kMaxControllers][kAddrSize] = {};
    uint16_t ownPort = 0;
    uint16_t ctrlPorts[kMaxControllers] = {};

    // Progress of one run, per controller.
    unsigned char answered[kMaxControllers] = {}; // its reply to 129 came
    unsigned char confirmed[kMaxControllers] = {};
    unsigned char refused[kMaxControllers] = {};  // it answered 129 with result 255
    unsigned char sent129[kMaxControllers] = {};
    unsigned char sent130[kMaxControllers] = {};

    // Where the datagram RecvGO took last came from.
    std::string lastAddress;
    uint16_t lastPort = 0;

    void clearProgress()
    {
        std::memset(answered, 0, sizeof answered);
        std::memset(confirmed, 0, sizeof confirmed);
        std::memset(refused, 0, sizeof refused);
        std::memset(sent129, 0, sizeof sent129);
        std::memset(sent130, 0, sizeof sent130);
    }

    bool finished(int i) const
    {
        return confirmed[i] || refused[i] || (sent129[i] >= 1 && sent129[i] <= 3 && sent130[i] == kMaxRequests) ||
               (sent129[i] == kMaxRequests && (sent130[i] == 0 || sent130[i] == kMaxRequests));
    }

    // The controller a reply belongs to, among those `candidate` accepts:
    // the one whose address text is the reply's source name (when several
    // share that text, the one the reply came from, else the first); when
    // none carries that name, the one at the UDP address and port the reply
    // came from. A controller may name itself otherwise than by the address
    // the member knows it under ("*" or another interface). -1: none.
    template <class Candidate>
    int match(const DG2MessageType& reply, int count, Candidate candidate) const
    {
        const std::string source = fieldText(reply.srcName, sizeof reply.srcName);
        int byName = -1;
        for (int i = 0; i < count; ++i) {
            if (!candidate(i) || fieldText(ctrlAddrs[i], kAddrSize) != source)
                continue;
            if (byName < 0)
                byName = i;
            if (isSender(i))
                return i;
        }
        if (byName >= 0)
            return byName;
        for (int i = 0; i < count; ++i)
            if (candidate(i) && isSender(i))
                return i;
        return -1;
    }

    bool isSender(int i) const
    {
        return !lastAddress.empty() && fieldText(ctrlAddrs[i], kAddrSize) == lastAddress && ctrlPorts[i] == lastPort;
    }

    // The pause between receive polls waits on the socket, so it ends as
    // soon as a reply arrives (the next poll takes it) and never later than
    // the pause's length.
    void pause(int ms)
    {
        if (seams.pause) {
            seams.pause(ms);
            return;
        }
        // Without a socket the exchange does not run: nothing to wait for.
        const int fd = socket ? socket->descriptor() : -1;
        if (fd < 0)
            return;
        pollfd p = {fd, POLLIN, 0};
        ::poll(&p, 1, ms);
    }
};

CtrlerUninst::CtrlerUninst() : CtrlerUninst(Seams{}) {}

CtrlerUninst::CtrlerUninst(Seams seams) : mImpl(new Impl)
{
    mImpl->seams = std::move(seams);
}

CtrlerUninst::~CtrlerUninst()
{
    if (mImpl->socket)
        mImpl->socket->close();
}

int CtrlerUninst::Uninst_func(unsigned char count, char* ctrlAddrs, unsigned short* ctrlPorts, char* ownAddr,
                              unsigned short ownPort, unsigned char* results)
{
    Impl& d = *mImpl;
    if (results == nullptr)
        return 1;
    if (count > kMaxControllers)
        count = kMaxControllers;
    std::memset(d.ctrlAddrs, 0, sizeof d.ctrlAddrs);
    std::memset(d.ctrlPorts, 0, sizeof d.ctrlPorts);
    if (ctrlAddrs)
        std::memcpy(d.ctrlAddrs, ctrlAddrs, sizeof d.ctrlAddrs);
    if (ctrlPorts)
        std::memcpy(d.ctrlPorts, ctrlPorts, sizeof d.ctrlPorts);
    std::memset(d.ownAddr, 0, sizeof d.ownAddr);
    if (ownAddr)
        std::memcpy(d.ownAddr, ownAddr, strnlen(ownAddr, kAddrSize));
    d.ownPort = ownPort;
    for (int i = 0; i < count; ++i)
        results[i] = 1;

    if (InitSocket() != 0)
        return 1;
    UninstCtrlerAct(count, results);
    d.socket->close();
    return 0;
}

int CtrlerUninst::InitSocket()
{
    Impl& d = *mImpl;
    d.socket = d.seams.makeSocket ? d.seams.makeSocket() : std::unique_ptr<UdpSocket>(new SystemUdpSocket);
    const std::string own = fieldText(d.ownAddr, kAddrSize);
    // The socket opens non-blocking and close-on-exec.
    if (d.socket && d.socket->open() == UdpStatus::Ok && d.socket->bind(own, d.ownPort) == UdpStatus::Ok)
        return 0;
    ErrorLog::report("uninstall exchange: no socket on " + ErrorLog::printable(own) + " port " +
                     std::to_string(d.ownPort) + ": " +
                     std::strerror(d.socket ? d.socket->error() : 0));
    if (d.socket)
        d.socket->close();
    return 1;
}

int CtrlerUninst::SendGO(unsigned char msg, unsigned char* body, unsigned short len, unsigned char slot)
{
    Impl& d = *mImpl;
    if (slot >= kMaxControllers || len > DG2::kMaxBody || !d.socket)
        return -1;
    DG2MessageType m;
    std::memset(&m, 0, sizeof m);
    m.magic = DG2::kMagic;
    m.result = DG2::kResultRequest;
    m.msgNo = msg;
    // The names the other way round from the usual header, and no header
    // stamp: this is how a controller tells the uninstall exchange apart.
    std::memcpy(m.srcName, d.ctrlAddrs[slot], sizeof m.srcName);
    m.srcKind = DG2::KindMember;
    std::memcpy(m.dstName, d.ownAddr, sizeof m.dstName);
    m.dstKind = DG2::KindControllerAlt;
    m.bodyLen = len;
    if (len > 0 && body)
        std::memcpy(m.body, body, len);
    if (!ByteOrderChg(&m))
        return -1;
    const std::string to = fieldText(d.ctrlAddrs[slot], kAddrSize);
    return d.socket->send(&m, DG2::kHeaderSize + size_t(len), to, d.ctrlPorts[slot]) == UdpStatus::Ok ? 0 : -1;
}

int CtrlerUninst::RecvGO(DG2MessageType* buf)
{
    Impl& d = *mImpl;
    if (!d.socket || !buf)
        return 1;
    for (int i = 0; i < kRecvTries; ++i) {
        std::memset(buf, 0, sizeof *buf);
        UdpDatagramInfo info;
        if (d.socket->receive(buf, sizeof *buf, info) != UdpStatus::Ok)
            continue;
        // Only a whole header with the magic counts; a member's datagram
        // (this socket's own request come back, another member) is no reply.
        if (info.size < size_t(DG2::kHeaderSize) || buf->magic != DG2::kMagic)
            continue;
        ByteOrderChg(buf);
        if (buf->srcKind == DG2::KindMember)
            continue;
        d.lastAddress = info.address;
        d.lastPort = info.port;
        return 0;
    }
    return 1;
}

int CtrlerUninst::UninstCtrlerAct(unsigned char count, unsigned char* results)
{
    Impl& d = *mImpl;
    if (count > kMaxControllers)
        count = kMaxControllers;
    d.clearProgress();
    if (count == 0)
        return 0;

    // The 130 body: zero, this member's address, its port as decimal text.
    DG2AddressBody body;
    std::memset(&body, 0, sizeof body);
    std::memcpy(body.address, d.ownAddr, sizeof body.address);
    const std::string port = std::to_string(d.ownPort);
    std::memcpy(body.port, port.data(), port.size() < sizeof body.port ? port.size() : sizeof body.port);
    auto send130 = [&](int i) {
        SendGO(DG2::MsgUninstall, reinterpret_cast<unsigned char*>(&body), sizeof body, static_cast<unsigned char>(i));
        ++d.sent130[i];
    };
    auto all = [&](auto pred) {
        for (int i = 0; i < count; ++i)
            if (!pred(i))
                return false;
        return true;
    };
    auto settled = [&](int i) { return d.confirmed[i] || d.refused[i]; };

    for (;;) {
        if (all([&](int i) { return d.finished(i); }))
            return 0;

        for (int i = 0; i < count; ++i) {
            if (d.confirmed[i] || d.refused[i])
                continue;
            if (d.sent129[i] == kMaxRequests && d.sent130[i] == 0)
                continue; // four 129 without an answer: given up
            if (d.answered[i] || d.sent129[i] > kMaxRequests - 1) {
                if (d.sent130[i] < kMaxRequests)
                    send130(i);
            } else {
                SendGO(DG2::MsgPresence, nullptr, 0, static_cast<unsigned char>(i));
                ++d.sent129[i];
            }
        }

        for (int poll = 0; poll < kPolls; ++poll) {
            DG2MessageType reply;
            if (RecvGO(&reply) == 0) {
                bool consumed = false;
                if (!all([&](int i) { return d.answered[i] != 0; })) {
                    const int i = d.match(reply, count, [&](int k) { return !d.answered[k]; });
                    if (i >= 0 && reply.msgNo == DG2::MsgPresence) {
                        consumed = true;
                        d.answered[i] = 1;
                        if (reply.result < DG2::kResultRequest)
                            send130(i);
                        else
                            d.refused[i] = 1;
                    }
                }
                if (!consumed && !all(settled)) {
                    const int i = d.match(reply, count, [&](int k) { return !d.confirmed[k] && !d.refused[k]; });
                    if (i >= 0 && reply.msgNo == DG2::MsgUninstall) {
                        d.confirmed[i] = 1;
                        if (reply.result != DG2::kResultRequest)
                            results[i] = 0;
                    }
                }
            } else if (all(settled)) {
                return 0;
            }
            d.pause(kPollPauseMs);
        }
    }
}
