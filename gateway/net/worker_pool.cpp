// See worker_pool.h.
#include "gateway/net/worker_pool.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <exception>
#include <thread>
#include <utility>

#include "gateway/net/thread.h"

namespace qn {
namespace {
thread_local const WorkerPool* poolOfThisThread = nullptr;
thread_local ThreadLoan* loanOfThisThread = nullptr;
}  // namespace

ThreadLoan::ThreadLoan() : outer_(std::exchange(loanOfThisThread, this)) {}

ThreadLoan::~ThreadLoan() {
  loanOfThisThread = outer_;
  if (pool_ != nullptr) pool_->runLent(*this);
}

WorkerPool::WorkerPool(const WorkerPoolOptions& options)
    : options_(options), guard_(context_.get_executor()) {
  if (isPatient()) loans_.reserve(options_.threads);  // there are no more
}

WorkerPool::~WorkerPool() { stop(); }

bool WorkerPool::runsHere() const { return poolOfThisThread == this; }

bool WorkerPool::post(Job job) {
  const MutexLock lock(mutex_);
  const bool taken = lend(loanOfThisThread, job) || take(std::move(job));
  if (!taken) refused_.add();
  showLoad();
  return taken;
}

void WorkerPool::showLoad() {
  waiting_.store(queue_.size(), std::memory_order_relaxed);
  threadCount_.store(threads_.size(), std::memory_order_relaxed);
}

bool WorkerPool::take(Job job) {
  if (stopping_ || queue_.size() >= options_.queueLimit) return false;
  queue_.push_back(std::move(job));
  const bool called = isPatient() ? callSparingly() : callOneMore();
  if (called || draining_ > 0 || watched_) return true;
  queue_.pop_back();
  return false;
}

bool WorkerPool::isPatient() const { return options_.patience.count() > 0; }

// False when the job goes to the pool's own threads: nothing overtakes what waits for them.
bool WorkerPool::lend(ThreadLoan* loan, Job& job) {
  if (loan == nullptr || !isPatient() || stopping_ || !queue_.empty()) return false;
  if (loan->pool_ == nullptr && hasSeat()) {
    loans_.push_back(loan);
    loan->pool_ = this;
  }
  if (loan->pool_ != this || loan->count_ == ThreadLoan::kMost) return false;
  loan->jobs_[loan->count_++] = std::move(job);
  callWatch();  // for whoever lends its thread and then blocks
  return true;
}

void WorkerPool::runLent(ThreadLoan& loan) {
  const MutexLock lock(mutex_);
  const auto* const outer = std::exchange(poolOfThisThread, this);
  while (loan.isWaited()) {
    Job job = std::move(loan.jobs_[loan.begun_++]);
    loan.isLate_ = false;
    ++lentTaken_;
    runOne(std::move(job));
  }
  poolOfThisThread = outer;
  std::erase(loans_, &loan);
  if (!stopping_) callSparingly();  // there may have been no seat
  loanEnded_.notifyAll();
}

// Queues the jobs whose loan has begun none of them since the last look; false when it has.
bool WorkerPool::takeOver() {
  const std::size_t before = queue_.size();
  try {
    for (ThreadLoan* const loan : loans_) {
      const bool isLate = std::exchange(loan->isLate_, loan->isWaited());
      for (; isLate && loan->isWaited(); ++loan->begun_) {
        queue_.push_back(std::move(loan->jobs_[loan->begun_]));
      }
    }
  } catch (const std::exception&) {  // no memory: they stay with the loan
  }
  return queue_.size() > before;
}

// A call for each job, and a thread for each call. False when nobody was called.
bool WorkerPool::callOneMore() try {
  const bool noneFree = threads_.size() < draining_ + queue_.size();
  if (noneFree && !startOne() && threads_.empty()) return false;
  boost::asio::post(context_, [this] { onCall(); });
  return true;
} catch (const std::exception&) {
  return false;  // no memory
}

// Keeps this true: while jobs wait, a thread is on its way to them, or one works and another, if
// there may be another, watches that it gets on. False when there is nobody to call.
bool WorkerPool::callSparingly() try {
  if (queue_.empty() || coming_) return true;
  if (draining_ > stuck_ && !stopping_) return callWatch();
  const std::size_t busy = draining_ + (watched_ ? 1 : 0);
  if (threads_.size() == busy && !startOne()) return false;
  boost::asio::post(context_, [this] { onCall(); });
  coming_ = true;
  return true;
} catch (const std::exception&) {
  return false;  // no memory
}

bool WorkerPool::callWatch() try {
  if (watched_) return true;
  if (threads_.size() == draining_ && !startOne()) return false;
  boost::asio::post(context_, [this] { watch(); });
  watched_ = true;
  return true;
} catch (const std::exception&) {
  return false;  // no memory
}

bool WorkerPool::hasSeat() const { return draining_ + loans_.size() < options_.threads; }

bool WorkerPool::startOne() {
  if (threads_.size() >= options_.threads || stopping_) return false;
  threads_.reserve(threads_.size() + 1);
  pthread_t thread;
  if (startThread(thread, options_.name, options_.stackBytes, [this] { run(); }) != 0) return false;
  threads_.push_back(thread);
  return true;
}

void WorkerPool::run() {
  poolOfThisThread = this;
  do {
    // With an idle time of 0 run_one_for() would not even look.
    while (context_.run_one_for(options_.idleTime) > 0 || context_.poll_one() > 0) {
    }
  } while (!leave());
}

void WorkerPool::onCall() {
  const MutexLock lock(mutex_);
  coming_ = false;
  if (hasSeat()) drain();
}

// Until a job has waited for the whole patience, and then helps, or nothing has happened for as
// long.
void WorkerPool::watch() {
  const MutexLock lock(mutex_);
  bool late = false;
  bool quiet = false;
  while (!late && !quiet && !stopping_) {
    const auto taken = taken_;
    const auto lent = lentTaken_;
    const auto queued = taken_ + queue_.size();
    const bool lentOnly = draining_ == 0 && queued == taken;
    sleepFor(lentOnly ? options_.patience * kLoanPatience : options_.patience);
    late = taken_ < queued;
    if (takeOver()) late = true;
    quiet = queue_.empty() && loans_.empty() && taken_ == taken && lentTaken_ == lent;
  }
  watched_ = false;
  if (late) stuck_ = draining_;
  if ((late || stopping_) && hasSeat()) drain();
}

void WorkerPool::drain() {
  ++draining_;
  do {
    while (!queue_.empty()) {
      Job job = std::move(queue_.front());
      queue_.pop_front();
      ++taken_;
      showLoad();
      if (isPatient()) callSparingly();
      runOne(std::move(job));
      stuck_ = std::min(stuck_, draining_ - 1);
    }
  } while (gather());
  --draining_;
}

void WorkerPool::runOne(Job job) {
  mutex_.unlock();
  job();
  job = nullptr;
  mutex_.lock();
}

// When jobs follow each other closely, lets some gather without a wake-up for each.
bool WorkerPool::gather() {
  if (!isPatient()) return false;
  const auto now = Clock::now();
  const bool close = now - std::exchange(drained_, now) < 2 * kGatherTime;
  if (!close || coming_ || stopping_) return false;
  coming_ = true;
  sleepFor(kGatherTime);
  coming_ = false;
  return !queue_.empty();
}

// Milliseconds, so that nothing needs to cut it short.
void WorkerPool::sleepFor(std::chrono::milliseconds time) {
  mutex_.unlock();
  std::this_thread::sleep_for(time);
  mutex_.lock();
}

// For a thread that has idled. False when it must stay.
bool WorkerPool::leave() {
  std::optional<pthread_t> earlier;
  {
    const MutexLock lock(mutex_);
    if (stopping_) return context_.stopped();
    if (coming_ || watched_ || !queue_.empty()) return false;
    std::erase_if(threads_, [](pthread_t t) { return pthread_equal(t, pthread_self()) != 0; });
    showLoad();
    earlier = std::exchange(ended_, pthread_self());
  }
  if (earlier) pthread_join(*earlier, nullptr);
  return true;
}

void WorkerPool::stop() {
  for (ThreadLoan* own = loanOfThisThread; own != nullptr; own = own->outer_) {
    if (own->pool_ != this) continue;
    runLent(*own);
    own->pool_ = nullptr;
  }
  std::vector<pthread_t> threads;
  {
    const MutexLock lock(mutex_);
    stopping_ = true;
    while (!loans_.empty()) loanEnded_.wait(mutex_);
    if (isPatient()) callSparingly();  // idle threads help with what is left
    guard_.reset();
    threads = threads_;
    if (ended_) threads.push_back(*ended_);
  }
  for (const pthread_t thread : threads) pthread_join(thread, nullptr);
  const MutexLock lock(mutex_);
  threads_.clear();
  ended_.reset();
}

}  // namespace qn
