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
CuiIFTh gCCuiIFThread(ThCui, &gCStCtrl, &gpMapConfig, &gUpsData, &gIpcData);
IpcIFTh gIpcIfThread(ThIpcIF, IpcIFTh::Wiring{&gCStCtrl, &gIpcData, &gpMapConfig, &gpm_Memcnt, {}, {}, nullptr});
IpcCTrlCTh gIpcCTrlCThread(ThCtrlSlot0, &gCStCtrl, IpcCTrlCTh::Wiring{&gIpcData, &gpMapConfig, &gUpsData, nullptr});
IpcCTrlMTh gIpcCTrlMThread1(ThCtrlSlot0, &gCStCtrl, IpcCTrlMTh::Wiring{&gIpcData, &gpMapConfig, &gpm_Memcnt, &gUpsData, nullptr, {}});
IpcCTrlMTh gIpcCTrlMThread2(ThCtrlSlot1, &gCStCtrl, IpcCTrlMTh::Wiring{&gIpcData, &gpMapConfig, &gpm_Memcnt, &gUpsData, nullptr, {}});
IpcCTrlMTh gIpcCTrlMThread3(ThCtrlSlot2, &gCStCtrl, IpcCTrlMTh::Wiring{&gIpcData, &gpMapConfig, &gpm_Memcnt, &gUpsData, nullptr, {}});
IpcCTrlMTh gIpcCTrlMThread4(ThCtrlSlot3, &gCStCtrl, IpcCTrlMTh::Wiring{&gIpcData, &gpMapConfig, &gpm_Memcnt, &gUpsData, nullptr, {}});
// The protocol threads actually started (start-up fills the configured
// slots); the host-name thread reads the entries when a request comes.
IpcCTrlMTh* g_pMemberTh[4] = {nullptr, nullptr, nullptr, nullptr};
GetHostNameTh g_GetHostNameTh(ThHostName, g_pMemberTh, &gCStCtrl);

std::string gHomeDir;
FileMap* gpMapMessage = nullptr;
FileMap* gpMapConfig = nullptr;
FileMap* gpm_Memcnt = nullptr;
UpsDataBlock* gUpsData = nullptr;
IpcData* gIpcData = nullptr;
