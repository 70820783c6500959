#include "gateway/login/lockout.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>

#include "gateway/auth/digest.h"

namespace qn {
namespace {

uint64_t numberOf(const uint8_t* bytes, int count) {
  uint64_t number = 0;
  for (int i = 0; i < count; ++i) number = number << 8 | bytes[i];
  return number;
}

}  // namespace

ClientNetwork::ClientNetwork(std::string_view address) {
  constexpr std::size_t kMapped = 12;  // bytes before an IPv4 address in an IPv6 one
  const std::string text(address);
  std::array<uint8_t, 16> bytes{};
  in6_addr six{};
  if (inet_pton(AF_INET, text.c_str(), bytes.data()) == 1) {
    bits_ = kIPv4 << 32 | numberOf(bytes.data(), 4);
  } else if (inet_pton(AF_INET6, text.c_str(), &six) == 1) {
    std::memcpy(bytes.data(), &six, bytes.size());
    bits_ = IN6_IS_ADDR_V4MAPPED(&six) ? kIPv4 << 32 | numberOf(bytes.data() + kMapped, 4)
                                       : numberOf(bytes.data(), 8);
  } else {
    bits_ = std::hash<std::string_view>()(address);
  }
}

std::string ClientNetwork::text() const {
  std::array<uint8_t, 16> bytes{};
  for (std::size_t i = 0; i < 8; ++i) bytes[i] = static_cast<uint8_t>(bits_ >> (56 - 8 * i));
  std::array<char, INET6_ADDRSTRLEN> text{};
  inet_ntop(isIPv4() ? AF_INET : AF_INET6, bytes.data() + (isIPv4() ? 4 : 0), text.data(),
            text.size());
  return std::string(text.data()) + (isIPv4() ? "" : "/64");
}

Lockout::Lockout() { fillRandom(reinterpret_cast<uint8_t*>(key_.data()), key_.size()); }

Lockout::Standing Lockout::Count::standing(const LockOptions& options, Time now) const {
  if (failures == 0 || now >= forgottenAt) return {options.maxAttempts, {}};
  if (failures < options.maxAttempts) return {options.maxAttempts - failures, {}};
  return {0, std::chrono::ceil<std::chrono::seconds>(forgottenAt - now)};
}

// The name's own place, else a free one; null when there is none.
Lockout::Name* Lockout::Count::placeOf(uint32_t name) {
  Name* free = nullptr;
  for (Name& each : names) {
    if (each.failures == 0) {
      if (!free) free = &each;
    } else if (each.hash == name) {
      return &each;
    }
  }
  if (free) free->hash = name;
  return free;
}

void Lockout::Count::add(uint32_t name) {
  ++failures;
  if (Name* const place = placeOf(name)) ++place->failures;
}

// Of names that have no place only their sum is known.
void Lockout::Count::raise(const Failures& known) {
  Name* const place = known.name != kOtherNames ? placeOf(known.name) : nullptr;
  if (!place || place->failures >= known.count) return;
  failures += int(known.count) - place->failures;
  place->failures = uint16_t(known.count);
}

Lockout::Record Lockout::Count::record() const {
  Record made{network, {}, forgottenAt};
  uint32_t others = uint32_t(failures);
  for (const Name& each : names) {
    if (each.failures == 0) continue;
    made.failures.push_back({each.hash, each.failures});
    others -= each.failures;
  }
  if (others > 0) made.failures.push_back({kOtherNames, others});
  return made;
}

void Lockout::Count::remove(uint32_t name) {
  for (Name& each : names) {
    if (each.hash != name) continue;
    failures -= each.failures;
    each.failures = 0;
  }
}

Lockout::Count* Lockout::Set::find(ClientNetwork network) {
  const auto found = std::ranges::find(counts, network, &Count::network);
  return found == counts.end() ? nullptr : &*found;
}

// A count of its own, or one of another to be renewed; null when there is no room.
Lockout::Count* Lockout::Set::place(ClientNetwork network, const LockOptions& options, Time now) {
  enum Claim { Expired, Free, OfNeighbour, OfStranger };  // to its place, the weakest first
  const auto claimOf = [&](const Count& count) {
    if (now >= count.forgottenAt) return Expired;
    if (!count.standing(options, now).locked()) return Free;
    return count.network.neighbours() == network.neighbours() ? OfNeighbour : OfStranger;
  };
  if (counts.size() < kSetSize) return &counts.emplace_back(Count{network});
  const auto weakest = std::ranges::min_element(counts, {}, [&](const Count& count) {
    return std::make_tuple(claimOf(count), count.forgottenAt);
  });
  if (claimOf(*weakest) == OfStranger) return nullptr;
  return &*weakest;
}

Lockout::Standing Lockout::fail(ClientNetwork network, std::string_view user,
                                const LockOptions& options, Time now) {
  Set& set = setOf(network);
  const MutexLock lock(set.mutex);
  Count* count = set.find(network);
  if (!count) count = set.place(network, options, now);
  if (!count) return {std::max(options.maxAttempts - 1, 1), {}};
  if (count->network == network && count->standing(options, now).locked()) {
    return count->standing(options, now);
  }
  if (count->network != network || now >= count->forgottenAt) renew(*count, network);
  add(*count, user, now + options.lockTime);
  Standing standing = count->standing(options, now);
  standing.justLocked = standing.locked();
  return standing;
}

void Lockout::renew(Count& count, ClientNetwork network) {
  if (count.failures != 0) --counted_;
  count = Count{network};
}

void Lockout::add(Count& count, std::string_view user, Time forgottenAt) {
  if (count.failures == 0) ++counted_;
  count.add(hash(user));
  count.forgottenAt = forgottenAt;
  rememberUntil(forgottenAt);
}

void Lockout::rememberUntil(Time forgottenAt) {
  Time last = lastForgottenAt_;
  while (last < forgottenAt && !lastForgottenAt_.compare_exchange_weak(last, forgottenAt)) {
  }
}

Lockout::Standing Lockout::standing(ClientNetwork network, const LockOptions& options, Time now) {
  if (isEmpty(now)) return {options.maxAttempts, {}};
  Set& set = setOf(network);
  const MutexLock lock(set.mutex);
  const Count* const count = set.find(network);
  return count ? count->standing(options, now) : Standing{options.maxAttempts, {}};
}

bool Lockout::unlock(ClientNetwork network, const LockOptions& options, Time now) {
  if (isEmpty(now)) return false;
  Set& set = setOf(network);
  const MutexLock lock(set.mutex);
  Count* const count = set.find(network);
  if (!count) return false;
  const bool wasLocked = count->standing(options, now).locked();
  renew(*count, network);
  return wasLocked;
}

std::vector<Lockout::Lock> Lockout::locks(const LockOptions& options, Time now, std::size_t most) {
  std::vector<Lock> found;
  if (isEmpty(now)) return found;
  for (Set& set : sets_) {
    const MutexLock lock(set.mutex);
    for (const Count& count : set.counts) {
      const Standing standing = count.standing(options, now);
      if (standing.locked() && found.size() < most) {
        found.push_back({count.network, standing.unlockIn});
      }
    }
  }
  return found;
}

// A count that has no room here is known to others all the same.
void Lockout::learn(const Record& record, const LockOptions& options, Time now) {
  if (now >= record.forgottenAt) return;
  Set& set = setOf(record.network);
  const MutexLock lock(set.mutex);
  Count* count = set.find(record.network);
  if (!count) count = set.place(record.network, options, now);
  if (!count) return;
  if (count->network != record.network || now >= count->forgottenAt) renew(*count, record.network);
  const bool wasEmpty = count->failures == 0;
  int all = 0;
  for (const Failures& known : record.failures) {
    count->raise(known);
    all += int(known.count);
  }
  count->failures = std::max(count->failures, all);
  if (wasEmpty && count->failures > 0) ++counted_;
  count->forgottenAt = std::max(count->forgottenAt, record.forgottenAt);
  rememberUntil(count->forgottenAt);
}

void Lockout::forget(ClientNetwork network, uint32_t nameHash, Time now) {
  if (isEmpty(now)) return;
  Set& set = setOf(network);
  const MutexLock lock(set.mutex);
  Count* const count = set.find(network);
  if (!count || count->failures == 0) return;
  count->remove(nameHash);
  if (count->failures == 0) --counted_;
}

std::vector<Lockout::Record> Lockout::records(Time now) {
  std::vector<Record> found;
  if (isEmpty(now)) return found;
  for (Set& set : sets_) {
    const MutexLock lock(set.mutex);
    for (const Count& count : set.counts) {
      if (count.failures > 0 && now < count.forgottenAt) found.push_back(count.record());
    }
  }
  return found;
}

bool Lockout::forget(ClientNetwork network, std::string_view user, const LockOptions& options,
                     Time now) {
  if (isEmpty(now)) return false;
  Set& set = setOf(network);
  const MutexLock lock(set.mutex);
  Count* const count = set.find(network);
  if (!count || count->failures == 0 || count->standing(options, now).locked()) return false;
  const int before = count->failures;
  count->remove(hash(user));
  if (count->failures == 0) --counted_;
  return count->failures != before;
}

uint32_t Lockout::hash(std::string_view name) const {
  uint32_t number = 0;
  const std::string_view key =
      nameKey_.empty() ? std::string_view(key_.data(), key_.size()) : std::string_view(nameKey_);
  keyedHash(key, name, {reinterpret_cast<uint8_t*>(&number), sizeof number});
  return std::max(number, kOtherNames + 1);
}

uint32_t Lockout::hash(uint64_t number) const {
  uint32_t hashed = 0;
  keyedHash({key_.data(), key_.size()}, {reinterpret_cast<const char*>(&number), sizeof number},
            {reinterpret_cast<uint8_t*>(&hashed), sizeof hashed});
  return hashed;
}

Lockout::Set& Lockout::setOf(ClientNetwork network) {
  const uint32_t first = hash(network.region());
  return sets_[(first + hash(network.neighbours()) % kSetsOfRegion) % kSets];
}

}  // namespace qn
