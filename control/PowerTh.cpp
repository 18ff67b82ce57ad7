#include "control/PowerTh.h"

#include "control/StCTrl.h"
#include "core/Globals.h"

PowerTh::PowerTh(int number) : tthread(number) {}

PowerTh::~PowerTh() {}

void PowerTh::thread_main()
{
    // Takes the events addressed to this thread; their handling is not built yet.
    EVENTMSGINFO ev;
    for (;;)
        gCStCtrl.GetEvent(&ev, GetMyThrad());
}
