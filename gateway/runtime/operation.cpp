// See operation.h.
#include "gateway/runtime/operation.h"

#include <exception>

#include "gateway/log/log.h"
#include "platform/zrt.h"

namespace {
thread_local int lastError = 0;
}

namespace qn {

int fail(int error) {
  lastError = error;
  return -1;
}

void callRoutine(const char* kind, const std::function<int()>& routine) noexcept {
  try {
    routine();
  } catch (const std::exception& e) {
    logError("a {} routine threw: {}", kind, e.what());
  } catch (...) {
    logError("a {} routine threw", kind);
  }
}

}  // namespace qn

int ZRT_GetLastError() { return lastError; }

int ZRT_GetSystemLastError() { return errno; }
