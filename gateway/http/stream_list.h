// The open streams as the operator's page lists them. Kept by the connections, read by
// gateway/admin.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "gateway/auth/login_request.h"
#include "gateway/metrics/counter.h"
#include "gateway/sync/mutex.h"

namespace qn {

struct OpenStream {
  OpenStream(std::string clientIn, const LoggedIn& login)
      : client(std::move(clientIn)),
        user(login.user),
        device(login.device),
        since(std::chrono::system_clock::now()) {}

  const std::string client;  // its address
  const std::string user;
  const std::string device;
  const std::chrono::system_clock::time_point since;
  Counter partsSent;
};

// Any thread. The lock is taken when a stream begins or ends, never for what is pushed on it.
class StreamList {
 public:
  using Entry = std::shared_ptr<OpenStream>;

  Entry add(const std::string& client, const LoggedIn& login) {
    auto entry = std::make_shared<OpenStream>(client, login);
    const MutexLock lock(mutex_);
    streams_.insert(entry);
    return entry;
  }
  void remove(const Entry& entry) {
    const MutexLock lock(mutex_);
    streams_.erase(entry);
  }
  // At most so many.
  std::vector<Entry> some(std::size_t count) const {
    std::vector<Entry> found;
    const MutexLock lock(mutex_);
    for (const Entry& entry : streams_) {
      if (found.size() == count) break;
      found.push_back(entry);
    }
    return found;
  }

 private:
  mutable Mutex mutex_;
  std::set<Entry> streams_ QN_GUARDED_BY(mutex_);
};

}  // namespace qn
