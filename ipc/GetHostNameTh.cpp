#include "ipc/GetHostNameTh.h"

#include "control/StCTrl.h"
#include "daemon/Globals.h"

GetHostNameTh::GetHostNameTh(int number) : tthread(number) {}

GetHostNameTh::~GetHostNameTh() {}

void GetHostNameTh::thread_main()
{
    // Takes the events addressed to this thread; their handling is not built yet.
    EVENTMSGINFO ev;
    for (;;)
        gCStCtrl.GetEvent(&ev, GetMyThrad());
}
