// The one kind of thread pool: threads that come when work waits and end when there is none. Used
// for requests that wait for a device or the disk, for very long translations, and behind the
// flexible pools of platform/zrt.h.
#pragma once

#include <pthread.h>

#include <array>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <vector>

#include "gateway/metrics/counter.h"
#include "gateway/sync/mutex.h"

namespace qn {

struct WorkerPoolOptions {
  std::size_t threads;                                            // at most, at least 1
  std::size_t queueLimit;                                         // jobs that wait for a thread
  std::chrono::milliseconds idleTime = std::chrono::seconds(30);  // a thread without work ends
  // How long a job may wait before a further thread takes it. With 0 there is a thread for each
  // job; more is for short jobs, for which a wake-up costs more than the work.
  std::chrono::milliseconds patience{0};
  std::size_t stackBytes = 0;  // 0: the system's default
  const char* name = "worker";
};

class WorkerPool;

// While it lives, jobs that its thread posts to a pool with patience wait for the thread itself,
// which runs them in their order when the loan ends: what follows from an alarm needs no wake-up.
// The thread counts as one of the pool's threads meanwhile, and jobs that wait for longer than the
// patience behind one that blocks go to another. On the stack of whoever calls somebody that may
// post.
class ThreadLoan {
 public:
  using Job = std::function<void()>;

  ThreadLoan();
  ~ThreadLoan();
  ThreadLoan(const ThreadLoan&) = delete;
  ThreadLoan& operator=(const ThreadLoan&) = delete;

 private:
  friend class WorkerPool;

  static constexpr std::size_t kMost = 8;  // further ones go to the pool's own threads

  bool isWaited() const { return begun_ < count_; }

  ThreadLoan* const outer_;
  WorkerPool* pool_ = nullptr;  // whose jobs they are; set by the first. The rest is guarded by it.
  std::array<Job, kMost> jobs_;
  std::size_t count_ = 0;
  std::size_t begun_ = 0;
  bool isLate_ = false;  // if none has been begun by the next look
};

// asio::thread_pool starts all its threads at once and keeps them, so the threads are the pool's
// own and run an io_context, which has them wait and wakes one when there is work.
class WorkerPool {
 public:
  using Job = std::function<void()>;  // must not throw

  WorkerPool(std::size_t threads, std::size_t queueLimit)
      : WorkerPool(WorkerPoolOptions{threads, queueLimit}) {}
  explicit WorkerPool(const WorkerPoolOptions& options);
  ~WorkerPool();  // stops
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Never blocks and starts at most one thread. False when the queue is full, the pool has stopped
  // or there is no thread and none could be started: the job is not run.
  bool post(Job job);
  // Takes no more jobs, runs what is queued and ends the threads. Never call it on a thread of the
  // pool; by one thread at a time. Harmless when repeated. Waits for loans of other threads.
  void stop();
  // Whether the calling thread is one of this pool's, or runs a job of it.
  bool runsHere() const;

  // What it holds about now; takes no lock.
  struct Load {
    std::size_t waiting;  // jobs
    std::size_t threads;
    uint64_t refused;  // jobs, ever
  };
  Load load() const { return {waiting_, threadCount_, refused_.value()}; }
  const WorkerPoolOptions& options() const { return options_; }

 private:
  friend class ThreadLoan;
  using Clock = std::chrono::steady_clock;

  bool isPatient() const;
  bool lend(ThreadLoan* loan, Job& job) QN_REQUIRES(mutex_);
  void runLent(ThreadLoan& loan);
  bool takeOver() QN_REQUIRES(mutex_);
  bool take(Job job) QN_REQUIRES(mutex_);
  void showLoad() QN_REQUIRES(mutex_);
  bool callOneMore() QN_REQUIRES(mutex_);
  bool callSparingly() QN_REQUIRES(mutex_);
  bool callWatch() QN_REQUIRES(mutex_);
  bool hasSeat() const QN_REQUIRES(mutex_);
  bool startOne() QN_REQUIRES(mutex_);
  void run();
  void onCall();
  void watch();
  void drain() QN_REQUIRES(mutex_);
  void runOne(Job job) QN_REQUIRES(mutex_);
  bool gather() QN_REQUIRES(mutex_);
  void sleepFor(std::chrono::milliseconds time) QN_REQUIRES(mutex_);
  bool leave();

  // A pool with patience lets jobs that follow each other closely gather for so long.
  static constexpr std::chrono::milliseconds kGatherTime{1};

  // Loans are looked at less often: they seldom wait, and each look costs a wake-up.
  static constexpr int kLoanPatience = 4;

  const WorkerPoolOptions options_;
  boost::asio::io_context context_;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard_;

  Mutex mutex_;
  std::vector<pthread_t> threads_ QN_GUARDED_BY(mutex_);
  std::optional<pthread_t> ended_ QN_GUARDED_BY(mutex_);  // left last; the next one joins it
  std::deque<Job> queue_ QN_GUARDED_BY(mutex_);
  // A thread was called or lets jobs gather, and will look by itself.
  bool coming_ QN_GUARDED_BY(mutex_) = false;
  std::size_t draining_ QN_GUARDED_BY(mutex_) = 0;  // threads that take jobs
  // Of these, during whose jobs another lost patience.
  std::size_t stuck_ QN_GUARDED_BY(mutex_) = 0;
  uint64_t taken_ QN_GUARDED_BY(mutex_) = 0;      // jobs
  uint64_t lentTaken_ QN_GUARDED_BY(mutex_) = 0;  // those of loans
  std::vector<ThreadLoan*> loans_ QN_GUARDED_BY(mutex_);
  Condition loanEnded_;
  // When a thread last found no further job.
  Clock::time_point drained_ QN_GUARDED_BY(mutex_);
  bool watched_ QN_GUARDED_BY(mutex_) = false;  // a thread watches that the others get on
  bool stopping_ QN_GUARDED_BY(mutex_) = false;

  // For load().
  std::atomic<std::size_t> waiting_{0};
  std::atomic<std::size_t> threadCount_{0};
  Counter refused_;
};

}  // namespace qn
