// The client's side of HTTP authentication: answers a server's Digest or Basic challenge. Used by
// the device and alarm buses.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "gateway/auth/digest.h"

namespace qn {

// The login at one server. Not thread-safe; a copy is a login of its own, so two copies must not
// answer the same challenge.
class ClientLogin {
 public:
  ClientLogin(std::string username, std::string password);

  // Takes the WWW-Authenticate value of a 401 (several header lines joined by ", "). The strongest
  // scheme that is understood is used from now on: Digest with SHA-256, Digest with MD5, Basic.
  // False when there is none; the former challenge then stays.
  bool takeChallenge(std::string_view wwwAuthenticate);

  // The last challenge said that only the nonce was too old: try again with the same password. A
  // challenge in answer to credentials that is not stale means that they are wrong.
  bool stale() const { return stale_; }

  // The Authorization value for the next request, counted as one use of the nonce; empty before
  // the first challenge. `target` is the request target as sent.
  std::string authorization(std::string_view method, std::string_view target);

 private:
  enum class Scheme { None, Basic, Digest };
  struct Challenge {
    Scheme scheme = Scheme::None;
    DigestAlgorithm algorithm = DigestAlgorithm::MD5;
    bool qopAuth = false;
    bool usable = true;  // nothing in it that is not understood
    bool stale = false;
    std::string realm;
    std::string nonce;
    std::string opaque;
    bool hasOpaque = false;

    int strength() const;
    void take(std::string_view name, std::string_view value);
  };

  std::string digest(std::string_view method, std::string_view target);
  std::string basic() const;
  void use(Challenge challenge);

  std::string username_;
  std::string password_;
  Challenge challenge_;
  bool stale_ = false;
  std::string ha1_;  // of the challenge's realm
  std::string clientNonce_;
  uint32_t nonceCount_ = 0;
};

}  // namespace qn
