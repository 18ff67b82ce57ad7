#include "operator/CuiIFTh.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

#include "config/FileMap.h"
#include "control/Codes.h"
#include "control/Records.h"
#include "control/StCTrl.h"

CuiIFTh::CuiIFTh(int number, StCTrl* ctrl, FileMap** config)
    : tthread(number), mCtrl(ctrl), mConfig(config), mListenSock(-1), mConnSock(-1), mStop(false), mListenAddr(htonl(INADDR_ANY))
{
}

CuiIFTh::~CuiIFTh()
{
    // The listening socket is left to the process exit: closing it here,
    // while the static objects are destroyed at the end of the termination
    // handler, would make the still-running accept() fail, and a failed
    // accept ends the daemon with status 1 instead of 0.
}

void CuiIFTh::setListenAddress(const char* dotted)
{
    in_addr addr;
    if (dotted && inet_pton(AF_INET, dotted, &addr) == 1)
        mListenAddr = addr.s_addr;
}

int CuiIFTh::InitSock()
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
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

    for (int attempt = 0; attempt < 30 && !mStop.load(); ++attempt) {
        if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0)
            break;
        sleep(1);
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
    for (;;) {
        int conn = accept(mListenSock.load(), nullptr, nullptr);
        if (conn < 0) {
            if (mStop.load())
                break;
            // A signal or a client that gave up before it was accepted
            // is not a failure of the console port.
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            exit(1);
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
    CUIMSGINFO req;
    for (;;) {
        memset(&req, 0, sizeof req);
        // One read per request: a request that does not arrive whole in
        // one piece ends the connection.
        ssize_t n = read(conn, &req, sizeof req);
        if (n != static_cast<ssize_t>(sizeof req))
            return 0;

        if (req.command == CmdPresence) {
            CUIMSGINFO answer = req;
            answer.command = CmdAnswer;
            send(conn, &answer, sizeof answer, MSG_NOSIGNAL);
        } else if (req.command == CmdSetConf) {
            char key[sizeof req.key + 1];
            char value[sizeof req.value + 1];
            memcpy(key, req.key, sizeof req.key);
            key[sizeof req.key] = 0;
            memcpy(value, req.value, sizeof req.value);
            value[sizeof req.value] = 0;
            if (config()) {
                config()->setConf(key, value);
                config()->save();
            }
            CUIMSGINFO answer = req;
            answer.command = CmdAnswer;
            send(conn, &answer, sizeof answer, MSG_NOSIGNAL);
            SetConfNotify(key);
        }
        // Any other command is ignored without an answer.
    }
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
