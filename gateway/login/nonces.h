// The nonces of Digest login. A nonce carries its time and a keyed hash, so that making one stores
// nothing; what is stored, after a login with right credentials, is which of its counts were used.
// Called by login.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>

#include "gateway/sync/mutex.h"

namespace qn {

// The nonce counts of one nonce that were used. Connections that share a nonce overtake each other,
// so a count may come late by less than kCounts.
class CountWindow {
 public:
  static constexpr uint32_t kCounts = 256;

  // False when the count was used before, or is too far behind the highest.
  bool take(uint32_t count);
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

// Thread-safe. Time is the caller's monotonic clock.
class Nonces {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr std::chrono::seconds kLife{300};
  // Nonces in use; one user name has a quarter at most, so that no user can keep others out.
  static constexpr std::size_t kInUse = 128 * 1024;
  static constexpr std::size_t kInUseByUser = kInUse / 4;
  static constexpr int kRandomMin = 8;
  static constexpr int kRandomMax = 16;

  Nonces();
  Nonces(const Nonces&) = delete;
  Nonces& operator=(const Nonces&) = delete;

  // As CreateNonce of platform/kavro_mgr_bus.h.
  int create(char* buffer, int size, int randomBytes, Time now) const;

  // Uses a nonce with this count once. Call it for right credentials only, since it stores. False
  // when the nonce is not of this process or too old, when the count is not fresh, and when as many
  // nonces as allowed are in use: the client then needs another nonce.
  bool use(std::string_view nonce, uint32_t count, std::string_view user, Time now);
  // Whether use() finds the count fresh. Stores nothing.
  bool isFresh(std::string_view nonce, uint32_t count, Time now);

 private:
  static constexpr std::size_t kTextMax = 63;
  using Text = std::array<char, kTextMax + 1>;  // padded with NUL
  struct NonceHash {
    std::size_t operator()(const Text& text) const {
      return std::hash<std::string_view>()({text.data(), text.size()});
    }
  };
  struct UsedNonce {
    CountWindow counts;
    uint8_t userSlot = 0;
  };
  // The nonces made within the same kGenerationSeconds; they go together.
  struct Generation {
    uint32_t number = 0;
    std::unordered_map<Text, UsedNonce, NonceHash> entries;
  };
  static constexpr uint32_t kGenerationSeconds = 30;
  static constexpr uint32_t kGenerations = uint32_t(kLife.count()) / kGenerationSeconds + 2;
  struct Bucket {
    Mutex mutex;
    // By number modulo kGenerations.
    std::array<Generation, kGenerations> generations QN_GUARDED_BY(mutex);
    std::size_t size QN_GUARDED_BY(mutex) = 0;
  };
  static constexpr std::size_t kBuckets = 16;

  static bool isYoung(std::string_view nonce, uint32_t& madeAt, uint32_t now);
  bool authentic(std::string_view nonce) const;
  Generation& generation(Bucket& bucket, uint32_t madeAt) QN_REQUIRES(bucket.mutex);
  void clear(Bucket& bucket, Generation& generation) QN_REQUIRES(bucket.mutex);
  void dropExpired(Bucket& bucket, uint32_t now) QN_REQUIRES(bucket.mutex);
  bool mayAdd(const Bucket& bucket, uint8_t userSlot) const QN_REQUIRES(bucket.mutex);

  std::array<char, 32> key_{};  // constant after construction
  bool hasKey_ = false;         // constant after construction
  std::array<Bucket, kBuckets> buckets_;
  std::array<std::atomic<uint32_t>, 256> inUseBySlot_{};  // by a hash of the user name
};

}  // namespace qn
