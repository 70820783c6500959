// Threads of the pools and timers: POSIX threads, because std::thread knows no stack size.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <functional>

namespace qn {

// Starts a joinable thread that runs `body`, which must not throw. A stackBytes of 0 is the
// system's default, one below the system's minimum that minimum. Returns 0 with the thread set, or
// an errno value. `name` has at most 15 characters.
int startThread(pthread_t& thread, const char* name, std::size_t stackBytes,
                std::function<void()> body);

// Calls a routine of the runtime's user. Routines must not throw; one that does is logged, and the
// process goes on.
void callRoutine(const char* kind, const std::function<int()>& routine) noexcept;

}  // namespace qn
