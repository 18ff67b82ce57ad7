// FatalStop: how a worker thread that meets a condition it cannot recover
// from (the console's listening socket gone, the message file unreadable)
// asks the main thread to end the daemon. Workers never end the process
// themselves: the main thread waits here and, on a request, ends in order
// (device lock and pid file removed) with the requested exit status.
#pragma once

class FatalStop {
public:
    // Records the request (the first one wins) and wakes the main thread.
    // Safe from any thread; never blocks.
    static void request(int status, const char* why);

    // A descriptor that is readable once a request was made, for a main
    // thread that waits in poll() on it and on other descriptors; -1 when it
    // could not be made (then only wait()/waitFor() see requests).
    static int descriptor();

    // Blocks until a request arrives and returns its exit status.
    static int wait();
    // Blocks until a request arrives or `seconds` pass; true on a request.
    static bool waitFor(int seconds);

    // True once a request was made; its status and reason.
    static bool requested();
    static int status();
    static const char* reason();

    // Forgets a request (tests only: one process runs many cases).
    static void resetForTests();
};
