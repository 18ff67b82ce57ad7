#include "ipc/IpcCTrlCTh.h"

#include "control/StCTrl.h"
#include "daemon/Globals.h"

IpcCTrlCTh::IpcCTrlCTh(int number) : tthread(number) {}

IpcCTrlCTh::~IpcCTrlCTh() {}

void IpcCTrlCTh::thread_main()
{
    // Takes the events addressed to this thread; their handling is not built yet.
    EVENTMSGINFO ev;
    for (;;)
        gCStCtrl.GetEvent(&ev, GetMyThrad());
}
