#include "xcp/XcpTh.h"

#include "control/StCTrl.h"

XcpTh::XcpTh(int number, StCTrl* ctrl) : tthread(number), mCtrl(ctrl) { mMutex.MutexInit(kQueueSlot); }

XcpTh::~XcpTh() {}

void XcpTh::setXcpEvent(int code)
{
    mMutex.Lock(kQueueSlot);
    mEvents.push_back(code);
    mMutex.Signal(kQueueSlot);
    mMutex.unLock(kQueueSlot);
}

int XcpTh::getXcpEvent()
{
    mMutex.Lock(kQueueSlot);
    // Timed waits: a time-out is a wake-up like any other, the queue is
    // tested again.
    while (mEvents.empty())
        mMutex.Wait_time(kQueueSlot);
    int code = mEvents.front();
    mEvents.pop_front();
    mMutex.unLock(kQueueSlot);
    return code;
}

size_t XcpTh::pendingEvents()
{
    mMutex.Lock(kQueueSlot);
    size_t n = mEvents.size();
    mMutex.unLock(kQueueSlot);
    return n;
}

void XcpTh::forwardOne()
{
    EVENTMSGINFO ev;
    mCtrl->GetEvent(&ev, GetMyThrad());
    setXcpEvent(ev.code);
}

void XcpTh::thread_main()
{
    for (;;)
        forwardOne();
}
