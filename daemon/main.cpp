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
               "Exit status: 0 once detached, 1 when a file is missing or it already runs,\n"
               "255 when the UPS serial device is locked.\n"
               "\n"
               "Environment: KESTRAVA_PID_FILE (default /var/run/Kestrava.pid),\n"
               "KESTRAVA_LOCK_DIR (default /var/lock), KESTRAVA_SHUTDOWN_CMD (default\n"
               "\"/sbin/shutdown -h now\").\n");
        return 0;
    }
    return StartUp::run(argc, argv);
}
