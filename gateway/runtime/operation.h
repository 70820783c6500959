// What the operations of platform/zrt.h have in common: the last error, running out of memory.
#pragma once

#include <cerrno>
#include <new>

namespace qn {

// Stores an errno value as the calling thread's last runtime error; returns -1.
int fail(int error);

// An errno value as the result of an operation: 0, or fail(error).
inline int resultOf(int error) { return error == 0 ? 0 : fail(error); }

// The operation's result; running out of memory is a failure like any other.
template <class Operation>
auto withoutThrowing(Operation operation) -> decltype(operation()) {
  try {
    return operation();
  } catch (const std::bad_alloc&) {
    return fail(ENOMEM);
  }
}

}  // namespace qn
