// CreateMultiControllerFile: the member's operator files about the
// controllers it follows ("Controller.inf", the shutdown logs) and the
// start-up check of its controller list "Membercnt.cfg".
#pragma once

#include <string>

#include "control/Records.h"

class FileMap;

class CreateMultiControllerFile {
public:
    // Loads *members from dir + "Membercnt.cfg" (left null when the file is
    // missing; the caller owns the map) and fills the controller's shutdown
    // timing from it, setting *changed when it differs from `config`
    // ("Kestrava.ini"). Returns 0 on success.
    static int CheckControllerFile(const std::string& address, int port, const std::string& dir, FileMap* config,
                                   FileMap** members, DG2_ShutdownTimming* timing, bool* changed);

    // Rewrites dir + "CONTROLLER/Controller.inf" from the status record.
    // (Written by the member's controller files, not built yet.)
    static int WriteControllerInf(ShutCNT* info, const char* dir);
    // Appends one shutdown decision (mode 1 = shutdown) of a controller, with
    // its reason and timing, to dir + "SHUTDOWN/<month>_sh.log".
    // (Written by the member's controller files, not built yet.)
    static int WriteShutdownLog(int mode, const char* controller, int reason, DG2_ShutdownTimming* timing,
                                const char* dir);
};
