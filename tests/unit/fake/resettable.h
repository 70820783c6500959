// The reset routines of the fake libraries' parts, called by fake::reset().
#pragma once

namespace fake {

void resetHttp();
void resetDeviceBus();
void resetGateway();
void resetRuntime();
void resetAlarmBus();
void resetLog();

}  // namespace fake
