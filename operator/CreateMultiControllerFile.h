// CreateMultiControllerFile: the member's operator files about the
// controllers it follows: the controller information table
// "CONTROLLER/Controller.inf" (rewritten whole at every status change), the
// controller log "CONTROLLER/Controller.log" (controllers added and deleted,
// uninstall results, errors of the controller list) and the monthly shutdown
// logs "SHUTDOWN/<YYYYMM>_sh.log"; and the start-up check of the operator's
// controller list "Membercnt.cfg" against what the member followed before.
// All files live in the data directory D ("Path" + "/"); names that came
// from the network are written with their control characters shown as '?'.
#pragma once

#include <ctime>
#include <functional>
#include <string>

#include "control/Records.h"

class Clock;
class FileMap;

class CreateMultiControllerFile {
public:
    static const char* const COMM_Status_Str[4];
    static const char* const Power_Staus_Str[4];
    static const char* const Output_Staus_Str[3];
    static const char* const Shutdown_mode_Str[2];

    // Display type of the member-side thread of slot 0..3 (1 identity, 2 host
    // name, other: address); a negative value when the slot has no thread.
    using DisplayTypeOf = std::function<int(int slot)>;

    // The uninstall exchange: the arguments and result of
    // CtrlerUninst::Uninst_func (results[i] = 0: controller i confirmed).
    using Uninstaller = std::function<int(unsigned char count, char* ctrlAddrs, unsigned short* ctrlPorts,
                                          char* ownAddr, unsigned short ownPort, unsigned char* results)>;

    // Replaces the uninstall exchange (tests); an empty function restores the
    // real one.
    static void setUninstaller(Uninstaller uninstaller);
    // Where the time stamps come from (the system clock when null).
    static void setClock(Clock* clock);

    // The data directory: "Path" + "/", or `home` when "Path" is empty.
    static std::string DataDir(FileMap* config, const std::string& home);

    // "YYYY/MM/DD hh:mm:ss" of the local time t; *monthKey (when given)
    // becomes "YYYYMM".
    static std::string GetLogDate(time_t t, std::string* monthKey = nullptr);

    // Rewrites dir + "CONTROLLER/Controller.inf" from the status record: the
    // shutdown mode, one row per slot in use and the name of each slot in use
    // that has a member-side thread. 0 always (a file that cannot be written
    // is skipped and reported once).
    static int WriteControllerInf(ShutCNT* info, const char* dir, FileMap* config, FileMap* members,
                                  const DisplayTypeOf& displayType);
    // One row of the table for slot 0..3 (the line feed included).
    static std::string EditControllerInf(const ShutCNT& info, int slot, FileMap* config);
    // The three timing values of a row are shown with their command mark
    // only when none is above 9999.
    static bool InfShutTimeCheck(int winkTime, int shutdownTime, int appTermTimeOut);

    // The name of slot n (1..4) as the operator knows it, by display type:
    // 1 "UGName<n>" (of Membercnt.cfg while that is empty), 2 "HostName<n>" (the configured host name of
    // Membercnt.cfg while that is empty), else "CtrlIPAddress<n>". Printable.
    static std::string DisplayName(int type, int n, FileMap* config, FileMap* members);

    // Appends one shutdown decision (mode 1 = shutdown, else feeding) to
    // dir + "SHUTDOWN/<YYYYMM>_sh.log". 0 always.
    static int WriteShutdownLog(int mode, const char* controller, int reason, DG2_ShutdownTimming* timing,
                                const char* dir);
    // The line of WriteShutdownLog (line feed included).
    static std::string GetShutdownLogInfo(time_t t, int mode, const char* controller, int reason,
                                          const DG2_ShutdownTimming& timing);

    // Appends to dir + "CONTROLLER/Controller.log": kind 0 "Add Controller";
    // kind 1 "Delete Controller" and then "Uninstall Success" (result 0) or
    // "Uninstall Failure" (result 1). 0 always.
    static int WriteCtrlerLog(int kind, int result, const char* name, const char* dir);
    // Appends an error line: 0 "Configuration File Lost", 1 "IP Address is
    // too wordy", 2 "There is none of IP Address or same it", 3 "Port Error".
    static int WriteCtrlerErrLog(int code, const char* dir);
    // Uninstalls confirmed since the process started.
    static int UninstallSuccesses();

    // The member's start-up check. Loads *members from dir + "Membercnt.cfg"
    // (null, an error line and 1 when it is missing; the caller owns the
    // map). Compares each slot's "IPAddress<n>" with "CtrlIPAddress<n>" of
    // `config` ("Kestrava.ini"): controllers newly listed are added, those
    // removed or replaced are uninstalled (own `address` and `port`) and
    // deleted; a slot in error is left unused for this run (its
    // "IPAddress<n>" is cleared in memory only) and its keys untouched.
    // Saves `config` once when it changed. Fills *timing from the timing
    // last received and sets *changed when it differs from slot 1's keys.
    // Returns 0 when the list was loaded.
    static int CheckControllerFile(const std::string& address, int port, const std::string& dir, FileMap* config,
                                   FileMap** members, DG2_ShutdownTimming* timing, bool* changed);
};
