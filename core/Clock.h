// Clock: the wall clock as the timer service and the controller core see it.
// Production code uses the system clock; tests install a manual clock so that
// clock jumps can be simulated without touching the machine's time.
#pragma once

#include <ctime>

class Clock {
public:
    virtual ~Clock() {}
    virtual time_t now() = 0;

    // The clock of the running daemon (the system clock unless replaced).
    static Clock& system();
};

class SystemClock : public Clock {
public:
    time_t now() override;
};
