#include "gateway/devices/name_resolver.h"

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <deque>
#include <unordered_map>
#include <utility>

#include "gateway/log/log.h"
#include "gateway/net/thread.h"
#include "gateway/sync/mutex.h"

namespace qn {

class NameResolver::Names : public std::enable_shared_from_this<Names> {
 public:
  explicit Names(Lookup lookup) : lookup_(std::move(lookup)) {}

  void find(const std::string& name, const boost::asio::any_io_executor& executor, Found found) {
    const MutexLock lock(mutex_);
    Name& entry = names_[name];
    entry.waiting.push_back({executor, std::move(found)});
    if (!entry.pending && Clock::now() >= entry.next && callThread()) {
      entry.pending = true;
      queue_.push_back(name);
    }
    if (!entry.pending || entry.waiting.size() > kWaiting) tell(entry);
  }

  Addresses lastGood(const std::string& name) const {
    const MutexLock lock(mutex_);
    const auto found = names_.find(name);
    return found == names_.end() ? Addresses() : found->second.lastGood;
  }

  void keep(const std::unordered_set<std::string>& names) {
    const MutexLock lock(mutex_);
    std::erase_if(names_, [&](const auto& entry) {
      return !entry.second.pending && !names.contains(entry.first);
    });
  }

  void close() {
    const MutexLock lock(mutex_);
    names_.clear();
    queue_.clear();
  }

 private:
  using Clock = std::chrono::steady_clock;
  struct Waiting {
    boost::asio::any_io_executor executor;
    Found found;
  };
  struct Name {
    Addresses lastGood;
    std::vector<Waiting> waiting;
    bool pending = false;  // queued or being looked up
    Clock::time_point next;
    Clock::duration pause = kPause;  // after the next failure
  };

  // Whether a thread will look into the queue.
  bool callThread() QN_REQUIRES(mutex_) {
    if (threads_ >= kThreads) return true;
    pthread_t thread;
    if (startThread(thread, "names", 0, [self = shared_from_this()] { self->run(); }) != 0) {
      return threads_ > 0;
    }
    pthread_detach(thread);
    ++threads_;
    return true;
  }

  void run() {
    MutexLock lock(mutex_);
    while (!queue_.empty()) {
      const std::string name = std::move(queue_.front());
      queue_.pop_front();
      lock.unlock();
      Addresses addresses = lookup_(name);
      lock.lock();
      const auto entry = names_.find(name);
      if (entry != names_.end()) settle(entry->first, entry->second, std::move(addresses));
    }
    --threads_;
  }

  void settle(const std::string& name, Name& entry, Addresses addresses) QN_REQUIRES(mutex_) {
    const bool wasFound = entry.pause == kPause;
    entry.pending = false;
    if (!addresses.empty()) {
      if (!wasFound) logWarn("host name {} is found again", name);
      entry.lastGood = std::move(addresses);
      entry.pause = kPause;
      entry.next = Clock::now() + kPause;
    } else {
      if (wasFound) {
        logWarn("host name {} cannot be found{}", name,
                entry.lastGood.empty() ? "" : ": its last addresses hold");
      }
      entry.next = Clock::now() + entry.pause;
      entry.pause = std::min<Clock::duration>(2 * entry.pause, kLongestPause);
    }
    tell(entry);
  }

  // Under the lock, so that after close() no executor is used.
  void tell(Name& entry) QN_REQUIRES(mutex_) {
    for (Waiting& each : std::exchange(entry.waiting, {})) {
      boost::asio::post(each.executor, [found = std::move(each.found), addresses = entry.lastGood] {
        found(addresses);
      });
    }
  }

  const Lookup lookup_;
  mutable Mutex mutex_;
  std::unordered_map<std::string, Name> names_ QN_GUARDED_BY(mutex_);
  std::deque<std::string> queue_ QN_GUARDED_BY(mutex_);
  std::size_t threads_ QN_GUARDED_BY(mutex_) = 0;
};

NameResolver::NameResolver(Lookup lookup) : names_(std::make_shared<Names>(std::move(lookup))) {}

NameResolver::~NameResolver() { names_->close(); }

void NameResolver::find(const std::string& name, const boost::asio::any_io_executor& executor,
                        Found found) {
  names_->find(name, executor, std::move(found));
}

NameResolver::Addresses NameResolver::lastGood(const std::string& name) const {
  return names_->lastGood(name);
}

void NameResolver::keep(const std::unordered_set<std::string>& names) { names_->keep(names); }

NameResolver::Addresses NameResolver::systemLookup(const std::string& name) {
  boost::asio::io_context context;
  boost::asio::ip::tcp::resolver resolver(context);
  boost::system::error_code notFound;
  Addresses addresses;
  for (const auto& entry : resolver.resolve(name, "", notFound)) {
    addresses.push_back(entry.endpoint().address());
  }
  return addresses;
}

}  // namespace qn
