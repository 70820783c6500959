// The keys of session tickets, by which clients come back without a full handshake: nothing is kept
// for each of them. Shared by all contexts of a server, and by those that a reload makes.
#pragma once

#include <openssl/ssl.h>

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <span>

#include "gateway/sync/mutex.h"

namespace qn {

// Any thread. In memory only: no key outlives the process, nor opens what was recorded before the
// one that it followed came.
class TicketKeys {
 public:
  using Clock = std::chrono::steady_clock;

  // A key makes tickets for one interval and is accepted for one more.
  static constexpr std::chrono::hours kInterval{4};

  struct Key {
    std::array<unsigned char, 16> name;
    std::array<unsigned char, 32> cipher;
    std::array<unsigned char, 32> digest;
  };

  // Has the context make and accept tickets with these keys, which it holds from now on.
  static void attach(const std::shared_ptr<TicketKeys>& keys, SSL_CTX& context);

  Key current(Clock::time_point now);
  // The key that made a ticket, and whether it is the current one; nothing when it is too old.
  struct Found {
    Key key;
    bool isCurrent;
  };
  std::optional<Found> find(std::span<const unsigned char> name, Clock::time_point now);

 private:
  void rotate(Clock::time_point now) QN_REQUIRES(mutex_);

  Mutex mutex_;
  std::optional<Key> current_ QN_GUARDED_BY(mutex_);
  std::optional<Key> former_ QN_GUARDED_BY(mutex_);
  Clock::time_point since_ QN_GUARDED_BY(mutex_);  // of the current one
};

}  // namespace qn
