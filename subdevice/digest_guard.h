// The device's own login: HTTP Digest with MD5 and qop auth, asked of every request when the
// simulator was given a username. Counts wrong logins and locks like a camera does.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include "subdevice/message.h"

namespace subdevice {

// The lower-case hexadecimal MD5 of the text.
std::string md5Hex(std::string_view text);

class DigestGuard {
 public:
  static constexpr int kWrongLoginsToLock = 5;

  DigestGuard(std::string username, std::string password);

  // True when the request may pass; otherwise `refusal` is the answer. Always true without a
  // username.
  bool admit(const Request& request, Reply& refusal);

  // Every nonce handed out becomes stale.
  void expireNonces() { nonces_.clear(); }
  void unlock() { wrongInARow_ = 0; }

  bool locked() const { return wrongInARow_ >= kWrongLoginsToLock; }
  uint64_t logins() const { return logins_; }
  uint64_t wrongLogins() const { return wrongLogins_; }
  uint64_t challenges() const { return challenges_; }

 private:
  enum class Stale { No, Yes };

  bool responseFits(const Request& request) const;
  Reply challenge(Stale stale);

  const std::string username_;
  const std::string password_;
  std::deque<std::string> nonces_;  // the newest ones handed out
  int wrongInARow_ = 0;
  uint64_t logins_ = 0;
  uint64_t wrongLogins_ = 0;
  uint64_t challenges_ = 0;
};

}  // namespace subdevice
