#include "gateway/login/nonces.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <functional>
#include <utility>

#include "text/hex.h"
#include "text/number.h"

namespace qn {
namespace {

// A nonce is, in hexadecimal: when it was made (4 bytes), random bytes, and two marks: one
// under the key, which tells who may have made it, one under the process's own. Far fewer bytes
// than the hashes have, so that nobody can compute on from them.
constexpr std::size_t kTimeDigits = 8;
constexpr std::size_t kKeyMark = 8;
constexpr std::size_t kOwnMark = 3;
constexpr std::size_t kMarkDigits = 2 * (kKeyMark + kOwnMark);
// Of several gateways: the number of the one that made it, before the marks.
constexpr std::size_t kGatewayDigits = 8;

// Short, so that few nonces are of one age. The number wraps after eight years.
using Tick = std::chrono::duration<int64_t, std::ratio<1, 16>>;

uint32_t tickOf(Nonces::Time now) {
  return uint32_t(std::chrono::duration_cast<Tick>(now.time_since_epoch()).count());
}

constexpr uint32_t kLifeTicks = uint32_t(Tick(Nonces::kLife).count());
constexpr uint32_t kRenewalTicks = uint32_t(Tick(Nonces::kRenewal).count());

bool timeOf(std::string_view nonce, uint32_t& tick) {
  const char* const end = nonce.data() + kTimeDigits;
  return nonce.size() > kTimeDigits + kMarkDigits &&
         std::from_chars(nonce.data(), end, tick, 16).ptr == end;
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

CountWindow::Bytes CountWindow::bytes() const {
  Bytes bytes;
  for (std::size_t i = 0; i < 4; ++i) bytes[i] = uint8_t(highest_ >> (24 - 8 * i));
  for (std::size_t i = 4; i < kStateBytes; ++i)
    bytes[i] = uint8_t(used_[(i - 4) / 8] >> (i - 4) % 8 * 8);
  return bytes;
}

void CountWindow::setBytes(const Bytes& bytes) {
  *this = CountWindow();
  for (std::size_t i = 0; i < 4; ++i) highest_ = highest_ << 8 | bytes[i];
  for (std::size_t i = 4; i < kStateBytes; ++i) {
    used_[(i - 4) / 8] |= uint64_t(bytes[i]) << (i - 4) % 8 * 8;
  }
}

void GivenHint::add(std::string_view nonce, uint32_t age) {
  const std::size_t hash = std::hash<std::string_view>()(nonce);
  const MutexLock lock(adding_);
  Half& half = halves_[age % 2];
  if (std::exchange(half.age, age) != age) {
    for (auto& word : half.words) word = 0;
  }
  half.words[hash / 64 % kWords] |= uint64_t(1) << hash % 64;
}

bool GivenHint::mayHave(std::string_view nonce) const {
  const std::size_t hash = std::hash<std::string_view>()(nonce);
  const std::size_t word = hash / 64 % kWords;
  return ((halves_[0].words[word] | halves_[1].words[word]) & uint64_t(1) << hash % 64) != 0;
}

Nonces::Nonces() : hasOwn_(fillRandom(reinterpret_cast<uint8_t*>(own_.data()), own_.size())) {}

bool Nonces::markOf(std::string_view text, std::string_view key, Marks& marks) const {
  static_assert(kKeyMark + kOwnMark == std::tuple_size_v<Marks>);
  const std::string_view own(own_.data(), own_.size());
  if (!hasOwn_) return false;
  keyedHash(own, text, {marks.data() + kKeyMark, kOwnMark});
  keyedHash(key.empty() ? own : key, text, {marks.data(), kKeyMark});
  return true;
}

int Nonces::create(char* buffer, int size, int randomBytes, std::string_view key, Time now) const {
  if (!buffer || size <= 0) return 0;
  buffer[0] = '\0';
  const std::size_t gatewayDigits = gateway_ ? kGatewayDigits : 0;
  const std::size_t most = (kTextMax - kTimeDigits - gatewayDigits - kMarkDigits) / 2;
  const std::size_t randomCount =
      std::min(std::size_t(std::clamp(randomBytes, kRandomMin, kRandomMax)), most);
  const std::size_t length = kTimeDigits + 2 * randomCount + gatewayDigits + kMarkDigits;
  std::array<uint8_t, kRandomMax> random;
  Marks marks;
  if (std::size_t(size) <= length || !fillRandom(random.data(), randomCount)) return 0;

  std::array<char, kTextMax + 1> text{};
  std::snprintf(text.data(), text.size(), "%08x", unsigned(tickOf(now)));
  char* const end = text::writeHex({random.data(), randomCount}, text.data() + kTimeDigits);
  if (gateway_) std::snprintf(end, kGatewayDigits + 1, "%08x", unsigned(*gateway_));
  const std::string_view marked(text.data(), length - kMarkDigits);
  if (!markOf(marked, key, marks)) return 0;
  text::writeHex(marks, text.data() + marked.size());
  std::copy_n(text.data(), length + 1, buffer);
  return int(length);
}

Nonces::Origin Nonces::originOf(std::string_view nonce, std::string_view key) const {
  const std::string_view marked = nonce.substr(0, nonce.size() - kMarkDigits);
  Marks marks;
  if (!markOf(marked, key, marks)) return Origin::Foreign;
  const std::string digits = text::hexOf(marks);
  const std::string_view expected(digits);
  const std::string_view given = nonce.substr(marked.size());
  if (!equalInConstantTime(expected.substr(0, 2 * kKeyMark), given.substr(0, 2 * kKeyMark))) {
    return Origin::Foreign;
  }
  return equalInConstantTime(expected.substr(2 * kKeyMark), given.substr(2 * kKeyMark))
             ? Origin::Own
             : Origin::Sibling;
}

Nonces::Used Nonces::use(std::string_view nonce, uint32_t count, std::string_view user,
                         std::string_view key, Time time) {
  const uint32_t now = tickOf(time);
  uint32_t madeAt = 0;
  if (nonce.size() > kTextMax || !timeOf(nonce, madeAt)) return {Use::Foreign};
  const std::size_t userHash = std::hash<std::string_view>()(user);
  const Key counted(nonce, userHash);
  Bucket& bucket = bucketOf(nonce, userHash);
  const MutexLock lock(bucket.mutex);
  const auto found = bucket.byKey.find(counted.view());
  UsedNonce* entry = found == bucket.byKey.end() ? nullptr : &*found->second;
  if (!entry) {
    const Origin origin = originOf(nonce, key);
    if (origin == Origin::Foreign) return {Use::Foreign};
    if (origin == Origin::Sibling || madeAt <= bucket.forgotten) return {Use::Stale};
  } else {
    madeAt = entry->madeAt;  // by this gateway's clock
    if (entry->given) return {Use::Stale};
  }
  if (now - madeAt > kLifeTicks) return {Use::Stale};
  if (!entry) {
    bucket.makeRoom(now);
    entry = &bucket.add(counted, madeAt);
  } else {
    bucket.used.splice(bucket.used.end(), bucket.used, found->second);
  }
  entry->usedAt = now;
  return {entry->counts.take(count) ? Use::Fresh : Use::Stale, now - madeAt >= kRenewalTicks};
}

bool Nonces::mayBeElsewhere(std::string_view nonce) const {
  if (!gateway_ || nonce.size() < kMarkDigits + kGatewayDigits) return false;
  const auto maker = text::wholeNumber<uint32_t>(
      nonce.substr(nonce.size() - kMarkDigits - kGatewayDigits, kGatewayDigits), 16);
  return maker != gateway_ || given_.mayHave(nonce);
}

std::optional<uint32_t> Nonces::madeElsewhere(std::string_view nonce, std::string_view user,
                                              std::string_view key) {
  uint32_t madeAt = 0;
  if (!gateway_ || nonce.size() > kTextMax || !timeOf(nonce, madeAt)) return std::nullopt;
  const auto maker = text::wholeNumber<uint32_t>(
      nonce.substr(nonce.size() - kMarkDigits - kGatewayDigits, kGatewayDigits), 16);
  const std::size_t userHash = std::hash<std::string_view>()(user);
  Bucket& bucket = bucketOf(nonce, userHash);
  const MutexLock lock(bucket.mutex);
  const UsedNonce* const entry = bucket.find(Key(nonce, userHash));
  if (entry) return entry->given ? maker : std::nullopt;
  return originOf(nonce, key) == Origin::Sibling ? maker : std::nullopt;
}

// What was not used yet is given too, and remembered as given.
std::optional<Nonces::State> Nonces::give(std::string_view nonce, std::string_view user,
                                          std::string_view key, Time time) {
  const uint32_t now = tickOf(time);
  uint32_t madeAt = 0;
  if (nonce.size() > kTextMax || !timeOf(nonce, madeAt)) return std::nullopt;
  const std::size_t userHash = std::hash<std::string_view>()(user);
  Bucket& bucket = bucketOf(nonce, userHash);
  const MutexLock lock(bucket.mutex);
  UsedNonce* entry = bucket.find(Key(nonce, userHash));
  if (!entry) {
    if (originOf(nonce, key) != Origin::Own || madeAt <= bucket.forgotten) return std::nullopt;
    bucket.makeRoom(now);
    entry = &bucket.add(Key(nonce, userHash), madeAt);
    entry->usedAt = now;
  }
  if (entry->given || now - entry->madeAt > kLifeTicks) return std::nullopt;
  entry->given = true;
  given_.add(nonce, now / kLifeTicks);
  return State{now - entry->madeAt, entry->counts};
}

void Nonces::take(std::string_view nonce, std::string_view user, const State& state, Time time) {
  const uint32_t now = tickOf(time);
  if (nonce.size() > kTextMax || state.ageTicks > kLifeTicks) return;
  const std::size_t userHash = std::hash<std::string_view>()(user);
  Bucket& bucket = bucketOf(nonce, userHash);
  const MutexLock lock(bucket.mutex);
  UsedNonce* entry = bucket.find(Key(nonce, userHash));
  if (!entry) {
    bucket.makeRoom(now);
    entry = &bucket.add(Key(nonce, userHash), now - state.ageTicks);
  }
  entry->usedAt = now;
  entry->given = false;
  entry->counts = state.counts;
}

bool Nonces::isFresh(std::string_view nonce, uint32_t count, std::string_view user,
                     std::string_view key, Time time) {
  uint32_t madeAt = 0;
  if (nonce.size() > kTextMax || !timeOf(nonce, madeAt)) return false;
  const std::size_t userHash = std::hash<std::string_view>()(user);
  Bucket& bucket = bucketOf(nonce, userHash);
  const MutexLock lock(bucket.mutex);
  if (const UsedNonce* const entry = bucket.find(Key(nonce, userHash))) {
    return !entry->given && tickOf(time) - entry->madeAt <= kLifeTicks &&
           entry->counts.isFree(count);
  }
  return tickOf(time) - madeAt <= kLifeTicks && originOf(nonce, key) == Origin::Own &&
         madeAt > bucket.forgotten;
}

Nonces::Key::Key(std::string_view nonce, std::size_t user) : length(nonce.size() + sizeof user) {
  std::memcpy(std::ranges::copy(nonce, text.begin()).out, &user, sizeof user);
}

Nonces::UsedNonce* Nonces::Bucket::find(const Key& key) {
  const auto found = byKey.find(key.view());
  return found == byKey.end() ? nullptr : &*found->second;
}

Nonces::UsedNonce& Nonces::Bucket::add(const Key& key, uint32_t madeAt) {
  UsedNonces one;
  one.push_back({key, madeAt});
  byKey.emplace(one.front().key.view(), one.begin());
  used.splice(used.end(), one);
  return used.back();
}

void Nonces::Bucket::makeRoom(uint32_t now) {
  const auto dropFirst = [this]() QN_REQUIRES(mutex) {
    byKey.erase(used.front().key.view());
    used.pop_front();
  };
  while (!used.empty() && now - used.front().usedAt > kLifeTicks) dropFirst();
  if (used.size() < kBucketEntries) return;
  forgotten = std::max(forgotten, used.front().madeAt);
  dropFirst();
}

Nonces::Bucket& Nonces::bucketOf(std::string_view nonce, std::size_t user) {
  const std::size_t place = std::hash<std::string_view>()(nonce) % kBucketsOfUser;
  return buckets_[(user + place) % kBuckets];
}

}  // namespace qn
