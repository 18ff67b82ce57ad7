#include "control/TimerIFTh.h"

#include "control/StCTrl.h"
#include "core/Globals.h"

TimerIFTh::TimerIFTh(int number) : tthread(number) {}

TimerIFTh::~TimerIFTh() {}

void TimerIFTh::thread_main()
{
    // Takes the events addressed to this thread; their handling is not built yet.
    EVENTMSGINFO ev;
    for (;;)
        gCStCtrl.GetEvent(&ev, GetMyThrad());
}
