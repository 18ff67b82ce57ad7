// Countdown and shutdown timing of the controller core.
#include "control/StCTrl.h"

void StCTrl::countdownStart(EVENTMSGINFO*, int, int) {}
void StCTrl::countdownContinue(EVENTMSGINFO*, int) {}
void StCTrl::countdownCancel(EVENTMSGINFO*, int) {}
void StCTrl::countdownEnd(EVENTMSGINFO*, int, int, bool) {}
bool StCTrl::ISStartShutdown(int, int) { return false; }
void StCTrl::StartShutdown(int, int) {}
void StCTrl::shutdown(EVENTMSGINFO*, int) {}
void StCTrl::setHappenPowerEvent(int) {}
void StCTrl::setAppEndEvent() {}
