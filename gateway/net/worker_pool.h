// The few threads for work that may block or takes long: requests that wait for a device, picture
// uploads, very long translations. The HTTP service and the device-configuration bus post to it.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace qn {

class WorkerPool {
 public:
  using Job = std::function<void()>;  // must not throw

  WorkerPool(std::size_t threads, std::size_t queueLimit);
  ~WorkerPool();  // stops
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Never blocks; false when the queue is full or the pool has stopped (the job is not run).
  bool post(Job job);
  // Runs what is queued and ends the threads. Never call it on a worker thread. Harmless when
  // repeated.
  void stop();

 private:
  void run();

  const std::size_t queueLimit_;
  std::vector<std::thread> threads_;
  std::mutex mutex_;
  std::condition_variable wakeUp_;
  std::deque<Job> queue_;  // guarded by mutex_
  bool stopping_ = false;  // guarded by mutex_
};

}  // namespace qn
