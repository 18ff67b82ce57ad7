// The XCP event thread: events for the UPS link move from the controller
// queue into the link's own queue, first in, first out, and a waiting
// reader wakes when one arrives.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "tests/fakes/ManualClock.h"
#include "xcp/XcpTh.h"

namespace {
TEST(XcpThTest, ForwardsItsEventsFirstInFirstOut)
{
    ManualClock clock;
    FileMap config;
    StCTrl ctrl(&clock, &config);
    XcpTh xcp(2, &ctrl);
    EVENTMSGINFO ev;
    memset(&ev, 0, sizeof ev);
    ev.to = 2;
    for (int code : {201, 202}) {
        ev.code = code;
        ctrl.SetEvent(&ev);
        xcp.forwardOne();
    }
    xcp.setXcpEvent(200);
    EXPECT_EQ(0u, ctrl.queuedEvents());
    EXPECT_EQ(201, xcp.getXcpEvent());
    EXPECT_EQ(202, xcp.getXcpEvent());
    EXPECT_EQ(200, xcp.getXcpEvent());
    EXPECT_EQ(0u, xcp.pendingEvents());

    std::atomic<int> got{0};
    std::thread reader([&] { got = xcp.getXcpEvent(); });
    xcp.setXcpEvent(203);
    reader.join();  // returns once the event is queued (bounded by the 5 s timed wait at worst)
    EXPECT_EQ(203, got.load());
}
} // namespace
