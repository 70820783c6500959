// Mutexes whose guarded members clang checks: what a member's QN_GUARDED_BY names must be held
// where the member is used, or the build with -Wthread-safety says so (scripts/tidy). Used by every
// folder of the gateway; g++ sees plain standard mutexes.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#ifdef __clang__
#define QN_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define QN_THREAD_ATTRIBUTE(x)
#endif

#define QN_GUARDED_BY(mutex) QN_THREAD_ATTRIBUTE(guarded_by(mutex))
// For functions: the caller holds the mutex, or must not hold it.
#define QN_REQUIRES(...) QN_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define QN_EXCLUDES(...) QN_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
// For the locks themselves.
#define QN_CAPABILITY QN_THREAD_ATTRIBUTE(capability("mutex"))
#define QN_SCOPED_CAPABILITY QN_THREAD_ATTRIBUTE(scoped_lockable)
#define QN_ACQUIRE(...) QN_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define QN_ACQUIRE_SHARED(...) QN_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define QN_RELEASE(...) QN_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))

namespace qn {

class QN_CAPABILITY Mutex {
 public:
  void lock() QN_ACQUIRE() { mutex_.lock(); }
  void unlock() QN_RELEASE() { mutex_.unlock(); }
  bool tryLock() QN_THREAD_ATTRIBUTE(try_acquire_capability(true)) { return mutex_.try_lock(); }

 private:
  friend class Condition;
  std::mutex mutex_;
};

// Held from construction to the end of the scope, except between unlock() and lock().
class QN_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) QN_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() QN_RELEASE() {
    if (held_) mutex_.unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void unlock() QN_RELEASE() {
    held_ = false;
    mutex_.unlock();
  }
  void lock() QN_ACQUIRE() {
    mutex_.lock();
    held_ = true;
  }

 private:
  Mutex& mutex_;
  bool held_ = true;
};

// Wakes up without a reason too, so a wait stands in a loop over what it waits for. There is no
// form with a predicate: clang does not know that the mutex is held inside one.
class Condition {
 public:
  void wait(Mutex& mutex) QN_REQUIRES(mutex) {
    std::unique_lock lock(mutex.mutex_, std::adopt_lock);
    condition_.wait(lock);
    lock.release();
  }
  // False when the time has come.
  template <class Clock, class Duration>
  bool waitUntil(Mutex& mutex, std::chrono::time_point<Clock, Duration> time) QN_REQUIRES(mutex) {
    std::unique_lock lock(mutex.mutex_, std::adopt_lock);
    const auto status = condition_.wait_until(lock, time);
    lock.release();
    return status == std::cv_status::no_timeout;
  }
  void notifyOne() { condition_.notify_one(); }
  void notifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

class QN_CAPABILITY SharedMutex {
 public:
  void lock() QN_ACQUIRE() { mutex_.lock(); }
  void unlock() QN_RELEASE() { mutex_.unlock(); }
  void lockShared() QN_ACQUIRE_SHARED() { mutex_.lock_shared(); }
  void unlockShared() QN_THREAD_ATTRIBUTE(release_shared_capability()) { mutex_.unlock_shared(); }

 private:
  std::shared_mutex mutex_;
};

// For writers, and for readers.
class QN_SCOPED_CAPABILITY ExclusiveLock {
 public:
  explicit ExclusiveLock(SharedMutex& mutex) QN_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~ExclusiveLock() QN_RELEASE() { mutex_.unlock(); }
  ExclusiveLock(const ExclusiveLock&) = delete;
  ExclusiveLock& operator=(const ExclusiveLock&) = delete;

 private:
  SharedMutex& mutex_;
};
class QN_SCOPED_CAPABILITY SharedLock {
 public:
  explicit SharedLock(SharedMutex& mutex) QN_ACQUIRE_SHARED(mutex) : mutex_(mutex) {
    mutex_.lockShared();
  }
  ~SharedLock() QN_RELEASE() { mutex_.unlockShared(); }
  SharedLock(const SharedLock&) = delete;
  SharedLock& operator=(const SharedLock&) = delete;

 private:
  SharedMutex& mutex_;
};

}  // namespace qn
