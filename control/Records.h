// The plain records that threads exchange through the controller core:
// notifications (observer -> controller), events (controller -> worker
// thread), running timers, and the per-controller shutdown status and timing.
#pragma once

#include <cstdint>

// Notification handed to StCTrl::SetNotify by the thread that observed something.
struct _NOTIFYMSGINFO {
    int32_t code;
    int32_t count;
    int32_t params[256];
};

// Event queued by the controller for one worker thread (addressee `to`).
struct EVENTMSGINFO {
    int32_t to;
    int32_t code;
    int32_t count;
    int32_t params[256];
};

// One running timer of the timer service.
struct TimerMng {
    int32_t id;
    int32_t expiry;   // wall-clock seconds since the epoch
    int32_t interval; // 0 = one-shot, else re-armed by adding it
    int32_t owner;    // thread number the expiry refers to
};

// Per-controller-slot shutdown status (guarded by the member-information lock).
struct ShutCNT {
    int32_t contCount;           // number of controllers
    uint8_t single;              // initialised to 1
    uint8_t startShutdown;       // host shutdown started
    uint8_t outputStatus[4];     // output on (1) / off (0)
    uint8_t active[4];           // slot configured and followed
    uint8_t schStatus[4];        // schedule warning in force
    uint8_t pfStatus[4];         // power-failure status
    uint8_t commStatus[4];       // communication status
    uint8_t upsCom[4];           // UPS communication
    uint8_t appStatus[4];        // application status (2 = host shutdown started by this slot)
    uint8_t appEndStatus[4];     // application end reached
    uint8_t outputKnown[4];      // an output change was reported once
    uint8_t dummyAppDown[4];     // reason stored when this slot waited for others
    uint8_t pfAppEnd[4];         // power-failure application end running
};

// Shutdown timing received from a controller (member side).
struct DG2_ShutdownTimming {
    int32_t winkTime;       // seconds
    int32_t shutdownTime;   // minutes
    int32_t appTermTimeOut; // seconds
    int32_t shutdownDelay;  // seconds
    char appTermCommand[128];
    uint8_t marker;
};
