// Signal handling of the daemon: the termination signal (SIGTERM) is the only
// way the daemon is stopped. NS_SigHandle installs the handler during start-up,
// before any worker thread exists, so every thread inherits the signal mask.
#pragma once

// Unblocks SIGTERM (and SIGKILL) for the calling thread and installs
// NS_TermHandler for SIGTERM. 0 on success, 1 when a step failed.
int NS_SigHandle();

// The stop sequence: on a controller removes the device lock, tells the
// controller core the daemon is stopping (notification 6011), waits 5 s for
// the threads to act on it and exits with status 0. Later deliveries of the
// signal do nothing. The pid file is left in place.
void NS_TermHandler(int signo);
