#include "control/PowerTh.h"

#include <cstring>
#include <string>

#include "control/Codes.h"
#include "control/StCTrl.h"
#include "core/ShellRunner.h"
#include "core/SystemPaths.h"

PowerTh::PowerTh(int number, StCTrl* ctrl) : tthread(number), mCtrl(ctrl) { memset(&mNotify, 0, sizeof mNotify); }

PowerTh::~PowerTh() {}

void PowerTh::thread_main()
{
    EVENTMSGINFO ev;
    for (;;) {
        mCtrl->GetEvent(&ev, GetMyThrad());
        handle(&ev);
    }
}

void PowerTh::handle(EVENTMSGINFO* ev)
{
    switch (ev->code) {
    case EvHostShutdown:
        PowerShutdown();
        break;
    case EvAppTerm:
        TermCommand(ev->params[0]);
        // Only the code is set: the count stays what the record last held.
        mNotify.code = NtAppCommandDone;
        notify(&mNotify);
        break;
    case EvScheduleRelay:
        mNotify.code = NtSchedule;
        mNotify.count = 3;
        mNotify.params[0] = ev->params[0] - 1;
        mNotify.params[1] = ev->params[1];
        mNotify.params[2] = ev->params[2];
        notify(&mNotify);
        break;
    default:
        break;
    }
}

int PowerTh::PowerShutdown() { return ShellRunner::system().run(SystemPaths::shutdownCommand()); }

void PowerTh::TermCommand(int k)
{
    std::string cmd = mCtrl->getRunCommand(k);
    if (cmd.empty())
        return;
    // The system runner forks twice, so the finished command is reaped by
    // the system and this thread never waits for it.
    ShellRunner::system().launchDetached(cmd);
}

void PowerTh::notify(_NOTIFYMSGINFO* nt) { mCtrl->SetNotify(nt); }

void PowerTh::ReportCountdown(int) {}
void PowerTh::PowerWrong(int) {}
void PowerTh::ReportCancel() {}
void PowerTh::PowerRecovery() {}
void PowerTh::scheduleShutdown(int) {}
void PowerTh::scheduleCancel() {}
