#include "tools/upssim/ControlServer.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace upssim {

ControlServer::~ControlServer() { close(); }

bool ControlServer::listen(const std::string& path, std::string* error) {
    close();
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path) {
        *error = "control socket path is empty or too long: " + path;
        return false;
    }
    memcpy(addr.sun_path, path.c_str(), path.size());
    struct stat st;
    if (lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            *error = "control socket path exists and is not a socket: " + path;
            return false;
        }
        // Refuse to steal the socket of a simulator that is still running.
        int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (probe >= 0) {
            bool alive = connect(probe, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0;
            ::close(probe);
            if (alive) {
                *error = "control socket is in use by another process: " + path;
                return false;
            }
        }
        unlink(path.c_str());
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        *error = std::string("socket: ") + strerror(errno);
        return false;
    }
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(fd, 8) != 0) {
        *error = "cannot listen on " + path + ": " + strerror(errno);
        ::close(fd);
        return false;
    }
    listener_ = fd;
    path_ = path;
    return true;
}

void ControlServer::closeFinished() {
    for (int fd : finished_)
        if (clients_.count(fd)) drop(fd);
    finished_.clear();
}

void ControlServer::close() {
    for (auto& c : clients_) ::close(c.first);
    clients_.clear();
    finished_.clear();
    if (listener_ >= 0) {
        ::close(listener_);
        listener_ = -1;
        unlink(path_.c_str());
    }
}

void ControlServer::addPollFds(std::vector<struct pollfd>* fds) const {
    if (listener_ >= 0) fds->push_back({listener_, POLLIN, 0});
    for (const auto& c : clients_) {
        bool done = false;
        for (int f : finished_) done = done || f == c.first;
        if (!done) fds->push_back({c.first, POLLIN, 0});
    }
}

void ControlServer::drop(int client) {
    ::close(client);
    clients_.erase(client);
}

void ControlServer::handle(int fd, short revents, std::vector<Line>* lines) {
    if (revents == 0) return;
    if (fd == listener_) {
        for (;;) {
            int c = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (c < 0) break;
            clients_[c] = std::string();
        }
        return;
    }
    auto it = clients_.find(fd);
    if (it == clients_.end()) return;
    char buf[1024];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n > 0) {
            for (ssize_t i = 0; i < n; ++i) {
                if (buf[i] == '\n') {
                    std::string text = it->second;
                    if (!text.empty() && text.back() == '\r') text.pop_back();
                    lines->push_back({fd, text});
                    it->second.clear();
                } else if (it->second.size() < kMaxLine) {
                    it->second += buf[i];
                }
            }
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        if (n < 0 && errno == EINTR) continue;
        // End of the connection: a last line without newline still counts.
        if (!it->second.empty()) lines->push_back({fd, it->second});
        it->second.clear();
        finished_.push_back(fd);
        return;
    }
}

void ControlServer::reply(int client, const std::string& text) {
    if (!clients_.count(client)) return;
    std::string line = text + "\n";
    size_t done = 0;
    int tries = 0;
    while (done < line.size()) {
        ssize_t n = send(client, line.data() + done, line.size() - done, MSG_NOSIGNAL);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EINTR) && ++tries < 100) {
            struct pollfd p = {client, POLLOUT, 0};
            poll(&p, 1, 10);
            continue;
        }
        drop(client);
        return;
    }
}

}  // namespace upssim
