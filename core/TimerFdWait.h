// TimerFdWait: the timer service's wait on the real clocks. A timerfd on the
// wall clock, armed at an absolute second and cancelled by any setting of
// the clock, and an eventfd for wakes from other threads, both in one poll().
// Without its descriptors it falls back to returning once a second.
#pragma once

#include "core/TimerWait.h"

class TimerFdWait : public TimerWait {
public:
    TimerFdWait();
    ~TimerFdWait() override;

    TimerFdWait(const TimerFdWait&) = delete;
    TimerFdWait& operator=(const TimerFdWait&) = delete;

    // True when both descriptors were made.
    bool ready() const { return mTimer >= 0 && mWake >= 0; }

    void arm(time_t second) override;
    Result wait() override;
    void wake() override;

private:
    int mTimer;
    int mWake;
};
