// Clocks and atomics of platform/zrt.h.
#include <atomic>
#include <chrono>

#include "platform/zrt.h"

namespace {

template <class Unit, class Clock>
uint64_t countOf() {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<Unit>(Clock::now().time_since_epoch()).count());
}

}  // namespace

uint64_t ZRT_TimeNow() { return countOf<std::chrono::microseconds, std::chrono::system_clock>(); }

uint64_t ZRT_GetTimeTick() {
  return countOf<std::chrono::milliseconds, std::chrono::steady_clock>();
}

int32_t ZRT_AtomicInc(int32_t* value) { return std::atomic_ref(*value).fetch_add(1) + 1; }
