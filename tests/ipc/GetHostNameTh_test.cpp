// Host-name resolution for the member side: what reaches the requester and
// that its ready flag is always set, whatever the lookup gave.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "ipc/GetHostNameTh.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/MemberProtocolRig.h"

namespace {

std::string hostList(const std::string& name)
{
    std::string list = MemberProtocolRig::defaultList();
    list.replace(list.find("IPAddress1=127.0.0.1"), 20, "IPAddress1=" + name);
    return list;
}

} // namespace

TEST(GetHostNameTh, ServesOnlyEvent900CutsTheListAt256AndAlwaysSetsTheFlag)
{
    int calls = 0;
    std::vector<std::string> answer;
    for (int i = 0; i < 300; ++i)
        answer.push_back("10.213.0." + std::to_string(i));
    // At start the registration's own request gets "unknown" at once.
    IpcCTrlMTh* member = nullptr;
    MemberProtocolRig r(MemberProtocolRig::defaultIni(), hostList("ctrl-a"),
                        [&](int) { member->StoreResolved({}); }, false);
    member = r.th.get();
    IpcCTrlMTh* requesters[4] = {nullptr, nullptr, nullptr, nullptr};
    GetHostNameTh host(ThHostName, requesters, r.core.get(),
                       [&](const std::string& name, std::vector<std::string>* out) {
                           ++calls;
                           if (name != "ctrl-a")
                               return false;
                           *out = answer;
                           return true;
                       });
    r.start();
    EXPECT_EQ(r.th->GetSettingHostName(), "ctrl-a");
    EXPECT_EQ(r.logCodes(), (std::vector<int>{292}));

    // No requester in the table, or another event: nothing happens.
    EVENTMSGINFO ev = eventRecord(ThHostName, EvResolveHost, {0});
    EXPECT_FALSE(host.writeAddr(&ev));
    requesters[0] = r.th.get();
    EVENTMSGINFO other = eventRecord(ThHostName, EvNetReceived, {0});
    EXPECT_FALSE(host.writeAddr(&other));
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(r.th->ResolvedCount(), 0);

    ASSERT_TRUE(host.writeAddr(&ev));
    EXPECT_TRUE(r.th->ResolvedReady());
    EXPECT_EQ(r.th->ResolvedCount(), 256);
    EXPECT_STREQ(r.th->ResolvedAddress(255), "10.213.0.255");

    answer.clear();
    ASSERT_TRUE(host.writeAddr(&ev));
    EXPECT_TRUE(r.th->ResolvedReady());
    EXPECT_EQ(r.th->ResolvedCount(), 0);
}

TEST(GetHostNameTh, TheRegistrationWaitsForAnAnswerFromAnotherThread)
{
    IpcCTrlMTh* requesters[4] = {nullptr, nullptr, nullptr, nullptr};
    GetHostNameTh host(ThHostName, requesters, nullptr, [](const std::string&, std::vector<std::string>* out) {
        *out = {"127.0.0.7"};
        return true;
    });
    std::thread worker;
    MemberProtocolRig r(MemberProtocolRig::defaultIni(), hostList("ctrl-a"), [&](int index) {
        worker = std::thread([&host, index] {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            host.GetHostName(index);
        });
    }, false);
    requesters[0] = r.th.get();
    r.start();
    worker.join();
    EXPECT_EQ(r.sent(), (std::vector<std::string>{"35 register r255 17:127.0.0.2 -> 19:ctrl-a body 70"}));
    EXPECT_EQ(std::string(r.th->Controller().address), "127.0.0.7");
}
