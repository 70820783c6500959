// The nonces of Digest login. A nonce carries its time and keyed hashes, so that making one stores
// nothing; what is stored, after a login with right credentials, is which of its counts were used.
// Called by login.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <string_view>
#include <unordered_map>

#include "gateway/auth/digest.h"
#include "gateway/sync/mutex.h"

namespace qn {

// The nonce counts of one nonce that were used. Connections that share a nonce overtake each other,
// so a count may come late by less than kCounts.
class CountWindow {
 public:
  static constexpr uint32_t kCounts = 256;

  // False when the count was used before, or is too far behind the highest.
  bool take(uint32_t count);
  // The window as bytes, for another gateway, and back; false for what is none.
  static constexpr std::size_t kStateBytes = 4 + kCounts / 8;
  using Bytes = std::array<uint8_t, kStateBytes>;
  Bytes bytes() const;
  void setBytes(const Bytes& bytes);
  bool isFree(uint32_t count) const {
    if (count > highest_) return true;
    return highest_ - count < kCounts && (used_[count % kCounts / 64] & bit(count)) == 0;
  }

 private:
  uint64_t& word(uint32_t count) { return used_[count % kCounts / 64]; }
  static uint64_t bit(uint32_t count) { return uint64_t(1) << (count % 64); }

  uint32_t highest_ = 0;
  std::array<uint64_t, kCounts / 64> used_{};  // by count modulo kCounts
};

// Which nonces were given away in the last minutes, at a glance. Any thread.
class GivenHint {
 public:
  // `age` grows by one with each life of a nonce.
  void add(std::string_view nonce, uint32_t age);
  // Never false for one of this age or the one before.
  bool mayHave(std::string_view nonce) const;

 private:
  static constexpr std::size_t kWords = 64;
  struct Half {
    uint32_t age = 0;
    std::array<std::atomic<uint64_t>, kWords> words{};
  };

  Mutex adding_;
  std::array<Half, 2> halves_;
};

// Thread-safe. Time is the caller's monotonic clock.
class Nonces {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr std::chrono::seconds kLife{300};
  static constexpr std::chrono::seconds kRenewal{240};  // from this age on there should be a next
  // Of the nonces in use. One user reaches a quarter of it. When that is full, the nonce that was
  // unused for longest goes, and with it all of its age that have not been used yet, because nobody
  // remembers any more which of those were.
  static constexpr std::size_t kBytes = 32 * 1024 * 1024;
  static constexpr int kRandomMin = 8;
  static constexpr int kRandomMax = 16;

  // Fresh: for the first time, with this count. Stale: too old, of another process with the same
  // key, its count used, forgotten, or given away. Foreign: nobody with the key made it.
  enum class Use { Fresh, Stale, Foreign };
  // Of a nonce that is used: whether the answer should bring the next one.
  struct Used {
    Use use;
    bool shouldRenew = false;
  };

  Nonces();
  Nonces(const Nonces&) = delete;
  Nonces& operator=(const Nonces&) = delete;

  // As CreateNonce of platform/kavro_mgr_bus.h. `key`: of all gateways that know each other's
  // nonces; the process's own when it is empty.
  int create(char* buffer, int size, int randomBytes, std::string_view key, Time now) const;

  // Uses a nonce with this count once. Call it for right credentials only, since it stores.
  Used use(std::string_view nonce, uint32_t count, std::string_view user, std::string_view key,
           Time now);
  // Whether use() would find the count fresh. Stores nothing.
  bool isFresh(std::string_view nonce, uint32_t count, std::string_view user, std::string_view key,
               Time now);

  // One of several gateways: nonces carry `gateway`, a number of this process's own, from then on.
  // Before the first use.
  void joinGateways(uint32_t gateway) { gateway_ = gateway; }
  // A nonce is used where it was made, until that gateway gives it away, and then where it was
  // taken. So at any time one gateway at most accepts it, whatever the others know.
  //
  // The gateway that made it, where this one has neither made nor taken it, or has given it away;
  // nothing for a nonce that can be used here, or by nobody with the key.
  std::optional<uint32_t> madeElsewhere(std::string_view nonce, std::string_view user,
                                        std::string_view key);
  // Whether it is worth asking madeElsewhere(). Costs next to nothing.
  bool mayBeElsewhere(std::string_view nonce) const;
  struct State {
    uint32_t ageTicks;
    CountWindow counts;
  };
  // Nothing when it is not used here. Afterwards it is not used here any more.
  std::optional<State> give(std::string_view nonce, std::string_view user, std::string_view key,
                            Time now);
  void take(std::string_view nonce, std::string_view user, const State& state, Time now);

 private:
  static constexpr std::size_t kTextMax = 63;
  // A nonce and a hash of the user: two users of one client may share a nonce, not its counts.
  struct Key {
    Key(std::string_view nonce, std::size_t user);
    std::string_view view() const { return {text.data(), length}; }

    std::array<char, kTextMax + sizeof(std::size_t)> text;
    std::size_t length;
  };
  struct UsedNonce {
    Key key;
    uint32_t madeAt = 0;  // as in the nonce
    uint32_t usedAt = 0;
    bool given = false;  // to another gateway
    CountWindow counts{};
  };
  using UsedNonces = std::list<UsedNonce>;  // the one unused for longest first
  struct Bucket {
    Mutex mutex;
    UsedNonces used QN_GUARDED_BY(mutex);
    std::unordered_map<std::string_view, UsedNonces::iterator> byKey QN_GUARDED_BY(mutex);
    // No nonce that was made then or before is taken in any more.
    uint32_t forgotten QN_GUARDED_BY(mutex) = 0;

    UsedNonce* find(const Key& key) QN_REQUIRES(mutex);
    UsedNonce& add(const Key& key, uint32_t madeAt) QN_REQUIRES(mutex);
    void makeRoom(uint32_t now) QN_REQUIRES(mutex);
  };
  static constexpr std::size_t kBuckets = 16;
  static constexpr std::size_t kBucketsOfUser = kBuckets / 4;
  // With what the list, the map and the allocator take for it.
  static constexpr std::size_t kEntryBytes = sizeof(UsedNonce) + 112;
  static constexpr std::size_t kBucketEntries = kBytes / kBuckets / kEntryBytes;

  enum class Origin { Own, Sibling, Foreign };
  using Marks = std::array<uint8_t, 11>;
  bool markOf(std::string_view text, std::string_view key, Marks& marks) const;
  Origin originOf(std::string_view nonce, std::string_view key) const;
  Bucket& bucketOf(std::string_view nonce, std::size_t user);

  std::array<char, 32> own_{};       // constant after construction
  bool hasOwn_ = false;              // constant after construction
  std::optional<uint32_t> gateway_;  // constant after the first use
  std::array<Bucket, kBuckets> buckets_;
  GivenHint given_;
};

}  // namespace qn
