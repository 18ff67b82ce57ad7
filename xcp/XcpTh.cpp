#include "xcp/XcpTh.h"

#include "control/StCTrl.h"
#include "core/Globals.h"

XcpTh::XcpTh(int number) : tthread(number) {}

XcpTh::~XcpTh() {}

void XcpTh::thread_main()
{
    // Takes the events addressed to this thread; their handling is not built yet.
    EVENTMSGINFO ev;
    for (;;)
        gCStCtrl.GetEvent(&ev, GetMyThrad());
}
