// Daemon, pid-file and device-lock helpers: make sure only one daemon runs
// per machine and only one process uses the UPS serial device. The pid file
// and the lock directory are those of SystemPaths ("/var/run/Kestrava.pid",
// "/var/lock/LCK..<device>" unless moved by the environment).
#pragma once

// Detaches from the caller: refuses to start when the pid file names a live
// process ("Kestrava: Already running.", exit 1), forks, and lets the parent
// record the child's pid in the pid file and exit 0. Returns only in the child.
void BecomeDaemon();

// The pid recorded in the file, 0 when the file cannot be opened or holds no number.
int read_pid(const char* path);

// The pid recorded in the file when that process may still exist; 0 when there
// is none, when it is the caller itself or when no such process exists.
int check_pid(const char* path);

// Takes the UUCP-style lock of the device with this base name. Returns 0 when
// the lock is held; ends the process with status -1 when it cannot be taken.
int ttysLock(const char* name);

// Deletes the pid file and the device lock of this base name; errors ignored.
void unlock(const char* name);
