// What the operations of platform/zrt.h have in common: the last error, running out of memory,
// routines of the user that must not end the process.
#pragma once

#include <cerrno>
#include <exception>
#include <functional>
#include <new>

namespace qn {

// Stores an errno value as the calling thread's last runtime error; returns -1.
int fail(int error);

// An errno value as the result of an operation: 0, or fail(error).
inline int resultOf(int error) { return error == 0 ? 0 : fail(error); }

// The operation's result; running out of memory or descriptors is a failure like any other.
template <class Operation>
auto withoutThrowing(Operation operation) -> decltype(operation()) {
  try {
    return operation();
  } catch (const std::bad_alloc&) {
    return fail(ENOMEM);
  } catch (const std::exception&) {
    return fail(EAGAIN);  // descriptors
  }
}

// Calls a routine of the runtime's user. Routines must not throw; one that does is logged, and the
// process goes on.
void callRoutine(const char* kind, const std::function<int()>& routine) noexcept;

}  // namespace qn
