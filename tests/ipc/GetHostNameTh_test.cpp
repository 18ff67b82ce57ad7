// Host-name resolution for the member side, with the member that asks:
// what reaches it, the ready flag always set, and the wait across threads.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "ipc/GetHostNameTh.h"
#include "tests/fakes/MemberProtocolRig.h"

namespace {

using Strings = std::vector<std::string>;

// A member following "ctrl-a" with a resolver that knows `known` for it;
// the member's requests are served from another thread a little later, so
// the member must wait for the answer.
struct Resolving {
    Strings known;
    IpcCTrlMTh* requesters[4] = {};
    GetHostNameTh host{ThHostName, requesters, nullptr, [this](const std::string& name, Strings* out) {
                           *out = known;
                           return name == "ctrl-a" && !known.empty();
                       }};
    std::thread worker;
    MemberProtocolRig r{MemberProtocolRig::kIni, "ctrl-a", [this](int index) {
                            worker = std::thread([this, index] {
                                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                                host.GetHostName(index);
                            });
                        }, false};
    Resolving() { requesters[0] = r.th.get(); }
    ~Resolving() { settle(); }
    void settle() { if (worker.joinable()) worker.join(); }
    void event(int code) { r.event(code), settle(); }
};

} // namespace

TEST(GetHostNameTh, UnknownNameReportedOnceAddressesTriedInTurnAndTheListCutAt256)
{
    Resolving x;
    x.r.start();
    x.settle();
    x.event(EvTimersStopped);
    EXPECT_TRUE(x.r.sent().empty());
    EXPECT_EQ(x.r.logCodes(), std::vector<int>{292});
    EXPECT_EQ(std::to_string(x.r.th->GetDisplayType()) + " " + x.r.th->GeDisplayHostName(), "2 ctrl-a");

    x.known = {"127.0.0.7", "127.0.0.8"};
    x.event(EvTimersStopped);
    EXPECT_EQ(x.r.sent(), Strings{"35 register r255 17:127.0.0.2 -> 19:ctrl-a body 70"});
    EXPECT_EQ(std::string(x.r.th->Controller().address), "127.0.0.7");
    x.r.expire(x.r.replyTimers().at(0));
    EXPECT_EQ(x.r.sent().size(), 1u);
    EXPECT_EQ(std::string(x.r.th->Controller().address), "127.0.0.8");
    EXPECT_EQ(x.r.logCodes(), std::vector<int>{292}) << "reported once";

    // Served on event 900: the list cut at 256, the flag set even when nothing was found.
    x.known.clear();
    for (int i = 0; i < 300; ++i)
        x.known.push_back("10.213.0." + std::to_string(i));
    const EVENTMSGINFO ev = eventRecord(ThHostName, EvResolveHost, {0});
    ASSERT_TRUE(x.host.writeAddr(&ev));
    EXPECT_EQ(std::to_string(x.r.th->ResolvedCount()) + " " + x.r.th->ResolvedAddress(255), "256 10.213.0.255");
    x.known.clear();
    ASSERT_TRUE(x.host.writeAddr(&ev));
    EXPECT_TRUE(x.r.th->ResolvedReady() && x.r.th->ResolvedCount() == 0);
}
