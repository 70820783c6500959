// Digest login: decides on an Authorization value by the users of a configuration, mostly the one
// in force. Behind QN_KAVROMgrBus_CheckDigest and CreateNonce; gateway/admin and tests make one of
// their own.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "gateway/auth/digest_credentials.h"
#include "gateway/login/lockout.h"
#include "gateway/login/nonces.h"
#include "gateway/metrics/counts.h"
#include "gateway/metrics/recent.h"
#include "platform/kavro_mgr_bus.h"

namespace qn {

// Thread-safe.
class Login {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  using Users = std::function<std::shared_ptr<const Configuration>()>;

  explicit Login(
      Clock clock = std::chrono::steady_clock::now, Users users = [] { return configuration(); })
      : clock_(std::move(clock)), users_(std::move(users)) {}

  // As QN_KAVROMgrBus_CheckDigest.
  DigestResult check(tagDIGEST_RESULT& result, std::string_view method,
                     const tagDIGEST_REQUEST& request, int mode);
  // Whether these credentials are right and their nonce count was not used yet: check() is going to
  // accept them, unless the address is locked. Counts nothing and uses nothing up.
  bool recognise(std::string_view method, std::string_view authorization);
  // As CreateNonce.
  int createNonce(char* buffer, int size, int randomBytes);

  const Sharded<LoginCounts>& counts() const { return counts_; }
  // Of addresses that are locked now, at most so many. Takes the locks that failing logins take,
  // each for a moment.
  std::vector<Lockout::Lock> locks(std::size_t most);
  // Forgets the failures of a client's address; whether it was locked.
  bool unlock(std::string_view address);
  static constexpr std::size_t kRecentRefusals = 32;
  struct Refusal {
    std::chrono::system_clock::time_point time;
    std::string user;  // as it was given, cut
    std::string address;
    bool locked;
  };
  std::vector<Refusal> refusals() const { return refusals_.newestFirst(); }

 private:
  struct Attempt;

  DigestResult decide(tagDIGEST_RESULT& result, std::string_view method, Attempt& attempt,
                      const tagDIGEST_REQUEST& request, int mode);
  DigestResult refuseLogin(tagDIGEST_RESULT& result, const Attempt& attempt,
                           std::string_view address, const Lockout::Standing& standing);
  DigestResult withoutCredentials(tagDIGEST_RESULT& result, const Configuration& config);
  DigestResult refuse(tagDIGEST_RESULT& result, const Configuration& config,
                      const Lockout::Standing& standing);
  DigestResult admit(tagDIGEST_RESULT& result, const Attempt& attempt, int mode, uint16_t port);
  void challenge(tagDIGEST_RESULT& result, const Configuration& config, bool stale);
  std::string authenticationInfo(const Attempt& attempt);

  static bool read(DigestCredentials& given, uint32_t& count, std::string_view authorization,
                   const KavroOptions& options);

  const Clock clock_;
  const Users users_;
  Nonces nonces_;
  Lockout lockout_;
  Sharded<LoginCounts> counts_;
  Recent<Refusal, kRecentRefusals> refusals_;
};

// The one behind QN_KAVROMgrBus_CheckDigest.
Login& clientLogin();

// Its Login::recognise, for the HTTP service.
bool recogniseLogin(std::string_view method, std::string_view authorization);

}  // namespace qn
