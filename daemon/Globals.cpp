// Definition of the process-wide objects. They are defined in this one file
// so that they are constructed in this order (and destroyed in reverse).
#include "daemon/Globals.h"

#include "control/Codes.h"
#include "control/PowerTh.h"
#include "control/StCTrl.h"
#include "control/TimerIFTh.h"
#include "control/TimerTh.h"
#include "ipc/GetHostNameTh.h"
#include "ipc/IpcCTrlCTh.h"
#include "ipc/IpcCTrlMTh.h"
#include "ipc/IpcData.h"
#include "ipc/IpcIFTh.h"
#include "log/LogTh.h"
#include "operator/CuiIFTh.h"
#include "xcp/XcpIFTh.h"
#include "xcp/XcpTh.h"

StCTrl gCStCtrl(StCTrl::Wiring{&gpMapConfig, &gpm_Memcnt, &gUpsData, &gHomeDir});
TimerTh gCTimerThread(ThTimer, &gCTimerIfThread, &gCStCtrl);
TimerIFTh gCTimerIfThread(ThTimerIF, &gCStCtrl);
XcpTh gCXcpThread(ThXcp);
XcpIFTh gCXcpIfThread(ThXcpIF);
LogTh gCLogThread(ThLog, &gCStCtrl,
                  LogTh::Wiring{&gpMapConfig, &gpMapMessage, &gpm_Memcnt, &gUpsData, &gHomeDir, g_pMemberTh, nullptr});
PowerTh gPowerThread(ThPower, &gCStCtrl);
CuiIFTh gCCuiIFThread(ThCui, &gCStCtrl, &gpMapConfig);
IpcIFTh gIpcIfThread(ThIpcIF, IpcIFTh::Wiring{&gCStCtrl, &gIpcData, &gpMapConfig, &gpm_Memcnt, {}, {}, nullptr});
IpcCTrlCTh gIpcCTrlCThread(ThCtrlSlot0, &gCStCtrl, IpcCTrlCTh::Wiring{&gIpcData, &gpMapConfig, &gUpsData, nullptr});
IpcCTrlMTh gIpcCTrlMThread1(ThCtrlSlot0);
IpcCTrlMTh gIpcCTrlMThread2(ThCtrlSlot1);
IpcCTrlMTh gIpcCTrlMThread3(ThCtrlSlot2);
IpcCTrlMTh gIpcCTrlMThread4(ThCtrlSlot3);
GetHostNameTh g_GetHostNameTh(ThHostName);

std::string gHomeDir;
FileMap* gpMapMessage = nullptr;
FileMap* gpMapConfig = nullptr;
FileMap* gpm_Memcnt = nullptr;
UpsDataBlock* gUpsData = nullptr;
IpcCTrlMTh* g_pMemberTh[4] = {nullptr, nullptr, nullptr, nullptr};
IpcData* gIpcData = nullptr;
