// Digest login: decides on an Authorization value by the users of a configuration, mostly the one
// in force. Behind QN_KAVROMgrBus_CheckDigest and CreateNonce; gateway/admin and tests make one of
// their own.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "gateway/auth/digest_credentials.h"
#include "gateway/login/lockout.h"
#include "gateway/login/nonces.h"
#include "gateway/login/peers.h"
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
  // Whether the credentials are right and their nonce is used at another gateway: then `ready` is
  // called, once, on any thread, when check() should be asked, and no earlier than is needed for
  // it to know the nonce; at the latest after LoginPeers::kFetchTime.
  bool awaitNonce(std::string_view method, std::string_view authorization,
                  std::function<void()> ready);
  // Whether it is worth asking awaitNonce(). Costs next to nothing.
  bool mayAwaitNonce(std::string_view authorization) const;
  // As CreateNonce.
  int createNonce(char* buffer, int size, int randomBytes);

  const Sharded<LoginCounts>& counts() const { return counts_; }
  // Of addresses that are locked now, at most so many. Takes the locks that failing logins take,
  // each for a moment.
  std::vector<Lockout::Lock> locks(std::size_t most);
  // Forgets the failures of a client's address; whether it was locked.
  bool unlock(std::string_view address);

  // One of several gateways, which `peers` tells of what happens here; `gateway` is this process's
  // own number, `nameKey` the same everywhere. Before the first use; `peers` outlives all use.
  void join(LoginPeers& peers, uint32_t gateway, std::string_view nameKey);
  // What happened at others. Names are hashes, as Lockout::hash makes them.
  struct Known {
    ClientNetwork network;
    std::vector<Lockout::Failures> failures;
    std::chrono::milliseconds left;  // until they are forgotten
  };
  void failedElsewhere(const Known& known);
  void forgottenElsewhere(ClientNetwork network, uint32_t name);
  void unlockedElsewhere(ClientNetwork network);
  std::vector<Known> knownFailures();
  std::optional<Nonces::State> giveNonce(std::string_view nonce, std::string_view user);
  void takeNonce(std::string_view nonce, std::string_view user, const Nonces::State& state);
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
  Lockout::Standing standingOf(std::string_view address, const LockOptions& options,
                               Lockout::Time now);
  void forgive(std::string_view address, const Attempt& attempt);
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
  NoPeers alone_;
  LoginPeers* peers_ = &alone_;  // constant after the first use
  Nonces nonces_;
  Lockout lockout_;
  Sharded<LoginCounts> counts_;
  Recent<Refusal, kRecentRefusals> refusals_;
};

// The one behind QN_KAVROMgrBus_CheckDigest.
Login& clientLogin();

// Its Login::recognise, for the HTTP service.
bool recogniseLogin(std::string_view method, std::string_view authorization);
// Its Login::mayAwaitNonce and Login::awaitNonce.
bool mayAwaitNonce(std::string_view authorization);
bool awaitNonce(std::string_view method, std::string_view authorization,
                std::function<void()> ready);

}  // namespace qn
