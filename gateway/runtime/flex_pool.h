// One flexible thread pool of platform/zrt.h. The pool functions there look it up by its handle.
#pragma once

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/zrt.h"

namespace qn {

struct FlexPoolOptions {
  std::size_t maxThreads;
  std::chrono::milliseconds idleTime;
  ZRT_PoolRoutine routine;
  std::size_t stackBytes;  // 0: the system's default
};

// Its threads keep it alive; only finish() ends those that have not idled.
class FlexPool : public std::enable_shared_from_this<FlexPool> {
 public:
  static constexpr std::size_t kQueueLimit = 65536;

  explicit FlexPool(const FlexPoolOptions& options) : options_(options) {}

  // 0, or an errno value: ENOENT after finish(), EAGAIN with a full queue, pthread_create's when
  // there is no thread at all. Starts at most one thread and never waits for one.
  int work(void* job);
  // Takes no more work; returns when every queued job has run and the threads have ended. Once, and
  // never on the pool's own threads.
  void finish();
  // Whether the calling thread is one of this pool's.
  bool runsHere() const;

 private:
  using Lock = std::unique_lock<std::mutex>;

  int startOne();
  void run();
  // Waits until there is a job, the idle time is over or the pool finishes; whether to go on.
  bool awaitJob(Lock& lock);
  void leave();
  void callHelp();
  bool wantsThread() const;
  bool watchQueue(Lock& lock);

  // As many threads take jobs at once; more only when none has taken one for kPatience.
  static constexpr std::size_t kEagerThreads = 2;
  static constexpr std::chrono::milliseconds kPatience{5};

  const FlexPoolOptions options_;
  std::mutex mutex_;
  std::condition_variable wakeUp_;
  // Guarded by mutex_:
  std::deque<void*> queue_;
  std::vector<pthread_t> threads_;
  std::size_t idle_ = 0;   // threads that wait; those already notified count until they wake
  bool onTheWay_ = false;  // a thread was notified and has not looked yet
  bool watched_ = false;   // an idle thread watches that the others get on
  uint64_t taken_ = 0;     // jobs
  bool finishing_ = false;
};

}  // namespace qn
