// Starts threads of the pools and timers: POSIX threads, because std::thread knows no stack size.
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

}  // namespace qn
