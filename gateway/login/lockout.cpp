#include "gateway/login/lockout.h"

#include <algorithm>

#include "gateway/auth/digest.h"

namespace qn {
namespace {

constexpr std::chrono::seconds kRoomInterval{1};  // between two searches of the whole table

}  // namespace

std::string_view lockoutAddress(std::string_view clientAddress) {
  constexpr int kNetworkGroups = 4;
  if (clientAddress.starts_with("::")) return clientAddress;  // loopback, IPv4 in IPv6
  std::size_t end = 0;
  for (int group = 0; group < kNetworkGroups; ++group) {
    end = clientAddress.find(':', end);
    if (end == clientAddress.npos) return clientAddress;
    ++end;
    if (clientAddress.substr(end).starts_with(':')) break;  // the rest of the network is zeros
  }
  return clientAddress.substr(0, end);
}

Lockout::Lockout() { fillRandom(reinterpret_cast<uint8_t*>(key_.data()), key_.size()); }

Lockout::Standing Lockout::standingOf(const Count& count, const LockOptions& options, Time now) {
  if (count.failures == 0 || now >= count.forgottenAt) return {options.maxAttempts, {}};
  if (count.failures < options.maxAttempts) return {options.maxAttempts - count.failures, {}};
  return {0, std::chrono::ceil<std::chrono::seconds>(count.forgottenAt - now)};
}

Lockout::Standing Lockout::fail(std::string_view address, const LockOptions& options, Time now) {
  const std::string key(lockoutAddress(address));
  const MutexLock lock(mutex_);
  clean_ = false;
  auto found = counts_.find(key);
  if (found == counts_.end() && counts_.size() >= kAddresses) makeRoom(now);
  if (found == counts_.end() && counts_.size() < kAddresses) {
    found = counts_.try_emplace(key).first;
  }
  sharedUsed_ |= found == counts_.end();
  Count& count = found == counts_.end() ? shared(key) : found->second;
  if (standingOf(count, options, now).locked()) return standingOf(count, options, now);
  if (now >= count.forgottenAt) count.failures = 0;
  ++count.failures;
  count.forgottenAt = now + options.lockTime;
  return standingOf(count, options, now);
}

Lockout::Standing Lockout::standing(std::string_view address, const LockOptions& options,
                                    Time now) {
  if (clean_) return {options.maxAttempts, {}};
  const std::string key(lockoutAddress(address));
  const MutexLock lock(mutex_);
  const auto found = counts_.find(key);
  if (found != counts_.end()) return standingOf(found->second, options, now);
  return standingOf(sharedUsed_ ? shared(key) : Count(), options, now);
}

void Lockout::forget(std::string_view address, const LockOptions& options, Time now) {
  if (clean_) return;
  const MutexLock lock(mutex_);
  const auto found = counts_.find(std::string(lockoutAddress(address)));
  if (found == counts_.end() || standingOf(found->second, options, now).locked()) return;
  counts_.erase(found);
  clean_ = counts_.empty() && !sharedUsed_;
}

Lockout::Count& Lockout::shared(std::string_view address) {
  uint8_t slot = 0;
  keyedHash({key_.data(), key_.size()}, address, &slot, 1);
  static_assert(kShared == 256, "one byte chooses");
  return sharedCounts_[slot];
}

void Lockout::makeRoom(Time now) {
  if (now - roomMadeAt_ < kRoomInterval) return;
  roomMadeAt_ = now;
  std::erase_if(counts_, [&](const auto& entry) { return now >= entry.second.forgottenAt; });
}

}  // namespace qn
