#include "tools/console/ConsoleClient.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

namespace {

long long monotonicMs()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits until fd is ready for the events or the deadline has passed.
// 1 ready, 0 timed out, -1 error.
int waitFor(int fd, short events, long long deadlineMs)
{
    for (;;) {
        long long left = deadlineMs - monotonicMs();
        if (left <= 0)
            return 0;
        struct pollfd p;
        p.fd = fd;
        p.events = events;
        p.revents = 0;
        int r = poll(&p, 1, static_cast<int>(left));
        if (r > 0)
            return 1;
        if (r == 0)
            return 0;
        if (errno != EINTR)
            return -1;
    }
}

} // namespace

ConsoleClient::ConsoleClient(int port, int timeoutSeconds) : mPort(port), mTimeoutSeconds(timeoutSeconds) {}

int ConsoleClient::connectToDaemon(std::string* error)
{
    const std::string where = "127.0.0.1 port " + std::to_string(mPort);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        *error = std::string("cannot create a socket: ") + strerror(errno);
        return -1;
    }
    int flags = fcntl(fd, F_GETFL, 0);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);

    sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(mPort));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);

    int r = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    if (r != 0 && errno == EINPROGRESS) {
        int ready = waitFor(fd, POLLOUT, monotonicMs() + mTimeoutSeconds * 1000LL);
        if (ready <= 0) {
            close(fd);
            *error = "no connection to the daemon at " + where + " within " + std::to_string(mTimeoutSeconds) + " s";
            return -1;
        }
        int soError = 0;
        socklen_t len = sizeof soError;
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &len);
        errno = soError;
        r = soError == 0 ? 0 : -1;
    }
    if (r != 0) {
        int e = errno;
        close(fd);
        if (e == ECONNREFUSED)
            *error = "no daemon listens on " + where + " (is Kestrava running, is the port right?)";
        else
            *error = "cannot connect to " + where + ": " + strerror(e);
        return -1;
    }
    fcntl(fd, F_SETFL, flags);
    return fd;
}

int ConsoleClient::exchange(const CUIMSGINFO& request, std::string* error)
{
    int fd = connectToDaemon(error);
    if (fd < 0)
        return 1;

    // The daemon takes a request only when it arrives in one piece.
    ssize_t sent = send(fd, &request, sizeof request, MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(sizeof request)) {
        *error = std::string("cannot send the request to the daemon: ") + (sent < 0 ? strerror(errno) : "short send");
        close(fd);
        return 1;
    }

    CUIMSGINFO answer;
    if (readRecord(fd, &answer, monotonicMs() + mTimeoutSeconds * 1000LL, error) != 0) {
        close(fd);
        return 1;
    }
    close(fd);
    if (answer.command == CuiIFTh::CmdRefused) {
        answer.key[sizeof answer.key - 1] = 0;
        answer.value[sizeof answer.value - 1] = 0;
        std::string why = answer.value;
        if (why.compare(0, 9, "refused: ") == 0)
            why.erase(0, 9);
        *error = std::string("the daemon refused to set \"") + answer.key + "\": " + why;
        return kRefused;
    }
    if (answer.command != CuiIFTh::CmdAnswer) {
        *error = "unexpected answer from the daemon (command " + std::to_string(answer.command) + ")";
        return 1;
    }
    return 0;
}

int ConsoleClient::readRecord(int fd, CUIMSGINFO* rec, long long deadline, std::string* error)
{
    memset(rec, 0, sizeof *rec);
    size_t got = 0;
    while (got < sizeof *rec) {
        int ready = waitFor(fd, POLLIN, deadline);
        if (ready <= 0) {
            *error = "no answer from the daemon within " + std::to_string(mTimeoutSeconds) +
                     " s (another console session may be open)";
            return 1;
        }
        ssize_t n = recv(fd, reinterpret_cast<char*>(rec) + got, sizeof *rec - got, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            *error = "the daemon closed the connection without an answer";
            return 1;
        }
        got += static_cast<size_t>(n);
    }
    return 0;
}

int ConsoleClient::status(StatusReport::Items* items, std::string* error)
{
    items->clear();
    int fd = connectToDaemon(error);
    if (fd < 0)
        return 1;
    CUIMSGINFO req;
    memset(&req, 0, sizeof req);
    req.command = CuiIFTh::CmdStatus;
    if (send(fd, &req, sizeof req, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof req)) {
        *error = std::string("cannot send the request to the daemon: ") + strerror(errno);
        close(fd);
        return 1;
    }
    // One deadline for the whole answer; the daemon's bytes are checked
    // record by record and bounded in number.
    const long long deadline = monotonicMs() + mTimeoutSeconds * 1000LL;
    for (int count = 0;; ++count) {
        if (count >= StatusReport::kMaxRecords) {
            *error = "the daemon's status answer is longer than " + std::to_string(StatusReport::kMaxRecords) +
                     " records";
            break;
        }
        CUIMSGINFO rec;
        if (readRecord(fd, &rec, deadline, error) != 0) {
            if (count == 0)
                *error += " (a daemon older than this console does not answer \"status\")";
            break;
        }
        StatusReport::Item item;
        bool done = false;
        if (!StatusReport::fromRecord(rec, &item, &done)) {
            *error = "malformed status record from the daemon (command " + std::to_string(rec.command) + ")";
            break;
        }
        if (done) {
            close(fd);
            return 0;
        }
        items->push_back(item);
    }
    close(fd);
    items->clear();
    return 1;
}

int ConsoleClient::ping(std::string* error)
{
    CUIMSGINFO req;
    memset(&req, 0, sizeof req);
    req.command = CuiIFTh::CmdPresence;
    return exchange(req, error);
}

int ConsoleClient::checkSetArguments(const std::string& key, const std::string& value, std::string* error)
{
    const size_t room = sizeof(CUIMSGINFO::key) - 1;
    if (key.empty() || key.size() > room) {
        *error = "the key must have 1 to " + std::to_string(room) + " characters";
        return 1;
    }
    if (key.find_first_of("=\r\n") != std::string::npos) {
        *error = "the key may not contain \"=\", a carriage return or a line feed";
        return 1;
    }
    // A line break would split the value's line in "Kestrava.ini".
    if (value.find_first_of("\r\n") != std::string::npos) {
        *error = "the value may not contain a carriage return or a line feed";
        return 1;
    }
    if (value.size() > sizeof(CUIMSGINFO::value) - 1) {
        *error = "the value may have at most " + std::to_string(sizeof(CUIMSGINFO::value) - 1) + " characters";
        return 1;
    }
    return 0;
}

int ConsoleClient::set(const std::string& key, const std::string& value, std::string* error)
{
    if (checkSetArguments(key, value, error) != 0)
        return 1;
    CUIMSGINFO req;
    memset(&req, 0, sizeof req);
    req.command = CuiIFTh::CmdSetConf;
    memcpy(req.key, key.data(), key.size());
    memcpy(req.value, value.data(), value.size());
    return exchange(req, error);
}
