// Power, schedule and application-end rules of the controller core.
#include "control/StCTrl.h"

void StCTrl::powerRules(_NOTIFYMSGINFO*, int) {}
void StCTrl::alarmList(_NOTIFYMSGINFO*, int) {}
void StCTrl::winkExpiry(int) {}
void StCTrl::countdownTick(int) {}
void StCTrl::appEndExpiry(int) {}
void StCTrl::scheduleTimerExpiry(int, int) {}
void StCTrl::scheduleRule(_NOTIFYMSGINFO*) {}
void StCTrl::memberCountdownEnd(_NOTIFYMSGINFO*) {}
void StCTrl::daemonStopping() {}
void StCTrl::appCommandLaunched() {}
