#include "gateway/login/login.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>

#include "gateway/auth/login_request.h"
#include "gateway/log/client_log.h"
#include "platform/config_mgr.h"
#include "text/ascii.h"
#include "text/bytes.h"
#include "text/hex.h"

namespace qn {
namespace {

// Stands in for the HA1 of unknown users, so that refusing them costs the same.
constexpr std::string_view kNoHa1 =
    "0000000000000000000000000000000000000000000000000000000000000000";

template <std::size_t N>
std::string_view textOf(const char (&field)[N]) {
  return {field, strnlen(field, N)};
}

bool readCount(std::string_view digits, uint32_t& count) {
  const char* const end = digits.data() + digits.size();
  return digits.size() == 8 && std::from_chars(digits.data(), end, count, 16).ptr == end;
}

// False for an algorithm that the configuration does not offer.
bool readAlgorithm(const DigestCredentials& given, const Configuration& config,
                   DigestAlgorithm& algorithm) {
  using enum DigestAlgorithm;
  const bool sha256 = text::equalNoCase(given.algorithm, algorithmName(SHA256));
  algorithm = sha256 ? SHA256 : MD5;
  const bool known =
      !given.algorithm.data() || sha256 || text::equalNoCase(given.algorithm, algorithmName(MD5));
  return known && config.offers(algorithm);
}

// Whether these could be right at all. Others are no guess, so they are not counted.
bool isComplete(const DigestCredentials& given, std::string_view realm, DigestAlgorithm algorithm) {
  return given.realm == realm && !given.nonce.empty() && !given.uri.empty() &&
         given.qop == "auth" && !given.cnonce.empty() &&
         given.response.size() == hexLength(algorithm) && text::isHex(given.response);
}

// Nothing where it takes more than a glance to find.
std::optional<std::string_view> nonceAtAGlance(std::string_view authorization) {
  constexpr std::string_view kBegin = "nonce=\"";
  std::size_t at = authorization.find(kBegin);
  while (at != authorization.npos && at > 0 && authorization[at - 1] == 'c') {
    at = authorization.find(kBegin, at + 1);
  }
  if (at == authorization.npos) return std::nullopt;
  const std::string_view rest = authorization.substr(at + kBegin.size());
  return rest.substr(0, rest.find('"'));
}

std::string lower(std::string text) {
  std::ranges::transform(text, text.begin(), text::lower);
  return text;
}

// The device that a request is for; null when the user may not use the one that its port names.
const std::string* deviceFor(const Configuration& config, const UserConfig& user, int mode,
                             uint16_t port) {
  const bool byPort = config.kavro.mode == KAVRO_MODE_DEVICE_PORTS && mode == DIGEST_MODE_BY_PORT;
  const DeviceConfig* const named = byPort ? config.findDeviceByPort(port) : nullptr;
  if (!named) return &user.device;
  return config.mayUse(user, named->index) ? &named->index : nullptr;
}

// Somebody may type a password into the name's place by mistake, so not too much of it is told.
constexpr std::size_t kLoggedName = 32;

void reportRefusal(std::string_view name, std::string_view address,
                   const Lockout::Standing& standing) {
  if (standing.locked()) {
    logClient(LogLevel::Warn, address, "login of \"{}\" from {} refused: locked for {} s", name,
              address, standing.unlockIn.count());
  } else {
    logClient(LogLevel::Warn, address, "login of \"{}\" from {} failed: {} attempts left", name,
              address, standing.attemptsLeft);
  }
}

void clear(tagDIGEST_RESULT& result) {
  result.retryLoginTime = 0;
  result.unlockTime = 0;
  result.wwwAuthenticate[0] = '\0';
  result.devIndex[0] = '\0';
}

}  // namespace

// Credentials that could be right, and what they are judged by.
struct Login::Attempt {
  // False for what is no guess.
  bool read(std::string_view authorization, const Configuration& inForce) {
    if (!parseDigestCredentials(authorization, given) || !usernameOf(given, name) ||
        !readAlgorithm(given, inForce, algorithm) ||
        !isComplete(given, inForce.kavro.realm, algorithm) || !readCount(given.nc, count)) {
      return false;
    }
    const bool hashed = text::equalNoCase(given.userhash, "true");
    user = hashed ? inForce.findHashedUser(lower(name)) : inForce.findUser(name);
    if (user) name = user->name;
    config = &inForce;
    return true;
  }

