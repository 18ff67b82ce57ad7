// The XCP event thread: events for the UPS link move from the controller
// queue into the link's own queue, first in, first out.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "config/FileMap.h"
#include "control/Codes.h"
#include "control/StCTrl.h"
#include "tests/fakes/ManualClock.h"
#include "xcp/XcpTh.h"

namespace {
TEST(XcpThTest, QueueIsFirstInFirstOut)
{
    ManualClock clock;
    FileMap config;
    StCTrl ctrl(&clock, &config);
    XcpTh xcp(2, &ctrl);
    xcp.setXcpEvent(200);
    xcp.setXcpEvent(201);
    xcp.setXcpEvent(203);
    EXPECT_EQ(3u, xcp.pendingEvents());
    EXPECT_EQ(200, xcp.getXcpEvent());
    EXPECT_EQ(201, xcp.getXcpEvent());
    EXPECT_EQ(203, xcp.getXcpEvent());
    EXPECT_EQ(0u, xcp.pendingEvents());
}

TEST(XcpThTest, ForwardsEventsAddressedToItsNumber)
{
    ManualClock clock;
    FileMap config;
    StCTrl ctrl(&clock, &config);
    XcpTh xcp(2, &ctrl);
    EVENTMSGINFO ev;
    memset(&ev, 0, sizeof ev);
    ev.to = 2;
    ev.code = EvUpsPoll;
    ctrl.SetEvent(&ev);
    ev.code = EvUpsPowerOff;
    ctrl.SetEvent(&ev);
    xcp.forwardOne();
    xcp.forwardOne();
    EXPECT_EQ(201, xcp.getXcpEvent());
    EXPECT_EQ(202, xcp.getXcpEvent());
    EXPECT_EQ(0u, ctrl.queuedEvents());
}

TEST(XcpThTest, WaitingReaderWakesOnANewEvent)
{
    ManualClock clock;
    FileMap config;
    StCTrl ctrl(&clock, &config);
    XcpTh xcp(2, &ctrl);
    std::atomic<int> got{0};
    std::thread reader([&] { got = xcp.getXcpEvent(); });
    xcp.setXcpEvent(200);
    reader.join();  // returns once the event is queued (bounded by the 5 s timed wait at worst)
    EXPECT_EQ(200, got.load());
}
} // namespace
