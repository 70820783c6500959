// See operation.h.
#include "gateway/runtime/operation.h"

#include "platform/zrt.h"

namespace {
thread_local int lastError = 0;
}

int qn::fail(int error) {
  lastError = error;
  return -1;
}

int ZRT_GetLastError() { return lastError; }

int ZRT_GetSystemLastError() { return errno; }
