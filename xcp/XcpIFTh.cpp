#include "xcp/XcpIFTh.h"

#include "control/StCTrl.h"
#include "core/Globals.h"

XcpIFTh::XcpIFTh(int number) : tthread(number) {}

XcpIFTh::~XcpIFTh() {}

void XcpIFTh::thread_main()
{
    // Takes the events addressed to this thread; their handling is not built yet.
    EVENTMSGINFO ev;
    for (;;)
        gCStCtrl.GetEvent(&ev, GetMyThrad());
}
