// ControlServer: the simulator's unix-domain control socket. Accepts any
// number of stream connections, splits what they send into lines (the
// runtime commands) and writes one answer line back per command.
#ifndef KESTRAVA_TOOLS_UPSSIM_CONTROLSERVER_H
#define KESTRAVA_TOOLS_UPSSIM_CONTROLSERVER_H

#include <poll.h>

#include <map>
#include <string>
#include <vector>

namespace upssim {

class ControlServer {
public:
    struct Line {
        int client;  // descriptor of the connection, for reply()
        std::string text;
    };

    static constexpr size_t kMaxLine = 4096;

    ControlServer() = default;
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Listens at path. A stale socket file left by an earlier run is
    // replaced; any other existing file is an error.
    bool listen(const std::string& path, std::string* error);
    // Closes every connection and removes the socket file.
    void close();
    bool listening() const { return listener_ >= 0; }

    void addPollFds(std::vector<struct pollfd>* fds) const;
    // Handles one ready descriptor; complete lines go to *lines.
    void handle(int fd, short revents, std::vector<Line>* lines);
    void reply(int client, const std::string& text);
    // Closes the connections whose peer has finished sending, once their
    // last commands have been answered.
    void closeFinished();

private:
    void drop(int client);

    int listener_ = -1;
    std::string path_;
    std::map<int, std::string> clients_;  // descriptor -> partial line
    std::vector<int> finished_;           // peer sent end of file
};

}  // namespace upssim

#endif
