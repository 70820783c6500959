// One flexible thread pool of platform/zrt.h. The pool functions there look it up by its handle.
#pragma once

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
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

  // 0, or an errno value: ENOENT after finish(), EAGAIN with a full queue, ENOMEM or
  // pthread_create's when there is no thread at all. Starts at most one thread and never waits for
  // one.
  int work(void* job);
  // Takes no more work; returns when every queued job has run and the threads have ended. Once, and
  // never on the pool's own threads.
  void finish();
  // Whether the calling thread is one of this pool's.
  bool runsHere() const;

 private:
  using Lock = std::unique_lock<std::mutex>;

  using Clock = std::chrono::steady_clock;

  int callHelp();
  bool getsOn() const;
  int startOne();
  void run();
  bool isNeeded(Lock& lock);
  bool watch(Lock& lock);
  void runJobs(Lock& lock);
  bool gather(Lock& lock);
  bool awaitCall(Lock& lock);
  void leave();

  // A further thread takes jobs when one has waited for longer.
  static constexpr std::chrono::milliseconds kPatience{3};
  static constexpr std::chrono::milliseconds kGatherTime{1};

  const FlexPoolOptions options_;
  std::mutex mutex_;
  std::condition_variable wakeUp_;  // idle threads
  std::condition_variable finish_;  // those that watch or let jobs gather
  // Guarded by mutex_:
  std::deque<void*> queue_;
  std::vector<pthread_t> threads_;
  std::size_t idle_ = 0;       // threads that wait to be called; one that was counts until it wakes
  std::size_t running_ = 0;    // jobs
  std::size_t stuck_ = 0;      // of these, during which a job waited for kPatience
  bool coming_ = false;        // a thread was called or lets jobs gather, and will look by itself
  bool watched_ = false;       // a thread watches that the others get on
  uint64_t taken_ = 0;         // jobs
  Clock::time_point drained_;  // when a thread last found no further job
  bool finishing_ = false;
};

}  // namespace qn
