// The daemon's process-wide objects: the controller core, the worker threads
// (constructed in a fixed order before main runs), the three configuration
// maps, the UPS data and the home directory all files are named from.
#pragma once

#include <string>

class StCTrl;
class FileMap;
class UpsDataBlock;
class TimerTh;
class TimerIFTh;
class XcpTh;
class XcpIFTh;
class LogTh;
class PowerTh;
class CuiIFTh;
class IpcIFTh;
class IpcCTrlCTh;
class IpcCTrlMTh;
class GetHostNameTh;
class IpcData;

extern StCTrl gCStCtrl;
extern TimerTh gCTimerThread;
extern TimerIFTh gCTimerIfThread;
extern XcpTh gCXcpThread;
extern XcpIFTh gCXcpIfThread;
extern LogTh gCLogThread;
extern PowerTh gPowerThread;
extern CuiIFTh gCCuiIFThread;
extern IpcIFTh gIpcIfThread;
extern IpcCTrlCTh gIpcCTrlCThread;
extern IpcCTrlMTh gIpcCTrlMThread1;
extern IpcCTrlMTh gIpcCTrlMThread2;
extern IpcCTrlMTh gIpcCTrlMThread3;
extern IpcCTrlMTh gIpcCTrlMThread4;
extern GetHostNameTh g_GetHostNameTh;

extern std::string gHomeDir;
extern FileMap* gpMapMessage;
extern FileMap* gpMapConfig;
extern FileMap* gpm_Memcnt;
extern UpsDataBlock* gUpsData;
extern IpcCTrlMTh* g_pMemberTh[4];
// The member table of the coordination network, made once the configuration
// is loaded (it names its file from "Path"), before the network threads start.
extern IpcData* gIpcData;
