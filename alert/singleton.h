// The process-wide instance of a class, for the alert-stream handler.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>

namespace QNKAVROProtocol {

class CNoncopyable {
 public:
  CNoncopyable(const CNoncopyable&) = delete;
  CNoncopyable& operator=(const CNoncopyable&) = delete;

 protected:
  CNoncopyable() = default;
  ~CNoncopyable() = default;
};

// The one T, created on first use and destroyed at process exit. T derives from CSingleton<T>.
template <typename T>
class CSingleton : public CNoncopyable {
 public:
  // Any thread; takes the lock only until the instance exists. An exception of T's constructor
  // propagates, and the next call tries again.
  static T* Instance() {
    T* instance = published_.load(std::memory_order_acquire);
    return instance != nullptr ? instance : create();
  }

 protected:
  CSingleton() = default;
  ~CSingleton() = default;

 private:
  static T* create() {
    const std::unique_lock<std::mutex> lock(mutex_);
    if (!instance_) {
      instance_ = std::make_unique<T>();
      published_.store(instance_.get(), std::memory_order_release);
    }
    return instance_.get();
  }

  inline static std::mutex mutex_;
  inline static std::unique_ptr<T> instance_;         // guarded by mutex_
  inline static std::atomic<T*> published_{nullptr};  // what readers without the lock see
};

}  // namespace QNKAVROProtocol
