// Counts failed logins for each client address and locks an address that has too many. Called by
// login.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>

#include "gateway/config/configuration.h"
#include "gateway/sync/mutex.h"

namespace qn {

// Thread-safe. Time is the caller's monotonic clock. Failures are forgotten LockOptions::lockTime
// after the last one.
class Lockout {
 public:
  using Time = std::chrono::steady_clock::time_point;

  // Addresses with failures of their own count. Beyond them, others share kShared counts, chosen by
  // a keyed hash: a flood of addresses pushes nobody out and buys a bounded number of guesses.
  static constexpr std::size_t kAddresses = 16 * 1024;
  static constexpr std::size_t kShared = 256;

  struct Standing {
    int attemptsLeft = 0;              // 0: locked
    std::chrono::seconds unlockIn{0};  // rounded up; 0 unless locked
    bool locked() const { return attemptsLeft == 0; }
  };

  Lockout();
  Lockout(const Lockout&) = delete;
  Lockout& operator=(const Lockout&) = delete;

  // Counts a failure; a locked address stays locked no longer for it.
  Standing fail(std::string_view address, const LockOptions& options, Time now);
  Standing standing(std::string_view address, const LockOptions& options, Time now);
  // After a login, unless the address is locked. A shared count stays: one who can log in must not
  // buy guesses for others.
  void forget(std::string_view address, const LockOptions& options, Time now);

 private:
  struct Count {
    int failures = 0;
    Time forgottenAt{};
  };

  static Standing standingOf(const Count& count, const LockOptions& options, Time now);
  Count& shared(std::string_view address) QN_REQUIRES(mutex_);
  void makeRoom(Time now) QN_REQUIRES(mutex_);

  std::array<char, 32> key_{};  // constant after construction
  // Nothing is counted: the usual case, told without the lock.
  std::atomic<bool> clean_{true};
  Mutex mutex_;
  std::unordered_map<std::string, Count> counts_ QN_GUARDED_BY(mutex_);
  std::array<Count, kShared> sharedCounts_ QN_GUARDED_BY(mutex_){};
  bool sharedUsed_ QN_GUARDED_BY(mutex_) = false;
  Time roomMadeAt_ QN_GUARDED_BY(mutex_){};
};

// What is counted as one client: an IPv4 address; of an IPv6 address the network, because a host
// has as many addresses in it as it likes. The text may have been cut at its end.
std::string_view lockoutAddress(std::string_view clientAddress);

}  // namespace qn
