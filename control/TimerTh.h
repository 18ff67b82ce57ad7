// TimerTh: the timer command thread (number 0). Takes the timer commands
// (events 100 start, 102 stop, 103 stop all, 104 move) from the event queue
// and applies them to the timer list of TimerIFTh.
#pragma once

#include "control/Records.h"
#include "control/TimerIFTh.h"
#include "core/tthread.h"

class StCTrl;

extern StCTrl gCStCtrl;
extern TimerIFTh gCTimerIfThread;

class TimerTh : public tthread {
public:
    // timers: the timer list the commands act on. ctrl: the controller whose
    // queue is read and to which notification 9001 goes.
    explicit TimerTh(int number, TimerIFTh* timers = &gCTimerIfThread, StCTrl* ctrl = &gCStCtrl);
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
