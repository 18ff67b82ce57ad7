// Signal handling of the daemon: the termination signal (SIGTERM) is the only
// way the daemon is stopped. It is never taken by a handler in the middle of
// other code: NS_SigHandle blocks it in the main thread during start-up,
// before any worker thread exists (the workers are started with it blocked
// too), and the main thread takes it from a descriptor it waits on and then
// runs the stop sequence in plain thread context.
#pragma once

// Blocks SIGTERM in the calling (main) thread and opens the descriptor it
// arrives on. 0 on success, 1 when a step failed.
int NS_SigHandle();

// The descriptor readable while a SIGTERM is pending; -1 before NS_SigHandle.
int NS_SignalDescriptor();

// Takes a pending SIGTERM off the descriptor: true when there was one.
bool NS_TakeSignal();

// The stop sequence, run by the main thread once SIGTERM arrived: on a
// controller removes the device lock, tells the controller core the daemon
// is stopping (notification 6011), waits 5 s for the threads to act on it
// and exits with status 0. The pid file is left in place.
[[noreturn]] void NS_TermHandler(int signo);
