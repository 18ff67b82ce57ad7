// CreateMultiControllerFile: the member's operator files about the
// controllers it follows ("Controller.inf", the shutdown logs) and the
// start-up check of its controller list "Membercnt.cfg".
#pragma once

#include <string>

#include "control/Records.h"

class CreateMultiControllerFile {
public:
    // Loads gpm_Memcnt from dir + "Membercnt.cfg" (left null when the file is
    // missing) and fills the controller's shutdown timing from it, setting
    // *changed when it differs from "Kestrava.ini". Returns 0 on success.
    static int CheckControllerFile(const std::string& address, int port, const std::string& dir,
                                   DG2_ShutdownTimming* timing, bool* changed);

    // Rewrites "Controller.inf" in the Path directory from the status record.
    static void WriteControllerInf(const ShutCNT& info);
    // Appends one shutdown decision to the controller's shutdown log.
    static void WriteShutdownLog(int slot, int winkTime, int countdownTime, int appEndTime, int shutdownDelay,
                                 const std::string& command, const std::string& controllerAddress);
};
