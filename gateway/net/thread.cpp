// See thread.h.
#include "gateway/net/thread.h"

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <utility>

namespace qn {
namespace {

// The thread-local variables of all libraries stand on a thread's stack, and the system's smallest
// one has no room for them.
constexpr std::size_t kThreadLocals = 64 * 1024;

struct Start {
  const char* name;
  std::function<void()> body;
};

void* run(void* argument) {
  const std::unique_ptr<Start> start(static_cast<Start*>(argument));
  pthread_setname_np(pthread_self(), start->name);
  start->body();
  return nullptr;
}

class Attributes {
 public:
  Attributes() { pthread_attr_init(&attributes_); }
  ~Attributes() { pthread_attr_destroy(&attributes_); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;

  int setStack(std::size_t bytes) {
    const auto smallest = static_cast<std::size_t>(sysconf(_SC_THREAD_STACK_MIN));
    return pthread_attr_setstacksize(&attributes_, std::max(bytes, smallest + kThreadLocals));
  }
  const pthread_attr_t* get() const { return &attributes_; }

 private:
  pthread_attr_t attributes_;
};

}  // namespace

int startThread(pthread_t& thread, const char* name, std::size_t stackBytes,
                std::function<void()> body) {
  auto start = std::make_unique<Start>(Start{name, std::move(body)});
  Attributes attributes;
  if (stackBytes != 0) {
    if (const int error = attributes.setStack(stackBytes)) return error;
  }
  const int error = pthread_create(&thread, attributes.get(), &run, start.get());
  if (error == 0) static_cast<void>(start.release());  // the thread's now
  return error;
}

}  // namespace qn
