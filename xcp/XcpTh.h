// XcpTh: the XCP event thread (number 2). Takes the events the controller
// addresses to the UPS link (detect, poll, stop, re-detect) and queues their
// codes for XcpIFTh, which serves them one at a time.
#pragma once

#include <cstddef>
#include <deque>

#include "daemon/Globals.h"
#include "core/MutexControl.h"
#include "core/tthread.h"

class XcpTh : public tthread {
public:
    // ctrl: the controller whose queue the events come from.
    explicit XcpTh(int number, StCTrl* ctrl = &gCStCtrl);
    ~XcpTh() override;

    // Appends an event code and wakes the waiting UPS interface thread.
    void setXcpEvent(int code);
    // Waits until an event code is queued, then removes and returns the oldest.
    int getXcpEvent();
    // Takes one event for this thread from the controller (waiting for it)
    // and queues its code.
    void forwardOne();
    size_t pendingEvents();

protected:
    void thread_main() override;

private:
    static constexpr int kQueueSlot = 5;

    std::deque<int> mEvents;
    MutexControl mMutex;
    StCTrl* mCtrl;
};
