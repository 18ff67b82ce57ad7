// TimerTh: the timer command thread (number 0). Takes timer commands from the event queue and applies them to the timer list of TimerIFTh.
#pragma once

#include "core/tthread.h"

class TimerTh : public tthread {
public:
    explicit TimerTh(int number);
    ~TimerTh() override;

protected:
    void thread_main() override;
};
