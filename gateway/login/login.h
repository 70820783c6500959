// Digest login: decides on an Authorization value by the users of the configuration in force.
// Behind QN_KAVROMgrBus_CheckDigest and CreateNonce; tests make one with a clock of their own.
#pragma once

#include <chrono>
#include <functional>
#include <string_view>

#include "gateway/auth/digest_credentials.h"
#include "gateway/login/lockout.h"
#include "gateway/login/nonces.h"
#include "platform/kavro_mgr_bus.h"

namespace qn {

// Thread-safe.
class Login {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  explicit Login(Clock clock = std::chrono::steady_clock::now) : clock_(std::move(clock)) {}

  // As QN_KAVROMgrBus_CheckDigest.
  DigestResult check(tagDIGEST_RESULT& result, std::string_view method,
                     const tagDIGEST_REQUEST& request, int mode);
  // Whether these credentials are right and their nonce count was not used yet: check() is going to
  // accept them, unless the address is locked. Counts nothing and uses nothing up.
  bool recognise(std::string_view method, std::string_view authorization);
  // As CreateNonce.
  int createNonce(char* buffer, int size, int randomBytes);

 private:
  struct Attempt;

  DigestResult withoutCredentials(tagDIGEST_RESULT& result, const Configuration& config);
  DigestResult refuse(tagDIGEST_RESULT& result, const Configuration& config,
                      const Lockout::Standing& standing);
  DigestResult admit(tagDIGEST_RESULT& result, const Attempt& attempt, int mode, uint16_t port);
  void challenge(tagDIGEST_RESULT& result, const Configuration& config, bool stale);
  std::string authenticationInfo(const Attempt& attempt);

  static bool read(DigestCredentials& given, uint32_t& count, std::string_view authorization,
                   const KavroOptions& options);

  const Clock clock_;
  Nonces nonces_;
  Lockout lockout_;
};

// Login::recognise of the login behind QN_KAVROMgrBus_CheckDigest, for the HTTP service.
bool recogniseLogin(std::string_view method, std::string_view authorization);

}  // namespace qn
