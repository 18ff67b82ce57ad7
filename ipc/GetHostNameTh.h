// GetHostNameTh: resolves the host names of controllers for the member-side
// protocol threads (thread number 12). A member-side thread clears its
// ready flag and posts notification 6015 with its index; the core makes it
// event 900 for this thread, which looks the name up (this may block for
// long, which is why it has a thread of its own), writes up to 256 dotted
// addresses into the requester and sets its ready flag in every case.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "core/tthread.h"

class IpcCTrlMTh;
class StCTrl;
struct EVENTMSGINFO;

class GetHostNameTh : public tthread {
public:
    // Looks a name up: true with the IPv4 addresses in the resolver's order.
    using Resolver = std::function<bool(const std::string& name, std::vector<std::string>* addresses)>;

    // The unwired thread: only takes its events off the queue.
    explicit GetHostNameTh(int number);
    // requesters: the table of the four member-side threads by index (read
    // at each request; an entry may be null); core: where the events come
    // from; resolver: empty for the system resolver (IPv4 only).
    GetHostNameTh(int number, IpcCTrlMTh** requesters, StCTrl* core, Resolver resolver = {});
    ~GetHostNameTh() override;

    // Event 900 with an index resolves for that requester; others are
    // consumed without effect. True when a requester was served.
    bool writeAddr(const EVENTMSGINFO* ev);
    // Resolves the configured host name of requester `index`.
    bool GetHostName(int index);

    // The system resolver: getaddrinfo, IPv4, addresses in its order,
    // duplicates (one per socket type) left out.
    static bool systemResolve(const std::string& name, std::vector<std::string>* addresses);

protected:
    void thread_main() override;

private:
    IpcCTrlMTh** mRequesters;
    StCTrl* mCore;
    Resolver mResolver;
};
