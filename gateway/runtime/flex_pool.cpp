// See flex_pool.h and platform/zrt.h.
#include "gateway/runtime/flex_pool.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <unordered_map>
#include <utility>

#include "gateway/runtime/last_error.h"
#include "gateway/runtime/thread.h"

namespace qn {
namespace {

thread_local const FlexPool* poolOfThisThread = nullptr;

// The pools by handle. Never destroyed: jobs may queue more while the process ends.
class Pools {
 public:
  static Pools& instance() {
    static auto* const pools = new Pools;
    return *pools;
  }

  int64_t add(std::shared_ptr<FlexPool> pool) {
    const std::lock_guard lock(mutex_);
    pools_.emplace(++lastHandle_, std::move(pool));
    return lastHandle_;
  }

  std::shared_ptr<FlexPool> find(int64_t handle) {
    const std::lock_guard lock(mutex_);
    const auto found = pools_.find(handle);
    return found == pools_.end() ? nullptr : found->second;
  }

  // Of several callers one gets the pool.
  bool remove(int64_t handle) {
    const std::lock_guard lock(mutex_);
    return pools_.erase(handle) == 1;
  }

 private:
  std::mutex mutex_;
  std::unordered_map<int64_t, std::shared_ptr<FlexPool>> pools_;  // guarded by mutex_
  int64_t lastHandle_ = 0;                                        // guarded by mutex_
};

}  // namespace

int FlexPool::work(void* job) {
  const Lock lock(mutex_);
  if (finishing_) return ENOENT;
  if (queue_.size() >= kQueueLimit) return EAGAIN;
  queue_.push_back(job);
  const int error = callHelp();
  if (error == 0 || !threads_.empty()) return 0;
  queue_.pop_back();  // nobody would run it: it stays the caller's
  return error;
}

// Keeps this true: while jobs wait, a thread is on its way to them, or one works and another, if
// there may be another, watches that it gets on. A wake-up costs more than most jobs, so one thread
// does them all as long as none waits for long.
int FlexPool::callHelp() {
  if (queue_.empty() || coming_ || (getsOn() && watched_)) return 0;
  if (idle_ > 0) {
    coming_ = true;
    wakeUp_.notify_one();
    return 0;
  }
  // finish() joins the threads that it found.
  return threads_.size() < options_.maxThreads && !finishing_ ? startOne() : 0;
}

// Whether a job runs that is not known to keep others waiting.
bool FlexPool::getsOn() const { return running_ > stuck_; }

int FlexPool::startOne() try {
  threads_.reserve(threads_.size() + 1);
  pthread_t thread;
  const int error = startThread(thread, "pool", options_.stackBytes,
                                [self = shared_from_this()] { self->run(); });
  if (error != 0) return error;
  threads_.push_back(thread);
  coming_ = true;
  return 0;
} catch (const std::bad_alloc&) {
  return ENOMEM;
}

void FlexPool::run() {
  poolOfThisThread = this;
  Lock lock(mutex_);
  do {
    coming_ = false;
    if (!isNeeded(lock)) continue;
    do {
      runJobs(lock);
    } while (gather(lock));
  } while (awaitCall(lock));
  leave();
}

// For a thread that was called: whether it is to take jobs, perhaps after it has watched.
bool FlexPool::isNeeded(Lock& lock) {
  if (queue_.empty() || !getsOn() || finishing_) return !queue_.empty();
  return !watched_ && watch(lock);
}

// Until a job has waited for kPatience, which is true, or nothing has happened for as long.
bool FlexPool::watch(Lock& lock) {
  watched_ = true;
  bool late = false;
  bool quiet = false;
  while (!finishing_ && !late && !quiet) {
    const auto taken = taken_;
    const auto queued = taken_ + queue_.size();
    finish_.wait_for(lock, kPatience);
    late = taken_ < queued;
    quiet = queue_.empty() && taken_ == taken;
  }
  watched_ = false;
  if (late) stuck_ = running_;
  return !queue_.empty();
}

void FlexPool::runJobs(Lock& lock) {
  while (!queue_.empty()) {
    void* const job = queue_.front();
    queue_.pop_front();
    ++taken_;
    ++running_;
    callHelp();
    lock.unlock();
    callRoutine("pool", [&] { return options_.routine(job); });
    lock.lock();
    --running_;
    stuck_ = std::min(stuck_, running_);
  }
}

// When jobs follow each other closely, lets some gather without a wake-up for each.
bool FlexPool::gather(Lock& lock) {
  const auto now = Clock::now();
  const bool close = now - std::exchange(drained_, now) < 2 * kGatherTime;
  if (!close || coming_ || finishing_) return false;
  coming_ = true;
  finish_.wait_for(lock, kGatherTime);
  coming_ = false;
  return !queue_.empty();
}

// False when the thread is to end.
bool FlexPool::awaitCall(Lock& lock) {
  const auto end = Clock::now() + options_.idleTime;
  auto status = std::cv_status::no_timeout;
  ++idle_;
  while (!finishing_ && status == std::cv_status::no_timeout) {
    status = wakeUp_.wait_until(lock, end);
    if (!queue_.empty()) break;
    coming_ = false;
  }
  --idle_;
  return !queue_.empty();
}

// Called with the mutex held, as the last use of the pool by an ending thread.
void FlexPool::leave() {
  if (finishing_) return;  // finish() joins
  std::erase_if(threads_, [](pthread_t t) { return pthread_equal(t, pthread_self()) != 0; });
  pthread_detach(pthread_self());
}

void FlexPool::finish() {
  std::vector<pthread_t> threads;
  {
    const Lock lock(mutex_);
    finishing_ = true;
    threads.swap(threads_);
  }
  wakeUp_.notify_all();
  finish_.notify_all();
  for (const pthread_t thread : threads) pthread_join(thread, nullptr);
}

bool FlexPool::runsHere() const { return poolOfThisThread == this; }

}  // namespace qn

int64_t ZRT_ThreadPoolFlex_Create(int maxThreads, int idleMs, ZRT_PoolRoutine routine,
                                  int stackBytes) {
  if (maxThreads < 1 || idleMs < 0 || routine == nullptr || stackBytes < 0) return qn::fail(EINVAL);
  return qn::withoutThrowing([&]() -> int64_t {
    return qn::Pools::instance().add(std::make_shared<qn::FlexPool>(
        qn::FlexPoolOptions{static_cast<std::size_t>(maxThreads), std::chrono::milliseconds(idleMs),
                            routine, static_cast<std::size_t>(stackBytes)}));
  });
}

int ZRT_ThreadPoolFlex_Work(int64_t pool, void* job) {
  return qn::withoutThrowing([&] {
    const auto found = qn::Pools::instance().find(pool);
    return qn::resultOf(found ? found->work(job) : ENOENT);
  });
}

int ZRT_ThreadPoolFlex_Destroy(int64_t pool) {
  return qn::withoutThrowing([&] {
    const auto found = qn::Pools::instance().find(pool);
    if (found && found->runsHere()) return qn::fail(EDEADLK);  // it would wait for itself
    if (!found || !qn::Pools::instance().remove(pool)) return qn::fail(ENOENT);
    found->finish();
    return 0;
  });
}
