#include "control/TimerTh.h"

#include <cstring>

#include "control/Codes.h"
#include "control/StCTrl.h"
#include "core/ShellRunner.h"

TimerTh::TimerTh(int number, TimerIFTh* timers, StCTrl* ctrl) : tthread(number), mTimers(timers), mCtrl(ctrl) {}

TimerTh::~TimerTh() {}

void TimerTh::thread_main()
{
    EVENTMSGINFO ev;
    for (;;) {
        mCtrl->GetEvent(&ev, GetMyThrad());
        Event_CK(&ev);
    }
}

void TimerTh::Event_CK(EVENTMSGINFO* ev)
{
    switch (ev->code) {
    case EvTimerStart: {
        TimerMng tm;
        tm.id = ev->params[0];
        tm.expiry = ev->params[1];
        tm.interval = ev->params[2];
        tm.owner = ev->params[3];
        mTimers->Timer_Start(&tm);
        break;
    }
    case EvTimerStop:
        mTimers->Timer_Cancel(ev->params[0]);
        break;
    case EvTimerStopAll:
        // With a range (parameters 1 and 2) only the timers in it stop.
        if (ev->count >= 3)
            mTimers->Timer_Cancel_All(ev->params[1], ev->params[2]);
        else
            mTimers->Timer_Cancel_All();
        if (ev->params[0] != 0) {
            _NOTIFYMSGINFO nt;
            memset(&nt, 0, sizeof nt);
            nt.code = NtAllTimersStopped;
            nt.count = 0;
            mCtrl->SetNotify(&nt);
        }
        break;
    case EvTimerShift:
        mTimers->Timer_Reset(ev->params[0], ev->params[1]);
        break;
    default:
        // An unknown timer command is broadcast to the logged-in users as a
        // diagnostic ("wrong").
        ShellRunner::system().run("wall 間違い");
        break;
    }
}
