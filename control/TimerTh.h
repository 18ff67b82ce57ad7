// TimerTh: the timer command thread (number 0). Takes the timer commands
// (EvTimerStart, EvTimerStop, EvTimerStopAll, EvTimerShift) from the event queue
// and applies them to the timer list of TimerIFTh.
#pragma once

#include "control/Records.h"
#include "control/TimerIFTh.h"
#include "core/tthread.h"

class StCTrl;

class TimerTh : public tthread {
public:
    // timers: the timer list the commands act on. ctrl: the controller whose
    // queue is read and to which NtAllTimersStopped goes.
    TimerTh(int number, TimerIFTh* timers, StCTrl* ctrl);
    ~TimerTh() override;

    TimerTh(const TimerTh&) = delete;
    TimerTh& operator=(const TimerTh&) = delete;

    // Applies one timer command.
    void Event_CK(EVENTMSGINFO* ev);

protected:
    void thread_main() override;

private:
    TimerIFTh* mTimers;
    StCTrl* mCtrl;
};
