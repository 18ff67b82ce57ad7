// PowerTh: the power action thread (number 4), the only thread that acts on
// the host. It runs the applications' termination commands (detached, never
// waited for) and the host shutdown command, and relays schedule timer
// steps back to the controller.
#pragma once

#include "control/Records.h"
#include "core/tthread.h"

class StCTrl;

class PowerTh : public tthread {
public:
    // ctrl: the controller whose events this thread takes and to which it
    // reports (the daemon's own by default).
    PowerTh(int number, StCTrl* ctrl);
    ~PowerTh() override;

    PowerTh(const PowerTh&) = delete;
    PowerTh& operator=(const PowerTh&) = delete;

    // Acts on one event: 303 shut the host down, 302 run the termination
    // command of slot p0 and report 3001, 306 relay a schedule step as 6010
    // (p0 - 1, p1, p2); anything else is ignored.
    void handle(EVENTMSGINFO* ev);

    // Runs the host shutdown command and returns its status.
    int PowerShutdown();
    // Starts the termination command of controller slot k without waiting;
    // an empty command starts nothing.
    void TermCommand(int k);

    // Operator reports are written by the log thread; the power thread has
    // nothing to do for them. These are kept so that the thread offers the
    // same set of operations as before, and deliberately do nothing.
    void ReportCountdown(int minutes);
    void PowerWrong(int state);
    void ReportCancel();
    void PowerRecovery();
    void scheduleShutdown(int minutes);
    void scheduleCancel();

protected:
    void thread_main() override;
    // Hands a notification to the controller.
    virtual void notify(_NOTIFYMSGINFO* nt);

private:
    StCTrl* mCtrl;
    // Kept between events: a 3001 carries whatever count the last 306 left.
    _NOTIFYMSGINFO mNotify;
};
