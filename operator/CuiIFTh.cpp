#include "operator/CuiIFTh.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

#include "config/FileMap.h"
#include "control/Codes.h"
#include "core/FatalStop.h"
#include "control/Records.h"
#include "control/StCTrl.h"

CuiIFTh::CuiIFTh(int number, StCTrl* ctrl, FileMap** config, UpsDataBlock** ups, IpcData** members)
    : tthread(number), mCtrl(ctrl), mConfig(config), mListenSock(-1), mConnSock(-1), mStop(false), mListenAddr(htonl(INADDR_ANY))
{
    mStatus.ctrl = ctrl;
    mStatus.ups = ups;
    mStatus.members = members;
}

CuiIFTh::~CuiIFTh()
{
    // The listening socket is left to the process exit: closing it here,
    // while the static objects are destroyed at the end of the termination
    // handler, would make the still-running accept() fail, and a failed
    // accept ends the daemon with status 1 instead of 0.
}

bool CuiIFTh::parseListenAddress(const std::string& text, in_addr_t* addr)
{
    if (text.empty()) {
        *addr = htonl(INADDR_LOOPBACK);
        return true;
    }
    if (text == "*") {
        *addr = htonl(INADDR_ANY);
        return true;
    }
    in_addr parsed;
    if (inet_pton(AF_INET, text.c_str(), &parsed) != 1)
        return false;
    *addr = parsed.s_addr;
    return true;
}

void CuiIFTh::report(const std::string& line)
{
    // Keys and values come from whoever connected: no control characters
    // reach the log.
    std::string text = line;
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            c = '?';
    fprintf(stderr, "kestrava: console: %s\n", text.c_str());
    syslog(LOG_DAEMON | LOG_WARNING, "console: %s", text.c_str());
}

int CuiIFTh::InitSock()
{
    // The console changes the daemon's configuration without asking who
    // connects: it listens on the loopback unless the operator says more.
    const std::string address = config() ? config()->getConf("CuiAddress") : std::string();
    mListenAddr = htonl(INADDR_LOOPBACK);
    if (!parseListenAddress(address, &mListenAddr))
        report("invalid \"CuiAddress\" \"" + address + "\"; listening on 127.0.0.1 only");

    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // A connection this daemon ended last keeps the port in TIME_WAIT for
    // a while; the address may be re-used at once after a restart.
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);

    std::string port = config() ? config()->getConf("CuiPort") : std::string();
    sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = mListenAddr;
    addr.sin_port = htons(static_cast<uint16_t>(strtol(port.c_str(), nullptr, 10)));

    bool bound = false;
    int bindError = 0;
    for (int attempt = 0; attempt < 30 && !mStop.load(); ++attempt) {
        if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
            bound = true;
            break;
        }
        bindError = errno;
        sleep(1);
    }
    // Listening on an unbound socket would open a random port on every
    // address; without the bind there is no console port.
    if (!bound) {
        close(fd);
        if (!mStop.load())
            report("cannot bind port " + port + ": " + strerror(bindError));
        return 1;
    }
    listen(fd, 1);
    mListenSock.store(fd);
    // A stop requested before the socket existed takes effect now.
    if (mStop.load())
        shutdown(fd, SHUT_RDWR);
    return 1;
}

void CuiIFTh::thread_main()
{
    InitSock();
    if (mListenSock.load() < 0) {
        if (!mStop.load())
            FatalStop::request(1, "the console port cannot be bound");
        return;
    }
    for (;;) {
        int conn = accept4(mListenSock.load(), nullptr, nullptr, SOCK_CLOEXEC);
        if (conn < 0) {
            if (mStop.load())
                break;
            // A signal or a client that gave up before it was accepted
            // is not a failure of the console port.
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            report(std::string("accepting a connection failed: ") + strerror(errno));
            FatalStop::request(1, "the console port failed");
            break;
        }
        mConnSock.store(conn);
        if (mStop.load()) {
            mConnSock.store(-1);
            close(conn);
            break;
        }
        Attend();
        mConnSock.store(-1);
        close(conn);
    }
    int fd = mListenSock.exchange(-1);
    if (fd >= 0)
        close(fd);
}

int CuiIFTh::Attend()
{
    const int conn = mConnSock.load();
    CUIMSGINFO rec;
    for (;;) {
        // An idle or half-open connection would hold the only console
        // slot for ever: it gets the idle time-out.
        struct pollfd p = {conn, POLLIN, 0};
        int ready = poll(&p, 1, mIdleTimeoutMs);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready == 0) {
            const int ms = mIdleTimeoutMs;
            report("connection idle for " + (ms % 1000 ? std::to_string(ms) + " ms" : std::to_string(ms / 1000) + " s")
                   + "; closed");
            return 0;
        }
        if (ready < 0)
            return 0;

        memset(&rec, 0, sizeof rec);
        // One read per request: a request that does not arrive whole in
        // one piece ends the connection.
        ssize_t n = read(conn, &rec, sizeof rec);
        const bool allow = config()
                           && strtol(config()->getConf(ConsoleRequest::kAllowKey).c_str(), nullptr, 10) == 1;
        ConsoleRequest req = ConsoleRequest::decode(&rec, n < 0 ? 0 : static_cast<size_t>(n), allow);

        if (req.kind == ConsoleRequest::Close)
            return 0;
        if (req.kind == ConsoleRequest::Ignore)
            continue;
        if (req.kind == ConsoleRequest::Status) {
            // Read-only: a snapshot of the live values, nothing stored.
            const std::vector<CUIMSGINFO> records = StatusReport::toRecords(StatusReport::collect(mStatus));
            if (!sendAll(conn, records.data(), records.size() * sizeof(CUIMSGINFO)))
                return 0;
            continue;
        }
        if (req.kind == ConsoleRequest::Refused)
            report("refused to set \"" + req.key + "\": " + req.reason);
        if (req.kind == ConsoleRequest::SetConf && config()) {
            config()->setConf(req.key, req.value);
            config()->save();
        }
        CUIMSGINFO answer = req.answer();
        send(conn, &answer, sizeof answer, MSG_NOSIGNAL);
        if (req.kind == ConsoleRequest::SetConf)
            SetConfNotify(req.key);
    }
}

bool CuiIFTh::sendAll(int conn, const void* data, size_t size)
{
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        // A client that asks and never reads must not hold the thread.
        struct pollfd w = {conn, POLLOUT, 0};
        int ready = poll(&w, 1, mIdleTimeoutMs);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return false;
        ssize_t n = send(conn, p, size, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK))
            continue;
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

void CuiIFTh::SetConfNotify(std::string key)
{
    int code = 0;
    if (key == "AccessCode1")
        code = NtConfigChanged;
    else if (key == "ShutdownDelay1")
        code = NtTimingChanged;
    else if (key == "DumpLogRate")
        code = NtMeterRateChanged;
    else
        return;
    _NOTIFYMSGINFO nt;
    memset(&nt, 0, sizeof nt);
    nt.code = code;
    nt.count = 0;
    mCtrl->SetNotify(&nt);
}

void CuiIFTh::requestStop()
{
    mStop.store(true);
    int fd = mListenSock.load();
    if (fd >= 0)
        shutdown(fd, SHUT_RDWR);
    int conn = mConnSock.load();
    if (conn >= 0)
        shutdown(conn, SHUT_RDWR);
}
