// Whether the timers of platform/zrt.h turn. Used by the host for the service manager's watchdog,
// and by whoever has to say that the gateway is alive.
#pragma once

#include <chrono>

namespace qn {

// How long the latest of the running timers is behind: the time since a run was due that has not
// begun or not ended. Any thread.
std::chrono::milliseconds timersOverdue();

}  // namespace qn
