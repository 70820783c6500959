// See worker_pool.h.
#include "gateway/net/worker_pool.h"

#include <pthread.h>

#include <utility>

namespace qn {

WorkerPool::WorkerPool(std::size_t threads, std::size_t queueLimit) : queueLimit_(queueLimit) {
  for (std::size_t i = 0; i < threads; ++i) threads_.emplace_back([this] { run(); });
}

WorkerPool::~WorkerPool() { stop(); }

bool WorkerPool::post(Job job) {
  {
    std::lock_guard lock(mutex_);
    if (stopping_ || queue_.size() >= queueLimit_) return false;
    queue_.push_back(std::move(job));
  }
  wakeUp_.notify_one();
  return true;
}

void WorkerPool::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wakeUp_.notify_all();
  for (auto& thread : threads_) thread.join();
  threads_.clear();
}

void WorkerPool::run() {
  pthread_setname_np(pthread_self(), "worker");
  for (;;) {
    Job job;
    {
      std::unique_lock lock(mutex_);
      wakeUp_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (queue_.empty()) return;
      job = std::move(queue_.front());
      queue_.pop_front();
    }
    job();
  }
}

}  // namespace qn
