// Clock: the wall clock as the timer service and the controller core see it,
// and a monotonic reading that tells time passing from the clock being set.
// Production code uses the system clocks; tests install a manual clock so
// that clock jumps can be simulated without touching the machine's time.
#pragma once

#include <cstdint>
#include <ctime>

class Clock {
public:
    virtual ~Clock() {}
    virtual time_t now() = 0;
    // Nanoseconds of a clock that only runs forward and is never set (it
    // stands still while the machine is suspended).
    virtual int64_t monotonicNs() = 0;

    // The clock of the running daemon (the system clock unless replaced).
    static Clock& system();
};

class SystemClock : public Clock {
public:
    time_t now() override;
    int64_t monotonicNs() override;
};
