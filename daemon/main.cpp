// The kestrava daemon's entry point.
#include <cstdio>
#include <cstring>

#include "daemon/StartUp.h"

int main(int argc, char** argv)
{
    if (argc > 1 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        printf("Usage: /full/path/to/kestrava\n"
               "\n"
               "Kestrava, the UPS monitoring and coordinated-shutdown daemon. It takes no\n"
               "options: the directory it is started from (the directory part of the path\n"
               "it is invoked by) is its home directory, which must hold \"alert.rc\" and\n"
               "\"Kestrava.ini\" (and \"Membercnt.cfg\" on a shutdown member). It detaches into\n"
               "the background, writes its pid file and runs until SIGTERM.\n"
               "\n"
               "Exit status, as seen by the shell that starts it:\n"
               "  0  the daemon detached into the background, or could not fork at all (five\n"
               "     attempts; no pid file is written then);\n"
               "  1  \"alert.rc\" or \"Kestrava.ini\" cannot be read, or a daemon already runs\n"
               "     (the reason is written to standard error).\n"
               "Failures found after detaching (UPS serial device locked, \"Membercnt.cfg\"\n"
               "missing, a fatal error while running) end the daemon, not the starting\n"
               "command, which has already exited 0: the daemon writes the reason to its\n"
               "standard error (the file or terminal its standard input came from) and,\n"
               "except for the device lock, to syslog. Check that the daemon runs (its pid\n"
               "file names a live process) and read those, rather than the exit status.\n"
               "\n"
               "Environment: KESTRAVA_PID_FILE (default /var/run/Kestrava.pid),\n"
               "KESTRAVA_LOCK_DIR (default /var/lock), KESTRAVA_SHUTDOWN_CMD (default\n"
               "\"/sbin/shutdown -h now\").\n");
        return 0;
    }
    return StartUp::run(argc, argv);
}
