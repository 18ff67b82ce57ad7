// TimerIFTh: the timer list and its 300 ms tick (thread number 1); reports each expiry to the controller as notification 1000.
#pragma once

#include "core/tthread.h"

class TimerIFTh : public tthread {
public:
    explicit TimerIFTh(int number);
    ~TimerIFTh() override;

protected:
    void thread_main() override;
};
