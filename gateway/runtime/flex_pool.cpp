// See flex_pool.h and platform/zrt.h.
#include "gateway/runtime/flex_pool.h"

#include <algorithm>
#include <cerrno>
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
  // The thread comes before its job: whatever fails, the job is then still the caller's.
  if (queue_.size() >= idle_ && threads_.size() < options_.maxThreads) {
    const int error = startOne();
    if (error != 0 && threads_.empty()) return error;
  }
  queue_.push_back(job);
  callHelp();
  return 0;
}

// Keeps this true: while jobs wait and a thread idles, a thread is on its way or looks after them
// from time to time. A wake-up costs more than most jobs, so a few threads do them all as long as
// these get on.
void FlexPool::callHelp() {
  if (queue_.empty() || idle_ == 0 || onTheWay_) return;
  if (watched_ && !wantsThread()) return;
  onTheWay_ = true;
  wakeUp_.notify_one();
}

bool FlexPool::wantsThread() const { return threads_.size() - idle_ < kEagerThreads; }

int FlexPool::startOne() {
  threads_.reserve(threads_.size() + 1);
  pthread_t thread;
  const int error = startThread(thread, "pool", options_.stackBytes,
                                [self = shared_from_this()] { self->run(); });
  if (error == 0) threads_.push_back(thread);
  return error;
}

void FlexPool::run() {
  poolOfThisThread = this;
  Lock lock(mutex_);
  while (awaitJob(lock)) {
    void* const job = queue_.front();
    queue_.pop_front();
    ++taken_;
    callHelp();
    lock.unlock();
    callRoutine("pool", [&] { return options_.routine(job); });
    lock.lock();
  }
  leave();
}

bool FlexPool::awaitJob(Lock& lock) {
  if (!queue_.empty()) return true;
  ++idle_;
  const auto end = std::chrono::steady_clock::now() + options_.idleTime;
  while (!finishing_ && (queue_.empty() || !watchQueue(lock))) {
    const auto status = wakeUp_.wait_until(lock, end);
    onTheWay_ = false;
    if (status == std::cv_status::timeout && queue_.empty()) break;
  }
  --idle_;
  return !queue_.empty();
}

// For an idle thread that finds jobs: whether it is to take one. With enough threads at work it
// only sees to it that they get on.
bool FlexPool::watchQueue(Lock& lock) {
  onTheWay_ = false;
  if (wantsThread()) return true;
  if (watched_) return false;
  watched_ = true;
  uint64_t before;
  do {
    before = taken_;
    wakeUp_.wait_for(lock, kPatience);
    onTheWay_ = false;
  } while (!finishing_ && !queue_.empty() && !wantsThread() && taken_ != before);
  watched_ = false;
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
