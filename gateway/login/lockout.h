// Counts failed logins for each client network and locks a network that has too many. Called by
// login.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "gateway/config/configuration.h"
#include "gateway/sync/mutex.h"

namespace qn {

// What is counted as one client: an IPv4 address; of an IPv6 address the /64, because a host has as
// many addresses in it as it likes. A text that is neither counts as it stands.
class ClientNetwork {
 public:
  explicit ClientNetwork(std::string_view address);
  // What number() gave.
  static ClientNetwork ofNumber(uint64_t number) { return ClientNetwork(number); }
  uint64_t number() const { return bits_; }

  // An IPv4 address, or an IPv6 network as "2001:db8::/64".
  std::string text() const;

  bool operator==(const ClientNetwork&) const = default;
  // The /24 or /48, and the /16 or /32, of whoever owns more than one.
  uint64_t neighbours() const { return isIPv4() ? bits_ >> 8 : bits_ >> 16; }
  uint64_t region() const { return isIPv4() ? bits_ >> 16 : bits_ >> 32; }

 private:
  explicit ClientNetwork(uint64_t bits) : bits_(bits) {}
  bool isIPv4() const { return bits_ >> 32 == kIPv4; }

  static constexpr uint64_t kIPv4 = 0xffff;  // ::/8 is reserved, so no IPv6 network begins so
  uint64_t bits_;
};

// Thread-safe. Time is the caller's monotonic clock. Failures are forgotten LockOptions::lockTime
// after the last one, and those of one user name when it logs in.
//
// The counts stand in sets. Which one is a network's follows from a keyed hash of what it belongs
// to: a /48 (IPv4: /24) has one set, a /32 (/16) a quarter of them, so nobody takes the room of all
// others. A full set gives up the oldest count that locks nobody, then the oldest lock of the same
// /48; a lock of others stays. What finds no room is not counted, and locks nobody.
class Lockout {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr std::size_t kSets = 64;
  static constexpr std::size_t kSetsOfRegion = kSets / 4;
  static constexpr std::size_t kSetSize = 256;
  static constexpr std::size_t kNames = 8;  // of one network; failures of further ones stay

  struct Standing {
    int attemptsLeft = 0;              // 0: locked
    std::chrono::seconds unlockIn{0};  // rounded up; 0 unless locked
    bool justLocked = false;           // by the failure that was counted
    bool locked() const { return attemptsLeft == 0; }
  };

  Lockout();
  Lockout(const Lockout&) = delete;
  Lockout& operator=(const Lockout&) = delete;

  // Counts a failure; a locked network stays locked no longer for it.
  Standing fail(ClientNetwork network, std::string_view user, const LockOptions& options, Time now);
  Standing standing(ClientNetwork network, const LockOptions& options, Time now);
  // Forgets all that was counted against it; whether it was locked.
  bool unlock(ClientNetwork network, const LockOptions& options, Time now);
  struct Lock {
    ClientNetwork network;
    std::chrono::seconds unlockIn;
  };
  // Those in force, at most so many.
  std::vector<Lock> locks(const LockOptions& options, Time now, std::size_t most);
  // After a login, unless the network is locked: forgets what was counted against this user name.
  // One who can log in must not buy guesses at others. Whether there were any.
  bool forget(ClientNetwork network, std::string_view user, const LockOptions& options, Time now);

  // What gateways tell each other. Names go as hashes, which are the same with the same key;
  // without one they are the process's own. Before the first use.
  void setNameKey(std::string_view key) { nameKey_ = key; }
  uint32_t hash(std::string_view name) const;
  struct Failures {
    uint32_t name;  // its hash; those of names beyond kNames stand together under kOtherNames
    uint32_t count;
  };
  static constexpr uint32_t kOtherNames = 0;
  struct Record {
    ClientNetwork network;
    std::vector<Failures> failures;
    Time forgottenAt;
  };
  // Takes over what others have counted against the network, where it is more.
  void learn(const Record& record, const LockOptions& options, Time now);
  void forget(ClientNetwork network, uint32_t nameHash, Time now);
  // All that is remembered; at most kSets * kSetSize.
  std::vector<Record> records(Time now);

  // No failure of anybody is remembered, which makes the other questions cheap.
  bool isEmpty(Time now) const { return counted_ == 0 || now >= lastForgottenAt_.load(); }

 private:
  struct Name {
    uint32_t hash = 0;
    uint16_t failures = 0;
  };
  struct Count {
    ClientNetwork network;
    int failures = 0;
    Time forgottenAt{};
    std::array<Name, kNames> names{};

    Standing standing(const LockOptions& options, Time now) const;
    Name* placeOf(uint32_t name);
    void add(uint32_t name);
    void raise(const Failures& known);
    void remove(uint32_t name);
    Record record() const;
  };
  struct Set {
    Mutex mutex;
    std::vector<Count> counts QN_GUARDED_BY(mutex);

    Count* find(ClientNetwork network) QN_REQUIRES(mutex);
    Count* place(ClientNetwork network, const LockOptions& options, Time now) QN_REQUIRES(mutex);
  };

  void renew(Count& count, ClientNetwork network);
  void add(Count& count, std::string_view user, Time forgottenAt);
  void rememberUntil(Time forgottenAt);
  uint32_t hash(uint64_t number) const;
  Set& setOf(ClientNetwork network);

  std::array<char, 32> key_{};  // constant after construction
  std::string nameKey_;         // constant after the first use
  // Counts with failures, among them those that are forgotten by now, and when the last one is.
  std::atomic<std::size_t> counted_{0};
  std::atomic<Time> lastForgottenAt_{Time{}};
  std::array<Set, kSets> sets_;
};

}  // namespace qn
