// The notification dispatch of the controller core, with the UPS link,
// timer-expiry and network/console rules. Power, schedule and
// application-end rules are in StCTrlPowerRules.cpp.
#include <cstring>

#include "control/StCTrl.h"

namespace {

int lastParam(const _NOTIFYMSGINFO* nt) { return nt->count > 0 ? nt->params[nt->count - 1] : 8; }
} // namespace

void StCTrl::NotifyToEvent(_NOTIFYMSGINFO* nt)
{
    refreshNow();
    switch (nt->code) {
    case 1000:
        timerExpiry(nt);
        break;
    case 2000:
    case 2001:
    case 2002:
    case 2003:
    case 2005:
    case 2006:
        upsLinkRule(nt);
        break;
    case 3001:
        appCommandLaunched();
        break;
    case 6006: {
        int n = lastParam(nt);
        if (n >= 8 && n <= 11)
            powerRules(nt, n);
        break;
    }
    case 6007:
    case 6008:
    case 6009:
        memberCountdownEnd(nt);
        break;
    case 6010:
        scheduleRule(nt);
        break;
    case 6011:
        daemonStopping();
        break;
    default:
        networkRule(nt);
        break;
    }
}

void StCTrl::upsLinkRule(_NOTIFYMSGINFO* nt)
{
    EVENTMSGINFO ev;
    switch (nt->code) {
    case 2000:
        setPollingEvent(&ev);
        post(&ev);
        Set_State_UPS(2);
        postLog(11, 8);
        postMeterControl(10);
        restartMeterTimer();
        SetUPSCommInfo("UPS Monitor Established");
        break;
    case 2001:
        setDetectTimerStartEvent(&ev);
        post(&ev);
        if (GetStateUPS() == 0) {
            Set_State_UPS(1);
            postLog(10, 8);
            postMeterControl(9);
            SetUPSCommInfo("UPS Communication Error");
        }
        break;
    case 2002:
        if (nt->count > 5 || nt->params[3] == 1) {
            setPutUpsStatusEvent(&ev);
            post(&ev);
        }
        setPollingEvent(&ev);
        post(&ev);
        powerRules(nt, 8);
        break;
    case 2003:
        if (GetStateUPS() == 3)
            break;
        if (isController()) {
            setDetectTimerStartEvent(&ev);
            post(&ev);
            postMeterControl(9);
        }
        postLog(10, 8);
        Set_State_UPS(3);
        SetUPSCommInfo("UPS Communication Error");
        break;
    case 2005:
        setDetectTimerStartEvent(&ev);
        post(&ev);
        break;
    case 2006:
        if (GetStateUPS() != 3)
            break;
        Set_State_UPS(2);
        if (isController()) {
            setPollingEvent(&ev);
            post(&ev);
            postMeterControl(10);
        }
        postLog(11, 8);
        SetUPSCommInfo("UPS Communication Established");
        break;
    default:
        break;
    }
}

void StCTrl::timerExpiry(_NOTIFYMSGINFO* nt)
{
    EVENTMSGINFO ev;
    const int id = nt->params[0];
    const int owner = nt->params[2];
    if (id == 1) {
        makeEvent(&ev, 2, GetStateUPS() == 3 ? 203 : 200, {});
        post(&ev);
    } else if (id == 2) {
        makeEvent(&ev, 2, 201, {});
        post(&ev);
    } else if (id >= 3 && id <= 6) {
        winkExpiry(8 + id - 3);
    } else if (id >= 7 && id <= 10) {
        countdownTick(8 + id - 7);
    } else if (id == 11) {
        setMeterLogEvent(&ev);
        post(&ev);
    } else if (id >= 12 && id <= 15) {
        appEndExpiry(8 + id - 12);
    } else if (id == 16) {
        makeEvent(&ev, 5, 502, {});
        post(&ev);
    } else if (id >= 17 && id <= 20) {
        makeEvent(&ev, 8 + id - 17, 601, {});
        post(&ev);
    } else if (id >= 21 && id <= 28) {
        scheduleTimerExpiry(id, owner);
    } else if (id >= 30 && id <= 265) {
        makeEvent(&ev, owner, 603, {id});
        post(&ev);
    } else if (id >= 266 && id <= 330) {
        makeEvent(&ev, owner, 604, {id - 266});
        post(&ev);
    }
    // Ids 0, 29 and above 330 start nothing.
}

void StCTrl::networkRule(_NOTIFYMSGINFO* nt)
{
    EVENTMSGINFO ev;
    switch (nt->code) {
    case 6000:
        makeEvent(&ev, 8, 600, {});
        post(&ev);
        break;
    case 6001:
    case 6002:
    case 6004:
        // Timer start requested by the network side: id, seconds from now,
        // interval, owner.
        postTimerStart(nt->params[0], int(mNow + nt->params[1]), nt->params[2], nt->params[3]);
        break;
    case 6003:
        postTimerStop(nt->params[0]);
        break;
    case 6005:
        makeEvent(&ev, 0, 102, {nt->params[0], nt->params[1]});
        post(&ev);
        break;
    case 6012:
        postLog(nt->params[1], lastParam(nt));
        break;
    case 6013:
        makeEvent(&ev, 5, 503, {nt->params[0]});
        post(&ev);
        break;
    case 6014:
        makeEvent(&ev, 5, 504, {});
        post(&ev);
        break;
    case 6015:
        makeEvent(&ev, 12, 900, {nt->params[0]});
        post(&ev);
        break;
    case 8000:
        makeEvent(&ev, 8, 800, {});
        post(&ev);
        break;
    case 8001:
        getShutdownTiming(0);
        makeEvent(&ev, 8, 801, {});
        post(&ev);
        break;
    case 8002: {
        std::string rate = conf("DumpLogRate");
        if (rate != mDumpLogRate && GetStateUPS() == 2) {
            restartMeterTimer();
            postMeterControl(0);
            postMeterControl(11);
        }
        setLogConfig();
        break;
    }
    case 9000:
        setAllTimerStopEvent(&ev, 1);
        post(&ev);
        break;
    case 9001:
        for (int k = 0; k < 4; ++k) {
            if (IsContActive(k)) {
                makeEvent(&ev, 8 + k, 803, {});
                post(&ev);
            }
        }
        break;
    default:
        break;
    }
}
