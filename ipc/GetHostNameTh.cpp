#include "ipc/GetHostNameTh.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>

#include "control/Codes.h"
#include "control/StCTrl.h"
#include "daemon/Globals.h"
#include "ipc/IpcCTrlMTh.h"

GetHostNameTh::GetHostNameTh(int number) : GetHostNameTh(number, nullptr, nullptr) {}

GetHostNameTh::GetHostNameTh(int number, IpcCTrlMTh** requesters, StCTrl* core, Resolver resolver)
    : tthread(number), mRequesters(requesters), mCore(core), mResolver(std::move(resolver))
{
}

GetHostNameTh::~GetHostNameTh() {}

void GetHostNameTh::thread_main()
{
    StCTrl* core = mCore ? mCore : &gCStCtrl;
    EVENTMSGINFO ev;
    for (;;) {
        core->GetEvent(&ev, GetMyThrad());
        writeAddr(&ev);
    }
}

bool GetHostNameTh::writeAddr(const EVENTMSGINFO* ev)
{
    if (ev == nullptr || ev->code != EvResolveHost || ev->count < 1)
        return false;
    return GetHostName(ev->params[0]);
}

bool GetHostNameTh::GetHostName(int index)
{
    if (mRequesters == nullptr || index < 0 || index > 3 || mRequesters[index] == nullptr)
        return false;
    IpcCTrlMTh* requester = mRequesters[index];
    std::vector<std::string> addresses;
    const std::string& name = requester->GetSettingHostName();
    const bool ok = !name.empty() && (mResolver ? mResolver(name, &addresses) : systemResolve(name, &addresses));
    if (!ok)
        addresses.clear();
    if (addresses.size() > size_t(IpcCTrlMTh::kMaxResolved))
        addresses.resize(IpcCTrlMTh::kMaxResolved);
    // Sets the ready flag in every case, so the requester never hangs.
    requester->StoreResolved(addresses);
    return true;
}

bool GetHostNameTh::systemResolve(const std::string& name, std::vector<std::string>* addresses)
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* list = nullptr;
    if (::getaddrinfo(name.c_str(), nullptr, &hints, &list) != 0 || list == nullptr)
        return false;
    for (addrinfo* p = list; p != nullptr && addresses->size() < size_t(IpcCTrlMTh::kMaxResolved); p = p->ai_next) {
        if (p->ai_family != AF_INET || p->ai_addr == nullptr)
            continue;
        char text[INET_ADDRSTRLEN] = {};
        const auto* in = reinterpret_cast<const sockaddr_in*>(p->ai_addr);
        if (::inet_ntop(AF_INET, &in->sin_addr, text, sizeof text) == nullptr)
            continue;
        if (std::find(addresses->begin(), addresses->end(), text) == addresses->end())
            addresses->push_back(text);
    }
    ::freeaddrinfo(list);
    return !addresses->empty();
}
