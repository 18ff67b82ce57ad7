// Definition of the process-wide objects. They are defined in this one file
// so that they are constructed in this order (and destroyed in reverse).
#include "daemon/Globals.h"

#include "control/PowerTh.h"
#include "control/StCTrl.h"
#include "control/TimerIFTh.h"
#include "control/TimerTh.h"
#include "ipc/GetHostNameTh.h"
#include "ipc/IpcCTrlCTh.h"
#include "ipc/IpcCTrlMTh.h"
#include "ipc/IpcIFTh.h"
#include "log/LogTh.h"
#include "operator/CuiIFTh.h"
#include "xcp/XcpIFTh.h"
#include "xcp/XcpTh.h"

StCTrl gCStCtrl;
TimerTh gCTimerThread(0);
TimerIFTh gCTimerIfThread(1);
XcpTh gCXcpThread(2);
XcpIFTh gCXcpIfThread(3);
LogTh gCLogThread(5);
PowerTh gPowerThread(4);
CuiIFTh gCCuiIFThread(6);
IpcIFTh gIpcIfThread(13);
IpcCTrlCTh gIpcCTrlCThread(8);
IpcCTrlMTh gIpcCTrlMThread1(8);
IpcCTrlMTh gIpcCTrlMThread2(9);
IpcCTrlMTh gIpcCTrlMThread3(10);
IpcCTrlMTh gIpcCTrlMThread4(11);
GetHostNameTh g_GetHostNameTh(12);

std::string gHomeDir;
FileMap* gpMapMessage = nullptr;
FileMap* gpMapConfig = nullptr;
FileMap* gpm_Memcnt = nullptr;
UpsDataBlock* gUpsData = nullptr;
IpcCTrlMTh* g_pMemberTh[4] = {nullptr, nullptr, nullptr, nullptr};
