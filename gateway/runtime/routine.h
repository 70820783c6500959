// Calls the routines that users of platform/zrt.h give to its timers and pools.
#pragma once

#include <exception>

#include "gateway/log/log.h"

namespace qn {

// Routines must not throw; one that does is logged, and the process goes on.
template <class Routine>
void callRoutine(const char* kind, Routine routine) noexcept {
  try {
    routine();
  } catch (const std::exception& e) {
    logError("a {} routine threw: {}", kind, e.what());
  } catch (...) {
    logError("a {} routine threw", kind);
  }
}

}  // namespace qn
