// The XCP event thread: events for the UPS link move from the controller
// queue into the link's own queue, first in, first out, and a waiting
// reader wakes when one arrives.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "config/FileMap.h"
#include "control/Codes.h"
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
    EVENTMSGINFO ev{};
    ev.to = 2;
    for (int code : {EvUpsPoll, EvUpsPowerOff}) {
        ev.code = code;
        ctrl.SetEvent(&ev);
        xcp.forwardOne();
    }
    xcp.setXcpEvent(EvUpsDetect);
    EXPECT_EQ(0u, ctrl.queuedEvents());
    EXPECT_EQ(EvUpsPoll, xcp.getXcpEvent());
    EXPECT_EQ(EvUpsPowerOff, xcp.getXcpEvent());
    EXPECT_EQ(EvUpsDetect, xcp.getXcpEvent());
    EXPECT_EQ(0u, xcp.pendingEvents());

    std::atomic<int> got{0};
    std::thread reader([&] { got = xcp.getXcpEvent(); });
    xcp.setXcpEvent(EvUpsRedetect);
    reader.join();  // returns once the event is queued (bounded by the 5 s timed wait at worst)
    EXPECT_EQ(EvUpsRedetect, got.load());
}
} // namespace
