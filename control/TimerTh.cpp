#include "control/TimerTh.h"

#include "control/StCTrl.h"
#include "core/Globals.h"

TimerTh::TimerTh(int number) : tthread(number) {}

TimerTh::~TimerTh() {}

void TimerTh::thread_main()
{
    // Takes the events addressed to this thread; their handling is not built yet.
    EVENTMSGINFO ev;
    for (;;)
        gCStCtrl.GetEvent(&ev, GetMyThrad());
}
