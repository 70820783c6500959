// Timers of platform/zrt.h. Each has a thread of its own: there are few, and a slow routine then
// delays no other timer.
#include "gateway/runtime/timers.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <limits>
#include <memory>
#include <new>
#include <unordered_map>
#include <utility>

#include "gateway/net/thread.h"
#include "gateway/runtime/operation.h"
#include "gateway/runtime/routine.h"
#include "gateway/sync/mutex.h"
#include "platform/zrt.h"

namespace qn {
namespace {

using Clock = std::chrono::steady_clock;

struct TimerOptions {
  ZRT_TimerRoutine routine;
  void* user;
  Clock::duration period;
};

// One timer; its thread keeps it alive.
class Timer {
 public:
  Timer(int id, const TimerOptions& options) : id_(id), options_(options) {}

  // An errno value. The caller serialises start and stop.
  static int start(const std::shared_ptr<Timer>& timer) {
    try {
      return startThread(timer->thread_, "timer", 0, [timer] { timer->run(); });
    } catch (const std::bad_alloc&) {
      return ENOMEM;
    }
  }

  Clock::duration overdue() const {
    return Clock::now().time_since_epoch() - Clock::duration(due_.load());
  }

  // No run starts after it; waits for one that is going on, unless called from it. Once.
  void stop() {
    {
      const MutexLock lock(mutex_);
      stopped_ = true;
    }
    wakeUp_.notifyAll();
    if (timerOfThisThread_ == this) {
      pthread_detach(pthread_self());
    } else {
      pthread_join(thread_, nullptr);
    }
  }

 private:
  void run() {
    timerOfThisThread_ = this;
    auto due = Clock::now() + options_.period;
    MutexLock lock(mutex_);
    while (!stopped_) {
      due_ = due.time_since_epoch().count();
      if (wakeUp_.waitUntil(mutex_, due)) continue;
      lock.unlock();
      callRoutine("timer", [this] { return options_.routine(id_, options_.user); });
      lock.lock();
      due = nextAfter(due);
    }
  }

  // The grid is kept, so that periods do not drift; the runs that were missed are skipped.
  Clock::time_point nextAfter(Clock::time_point due) const {
    const auto late = Clock::now() - due;
    return due + options_.period * (late / options_.period + 1);
  }

  static thread_local const Timer* timerOfThisThread_;

  const int id_;
  const TimerOptions options_;
  std::atomic<Clock::rep> due_ = (Clock::now() + options_.period).time_since_epoch().count();
  pthread_t thread_{};  // guarded by the timers' table
  Mutex mutex_;
  Condition wakeUp_;
  bool stopped_ QN_GUARDED_BY(mutex_) = false;
};

thread_local const Timer* Timer::timerOfThisThread_ = nullptr;

// The running timers by id. Never destroyed: routines may stop timers while the process ends.
class Timers {
 public:
  static constexpr std::size_t kLimit = 256;  // of threads

  static Timers& instance() {
    static auto* const timers = new Timers;
    return *timers;
  }

  // 0 or an errno value; timerId is set before the first run.
  int add(const TimerOptions& options, int& timerId) {
    const MutexLock lock(mutex_);
    if (timers_.size() >= kLimit) return EAGAIN;
    const int id = unusedId();
    const auto entry = timers_.emplace(id, std::make_shared<Timer>(id, options)).first;
    timerId = id;
    const int error = Timer::start(entry->second);
    if (error == 0) return 0;
    timerId = -1;
    timers_.erase(entry);
    return error;
  }

  Clock::duration overdue() {
    const MutexLock lock(mutex_);
    Clock::duration longest{0};
    for (const auto& [id, timer] : timers_) longest = std::max(longest, timer->overdue());
    return longest;
  }

  // Null for an unknown id; of several callers one gets the timer.
  std::shared_ptr<Timer> take(int id) {
    const MutexLock lock(mutex_);
    const auto node = timers_.extract(id);
    return node ? node.mapped() : nullptr;
  }

 private:
  // From a counter, so that the id of a stopped timer does not come back soon.
  int unusedId() QN_REQUIRES(mutex_) {
    do {
      lastId_ = lastId_ == std::numeric_limits<int>::max() ? 1 : lastId_ + 1;
    } while (timers_.contains(lastId_));
    return lastId_;
  }

  Mutex mutex_;
  std::unordered_map<int, std::shared_ptr<Timer>> timers_ QN_GUARDED_BY(mutex_);
  int lastId_ QN_GUARDED_BY(mutex_) = 0;
};

}  // namespace

std::chrono::milliseconds timersOverdue() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Timers::instance().overdue());
}

}  // namespace qn

int ZRT_SetTimer(ZRT_TimerRoutine routine, void* user, int periodMs, int& timerId, int /*option*/) {
  if (routine == nullptr || periodMs < 1) return qn::fail(EINVAL);
  return qn::withoutThrowing([&] {
    return qn::resultOf(
        qn::Timers::instance().add({routine, user, std::chrono::milliseconds(periodMs)}, timerId));
  });
}

int ZRT_KillTimer(int timerId) {
  const auto timer = qn::Timers::instance().take(timerId);
  if (!timer) return qn::fail(ENOENT);
  timer->stop();
  return 0;
}
