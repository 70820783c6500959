// What tests of several threads wait on.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <latch>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace qn {

// Counts events of any thread; waits for a number of them.
class Events {
 public:
  void signal() {
    const std::lock_guard lock(mutex_);
    ++count_;
    changed_.notify_all();
  }

  int count() {
    const std::lock_guard lock(mutex_);
    return count_;
  }

  // Whether `count` events have come in time; the default is ample, for loaded machines.
  bool wait(int count = 1, std::chrono::milliseconds patience = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, patience, [&] { return count_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;  // guarded by mutex_
};

// Waits for something that another thread does; 20 s at most.
inline bool eventually(const std::function<bool()>& holds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// Calls work(0) to work(count - 1) on as many threads at once and waits for them.
inline void onThreads(int count, const std::function<void(int)>& work) {
  std::latch start(count);
  std::vector<std::jthread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      work(i);
    });
  }
}

}  // namespace qn
