// A flexible pool and its jobs, as the tests of pools use them.
#pragma once

#include "platform/zrt.h"
#include "tests/contract/events.h"

namespace qn {

using Job = std::function<void()>;

inline int runJob(void* job) {
  (*static_cast<Job*>(job))();
  return 0;
}

inline constexpr int kLongIdleMs = 60000;

struct Pool {
  explicit Pool(int maxThreads, int idleMs = kLongIdleMs, int stackBytes = 0)
      : handle(ZRT_ThreadPoolFlex_Create(maxThreads, idleMs, runJob, stackBytes)) {
    EXPECT_NE(handle, -1);
  }
  ~Pool() { destroy(); }

  int work(Job& job) { return ZRT_ThreadPoolFlex_Work(handle, &job); }
  int destroy() { return ZRT_ThreadPoolFlex_Destroy(handle); }

  const int64_t handle;
};

// A job that says that it runs and waits until it is let go.
struct Blocking {
  Events entered, opened;
  Job job = [this] {
    entered.signal();
    EXPECT_TRUE(opened.wait());
  };
};

}  // namespace qn
