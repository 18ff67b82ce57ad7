#include "operator/CuiIFTh.h"

#include "control/StCTrl.h"
#include "core/Globals.h"

CuiIFTh::CuiIFTh(int number) : tthread(number) {}

CuiIFTh::~CuiIFTh() {}

void CuiIFTh::thread_main()
{
    // Takes the events addressed to this thread; their handling is not built yet.
    EVENTMSGINFO ev;
    for (;;)
        gCStCtrl.GetEvent(&ev, GetMyThrad());
}
