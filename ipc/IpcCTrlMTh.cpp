#include "ipc/IpcCTrlMTh.h"

#include "control/StCTrl.h"
#include "daemon/Globals.h"

IpcCTrlMTh::IpcCTrlMTh(int number) : tthread(number) {}

IpcCTrlMTh::~IpcCTrlMTh() {}

void IpcCTrlMTh::thread_main()
{
    // Takes the events addressed to this thread; their handling is not built yet.
    EVENTMSGINFO ev;
    for (;;)
        gCStCtrl.GetEvent(&ev, GetMyThrad());
}
