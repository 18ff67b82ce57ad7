#include "ipc/IpcIFTh.h"

#include "control/StCTrl.h"
#include "daemon/Globals.h"

IpcIFTh::IpcIFTh(int number) : tthread(number) {}

IpcIFTh::~IpcIFTh() {}

void IpcIFTh::thread_main()
{
    // Takes the events addressed to this thread; their handling is not built yet.
    EVENTMSGINFO ev;
    for (;;)
        gCStCtrl.GetEvent(&ev, GetMyThrad());
}
