// Sleeper: how the UPS link pauses between writes, reads and exchanges. The
// daemon sleeps for real; tests install a sleeper that moves a scripted
// port's time instead, so that the link's fixed pauses cost nothing.
#pragma once

class Sleeper {
public:
    virtual ~Sleeper() {}
    virtual void sleepMs(int ms) = 0;

    // The sleeper of the running daemon (really sleeps).
    static Sleeper& real();
};
