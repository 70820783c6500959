#include "gateway/login/nonces.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <functional>

#include "gateway/auth/digest.h"
#include "text/hex.h"

namespace qn {
namespace {

// A nonce is, in hexadecimal: the second it was made (4 bytes), random bytes, the keyed hash.
constexpr std::size_t kTimeDigits = 8;
// Far fewer bytes than the hash has, so that nobody can compute on from them.
constexpr std::size_t kHashBytes = 11;
constexpr std::size_t kHashDigits = 2 * kHashBytes;

uint32_t secondsOf(Nonces::Time now) {
  return uint32_t(std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count());
}

bool timeOf(std::string_view nonce, uint32_t& seconds) {
  const char* const end = nonce.data() + kTimeDigits;
  return nonce.size() > kTimeDigits + kHashDigits &&
         std::from_chars(nonce.data(), end, seconds, 16).ptr == end;
}

}  // namespace

bool CountWindow::take(uint32_t count) {
  if (count > highest_) {
    const uint32_t newlySeen = std::min(count - highest_, kCounts);
    for (uint32_t i = 0; i < newlySeen; ++i) word(count - i) &= ~bit(count - i);
    highest_ = count;
  } else if (highest_ - count >= kCounts || (word(count) & bit(count))) {
    return false;
  }
  word(count) |= bit(count);
  return true;
}

Nonces::Nonces() : hasKey_(fillRandom(reinterpret_cast<uint8_t*>(key_.data()), key_.size())) {}

int Nonces::create(char* buffer, int size, int randomBytes, Time now) const {
  if (!buffer || size <= 0) return 0;
  buffer[0] = '\0';
  const std::size_t randomCount = std::size_t(std::clamp(randomBytes, kRandomMin, kRandomMax));
  const std::size_t length = kTimeDigits + 2 * randomCount + kHashDigits;
  std::array<uint8_t, kRandomMax> random;
  std::array<uint8_t, kHashBytes> hash;
  if (!hasKey_ || std::size_t(size) <= length || !fillRandom(random.data(), randomCount)) return 0;

  Text text{};
  std::snprintf(text.data(), text.size(), "%08x", unsigned(secondsOf(now)));
  text::writeHex({random.data(), randomCount}, text.data() + kTimeDigits);
  const std::string_view hashed(text.data(), length - kHashDigits);
  if (!keyedHash({key_.data(), key_.size()}, hashed, hash.data(), hash.size())) return 0;
  text::writeHex(hash, text.data() + hashed.size());
  std::copy_n(text.data(), length + 1, buffer);
  return int(length);
}

bool Nonces::authentic(std::string_view nonce) const {
  const std::string_view hashed = nonce.substr(0, nonce.size() - kHashDigits);
  std::array<uint8_t, kHashBytes> hash;
  std::array<char, kHashDigits> digits;
  if (!hasKey_ || !keyedHash({key_.data(), key_.size()}, hashed, hash.data(), hash.size())) {
    return false;
  }
  text::writeHex(hash, digits.data());
  return equalInConstantTime({digits.data(), digits.size()}, nonce.substr(hashed.size()));
}

// One from the future is too old as well: the difference wraps.
bool Nonces::isYoung(std::string_view nonce, uint32_t& madeAt, uint32_t now) {
  return nonce.size() <= kTextMax && timeOf(nonce, madeAt) && now - madeAt <= kLife.count();
}

bool Nonces::isFresh(std::string_view nonce, uint32_t count, Time time) {
  uint32_t madeAt = 0;
  if (!isYoung(nonce, madeAt, secondsOf(time))) return false;
  Text text{};
  std::copy(nonce.begin(), nonce.end(), text.begin());
  Bucket& bucket = buckets_[NonceHash()(text) % kBuckets];
  const MutexLock lock(bucket.mutex);
  const auto& entries = generation(bucket, madeAt).entries;
  const auto found = entries.find(text);
  return found != entries.end() ? found->second.counts.isFree(count) : authentic(nonce);
}

bool Nonces::use(std::string_view nonce, uint32_t count, std::string_view user, Time time) {
  const uint32_t now = secondsOf(time);
  uint32_t madeAt = 0;
  if (!isYoung(nonce, madeAt, now)) return false;
  Text text{};
  std::copy(nonce.begin(), nonce.end(), text.begin());
  Bucket& bucket = buckets_[NonceHash()(text) % kBuckets];
  const MutexLock lock(bucket.mutex);
  Generation& home = generation(bucket, madeAt);
  const auto found = home.entries.find(text);
  if (found != home.entries.end()) return found->second.counts.take(count);
  if (!authentic(nonce)) return false;

  const auto userSlot = uint8_t(std::hash<std::string_view>()(user) % inUseBySlot_.size());
  if (!mayAdd(bucket, userSlot)) dropExpired(bucket, now);
  if (!mayAdd(bucket, userSlot)) return false;
  UsedNonce& entry = home.entries[text];
  entry.userSlot = userSlot;
  ++bucket.size;
  ++inUseBySlot_[userSlot];
  return entry.counts.take(count);
}

bool Nonces::mayAdd(const Bucket& bucket, uint8_t userSlot) const {
  return bucket.size < kInUse / kBuckets && inUseBySlot_[userSlot] < kInUseByUser;
}

Nonces::Generation& Nonces::generation(Bucket& bucket, uint32_t madeAt) {
  const uint32_t number = madeAt / kGenerationSeconds;
  Generation& generation = bucket.generations[number % kGenerations];
  if (generation.number != number) clear(bucket, generation);
  generation.number = number;
  return generation;
}

void Nonces::clear(Bucket& bucket, Generation& generation) {
  for (const auto& [text, entry] : generation.entries) --inUseBySlot_[entry.userSlot];
  bucket.size -= generation.entries.size();
  decltype(generation.entries)().swap(generation.entries);  // gives its buckets back too
}

void Nonces::dropExpired(Bucket& bucket, uint32_t now) {
  for (Generation& generation : bucket.generations) {
    const uint32_t lastMade = (generation.number + 1) * kGenerationSeconds - 1;
    if (lastMade + kLife.count() < now) clear(bucket, generation);
  }
}

}  // namespace qn