  bool isRight(std::string_view method) {
    const std::string_view known = user ? user->ha1For(algorithm) : std::string_view();
    responses.emplace(algorithm, known.empty() ? kNoHa1.substr(0, hexLength(algorithm)) : known,
                      NonceUse{given.nonce, given.nc, given.cnonce});
    const HexDigest right = responses->of(method, given.uri);
    return equalInConstantTime(right.text(), given.response) && !known.empty();
  }

  DigestCredentials given;
  uint32_t count = 0;
  DigestAlgorithm algorithm = DigestAlgorithm::MD5;
  const Configuration* config = nullptr;
  const UserConfig* user = nullptr;  // null: unknown
  std::string name;
  std::optional<DigestResponses> responses;  // since isRight()
  Lockout::Time now;
  bool shouldRenew = false;  // the nonce
};

DigestResult Login::check(tagDIGEST_RESULT& result, std::string_view method,
                          const tagDIGEST_REQUEST& request, int mode) {
  clear(result);
  const std::shared_ptr<const Configuration> config = users_();
  Attempt attempt;
  if (!attempt.read(textOf(request.authorization), *config)) {
    counts_.here().withoutCredentials.add();
    return withoutCredentials(result, *config);
  }
  attempt.now = clock_();
  return decide(result, method, attempt, request, mode);
}

DigestResult Login::decide(tagDIGEST_RESULT& result, std::string_view method, Attempt& attempt,
                           const tagDIGEST_REQUEST& request, int mode) {
  const Configuration& config = *attempt.config;
  const LoginRequest* const service = LoginRequest::current();
  const std::string_view address = service ? service->clientAddress() : textOf(request.clientIp);
  if (!attempt.isRight(method)) {
    const ClientNetwork client(address);
    const Lockout::Standing standing =
        lockout_.fail(client, attempt.name, config.lock, attempt.now);
    if (!standing.locked() || standing.justLocked) {
      peers_->failed(client, lockout_.hash(attempt.name), config.lock.lockTime);
    }
    return refuseLogin(result, attempt, address, standing);
  }
  // The lock is looked at only now, so that a guess made while another one locked the address is
  // refused too.
  const Lockout::Standing standing = standingOf(address, config.lock, attempt.now);
  if (standing.locked()) return refuseLogin(result, attempt, address, standing);
  const auto [use, shouldRenew] = nonces_.use(attempt.given.nonce, attempt.count, attempt.name,
                                              config.kavro.nonceKey, attempt.now);
  attempt.shouldRenew = shouldRenew;
  if (use != Nonces::Use::Fresh) {
    counts_.here().stale.add();
    // Without a key of its own nobody can tell a nonce from before the start from an invented one.
    challenge(result, config, use == Nonces::Use::Stale || config.kavro.nonceKey.empty());
    return DIGEST_NO_CREDENTIALS;
  }
  if (!lockout_.isEmpty(attempt.now)) forgive(address, attempt);
  if (attempt.count == 1) {  // the first one with its nonce
    logClient(LogLevel::Info, address, "login of \"{}\" from {}", attempt.name, address);
  }
  return admit(result, attempt, mode, request.port);
}

// Mostly nobody has failed, and it does not matter where the client is.
Lockout::Standing Login::standingOf(std::string_view address, const LockOptions& options,
                                    Lockout::Time now) {
  if (lockout_.isEmpty(now)) return {options.maxAttempts, {}};
  return lockout_.standing(ClientNetwork(address), options, now);
}

// Forgets the failures with this name.
void Login::forgive(std::string_view address, const Attempt& attempt) {
  const ClientNetwork client(address);
  const LockOptions& options = attempt.config->lock;
  if (lockout_.forget(client, attempt.name, options, attempt.now)) {
    peers_->forgotten(client, lockout_.hash(attempt.name), options);
  }
}

DigestResult Login::refuseLogin(tagDIGEST_RESULT& result, const Attempt& attempt,
                                std::string_view address, const Lockout::Standing& standing) {
  LoginCounts& counts = counts_.here();
  const bool wasLocked = standing.locked() && !standing.justLocked;
  (wasLocked ? counts.whileLocked : counts.wrong).add();
  if (standing.justLocked) counts.locks.add();
  const std::string_view name = std::string_view(attempt.name).substr(0, kLoggedName);
  refusals_.add([&](Refusal& entry) {
    entry = {std::chrono::system_clock::now(), std::string(name), std::string(address),
             standing.locked()};
  });
  reportRefusal(name, address, standing);
  return refuse(result, *attempt.config, standing);
}

bool Login::recognise(std::string_view method, std::string_view authorization) {
  const std::shared_ptr<const Configuration> held = users_();
  Attempt attempt;
  return attempt.read(authorization.substr(0, DIGEST_AUTHORIZATION_MAX), *held) &&
         attempt.isRight(method) &&
         (nonces_.isFresh(attempt.given.nonce, attempt.count, attempt.name, held->kavro.nonceKey,
                          clock_()) ||
          nonces_.madeElsewhere(attempt.given.nonce, attempt.name, held->kavro.nonceKey));
}

DigestResult Login::admit(tagDIGEST_RESULT& result, const Attempt& attempt, int mode,
                          uint16_t port) {
  const std::string* const device = deviceFor(*attempt.config, *attempt.user, mode, port);
  if (!device) {
    counts_.here().notAllowed.add();
    return DIGEST_NOT_ALLOWED;
  }
  counts_.here().admitted.add();
  const std::size_t shown = std::min(device->size(), sizeof result.devIndex - 1);
  *std::copy_n(device->data(), shown, result.devIndex) = '\0';
  LoginRequest* const service = LoginRequest::current();
  if (service) {
    service->loggedIn({attempt.name, attempt.user->ha1, *device}, authenticationInfo(attempt));
  }
  return DIGEST_OK;
}

// Proves to the client that the gateway knows the password, and hands out the next nonce in time.
std::string Login::authenticationInfo(const Attempt& attempt) {
  const DigestCredentials& given = attempt.given;
  const HexDigest proof = attempt.responses->of("", given.uri);
  std::string info;
  text::appendAll(info, {"rspauth=\"", proof.text(), "\", cnonce=\"", given.cnonce,
                         "\", qop=auth, nc=", given.nc});
  char nonce[64];
  if (attempt.shouldRenew && nonces_.create(nonce, sizeof nonce, Nonces::kRandomMin,
                                            attempt.config->kavro.nonceKey, attempt.now) > 0) {
    info.append(", nextnonce=\"").append(nonce) += '"';
  }
  return info;
}

int Login::createNonce(char* buffer, int size, int randomBytes) {
  return nonces_.create(buffer, size, randomBytes, users_()->kavro.nonceKey, clock_());
}

// The caller makes the plain MD5 challenge itself.
DigestResult Login::withoutCredentials(tagDIGEST_RESULT& result, const Configuration& config) {
  if (config.offers(DigestAlgorithm::SHA256)) challenge(result, config, false);
  return DIGEST_NO_CREDENTIALS;
}

DigestResult Login::refuse(tagDIGEST_RESULT& result, const Configuration& config,
                           const Lockout::Standing& standing) {
  result.retryLoginTime = standing.attemptsLeft;
  result.unlockTime = int32_t(standing.unlockIn.count());
  challenge(result, config, false);
  return DIGEST_REFUSED;
}

std::vector<Lockout::Lock> Login::locks(std::size_t most) {
  return lockout_.locks(users_()->lock, clock_(), most);
}

bool Login::unlock(std::string_view address) {
  const ClientNetwork network(address);
  const bool wasLocked = lockout_.unlock(network, users_()->lock, clock_());
  peers_->unlocked(network);
  return wasLocked;
}

bool Login::mayAwaitNonce(std::string_view authorization) const {
  const auto nonce = nonceAtAGlance(authorization);
  return !nonce || nonces_.mayBeElsewhere(*nonce);
}

bool Login::awaitNonce(std::string_view method, std::string_view authorization,
                       std::function<void()> ready) {
  const std::shared_ptr<const Configuration> held = users_();
  Attempt attempt;
  if (!attempt.read(authorization.substr(0, DIGEST_AUTHORIZATION_MAX), *held)) return false;
  const auto maker = nonces_.madeElsewhere(attempt.given.nonce, attempt.name, held->kavro.nonceKey);
  if (!maker || !attempt.isRight(method)) return false;
  peers_->fetch(*maker, attempt.given.nonce, attempt.name, std::move(ready));
  return true;
}

void Login::join(LoginPeers& peers, uint32_t gateway, std::string_view nameKey) {
  peers_ = &peers;
  nonces_.joinGateways(gateway);
  lockout_.setNameKey(nameKey);
}

void Login::failedElsewhere(const Known& known) {
  const Lockout::Time now = clock_();
  lockout_.learn({known.network, known.failures, now + known.left}, users_()->lock, now);
}

void Login::forgottenElsewhere(ClientNetwork network, uint32_t name) {
  lockout_.forget(network, name, clock_());
}

void Login::unlockedElsewhere(ClientNetwork network) {
  lockout_.unlock(network, users_()->lock, clock_());
}

std::vector<Login::Known> Login::knownFailures() {
  std::vector<Known> known;
  const Lockout::Time now = clock_();
  for (Lockout::Record& each : lockout_.records(now)) {
    known.push_back({each.network, std::move(each.failures),
                     std::chrono::ceil<std::chrono::milliseconds>(each.forgottenAt - now)});
  }
  return known;
}

std::optional<Nonces::State> Login::giveNonce(std::string_view nonce, std::string_view user) {
  return nonces_.give(nonce, user, users_()->kavro.nonceKey, clock_());
}

void Login::takeNonce(std::string_view nonce, std::string_view user, const Nonces::State& state) {
  nonces_.take(nonce, user, state, clock_());
}

// One for each algorithm that is offered, the gateway's own first.
void Login::challenge(tagDIGEST_RESULT& result, const Configuration& config, bool stale) {
  using enum DigestAlgorithm;
  char nonce[64];
  nonces_.create(nonce, sizeof nonce, Nonces::kRandomMin, config.kavro.nonceKey, clock_());
  const DigestAlgorithm own = config.kavro.algorithm;
  std::string text;
  for (const DigestAlgorithm algorithm : {own, own == MD5 ? SHA256 : MD5}) {
    if (!config.offers(algorithm)) continue;
    if (!text.empty()) text += ", ";
    text.append("Digest qop=\"auth\", realm=\"").append(config.kavro.realm);
    text.append("\", nonce=\"").append(nonce).append("\", stale=\"");
    text.append(stale ? "TRUE\"" : "FALSE\"").append(algorithm == MD5 ? "" : ", algorithm=SHA-256");
  }
  std::snprintf(result.wwwAuthenticate, sizeof result.wwwAuthenticate, "%s", text.c_str());
}

// Never destroyed: requests may still come while the process ends.
Login& clientLogin() {
  static Login* const instance = new Login;
  return *instance;
}

bool recogniseLogin(std::string_view method, std::string_view authorization) {
  return clientLogin().recognise(method, authorization);
}

bool mayAwaitNonce(std::string_view authorization) {
  return clientLogin().mayAwaitNonce(authorization);
}

bool awaitNonce(std::string_view method, std::string_view authorization,
                std::function<void()> ready) {
  return clientLogin().awaitNonce(method, authorization, std::move(ready));
}

}  // namespace qn

int QN_KAVROMgrBus_CheckDigest(tagDIGEST_RESULT& result, const char* method,
                               const tagDIGEST_REQUEST& request, int mode) {
  return qn::clientLogin().check(result, method ? method : "", request, mode);
}

int CreateNonce(char* buffer, int size, int randomBytes, int) {
  return qn::clientLogin().createNonce(buffer, size, randomBytes);
}
