#include "gateway/login/login.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>

#include "gateway/auth/auth_reader.h"
#include "platform/config_mgr.h"
#include "text/ascii.h"
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

bool isForAlgorithm(const DigestCredentials& given, DigestAlgorithm algorithm) {
  return given.algorithm.data() ? text::equalNoCase(given.algorithm, algorithmName(algorithm))
                                : algorithm == DigestAlgorithm::MD5;
}

// Whether these could be right at all. Others are no guess, so they are not counted.
bool isComplete(const DigestCredentials& given, const KavroOptions& options) {
  return given.username.data() && given.realm == options.realm && !given.nonce.empty() &&
         !given.uri.empty() && given.qop == "auth" && !given.cnonce.empty() &&
         given.response.size() == hexLength(options.algorithm) && text::isHex(given.response) &&
         isForAlgorithm(given, options.algorithm) && !text::equalNoCase(given.userhash, "true");
}

const UserConfig* findUser(const Configuration& config, std::string_view username) {
  if (username.find('\\') == username.npos) return config.findUser(username);
  return config.findUser(unescapeQuoted(username));
}

bool isRight(const DigestCredentials& given, std::string_view method, const UserConfig* user,
             DigestAlgorithm algorithm) {
  const std::size_t length = hexLength(algorithm);
  const bool known = user && user->ha1.size() == length;
  const HexDigest expected =
      digestResponse(algorithm, known ? std::string_view(user->ha1) : kNoHa1.substr(0, length),
                     {method, given.uri, given.nonce, given.nc, given.cnonce});
  const bool same = equalInConstantTime(expected.text(), given.response);
  return known && same;
}

// The device that a request is for; null when the user may not use the one that its port names.
const std::string* deviceFor(const Configuration& config, const UserConfig& user, int mode,
                             uint16_t port) {
  if (config.kavro.mode != KAVRO_MODE_DEVICE_PORTS || mode != DIGEST_MODE_BY_PORT) {
    return &user.device;
  }
  const DeviceConfig* const named = config.findDeviceByPort(port);
  if (!named || named->index == user.device) return &user.device;
  const auto allowed = std::find(user.devices.begin(), user.devices.end(), named->index);
  return allowed == user.devices.end() ? nullptr : &*allowed;
}

void clear(tagDIGEST_RESULT& result) {
  result.retryLoginTime = 0;
  result.unlockTime = 0;
  result.wwwAuthenticate[0] = '\0';
  result.devIndex[0] = '\0';
}

}  // namespace

DigestResult Login::check(tagDIGEST_RESULT& result, std::string_view method,
                          const tagDIGEST_REQUEST& request, int mode) {
  clear(result);
  const Configuration& config = *configuration();
  const DigestAlgorithm algorithm = config.kavro.algorithm;
  const std::string_view address = textOf(request.clientIp);
  DigestCredentials given;
  uint32_t count = 0;
  if (!read(given, count, textOf(request.authorization), config.kavro)) {
    return withoutCredentials(result, config);
  }
  const auto now = clock_();
  const UserConfig* const user = findUser(config, given.username);
  if (!isRight(given, method, user, algorithm)) {
    return refuse(result, config, lockout_.fail(address, config.lock, now));
  }
  // The lock is looked at only now, so that a guess made while another one locked the address is
  // refused too.
  const Lockout::Standing standing = lockout_.standing(address, config.lock, now);
  if (standing.locked()) return refuse(result, config, standing);
  if (!nonces_.use(given.nonce, count, user->name, now)) {
    challenge(result, config.kavro, true);
    return DIGEST_NO_CREDENTIALS;
  }
  lockout_.forget(address, config.lock, now);
  const std::string* const device = deviceFor(config, *user, mode, request.port);
  if (!device) return DIGEST_NOT_ALLOWED;
  std::snprintf(result.devIndex, sizeof result.devIndex, "%s", device->c_str());
  return DIGEST_OK;
}

bool Login::recognise(std::string_view method, std::string_view authorization) {
  const Configuration& config = *configuration();
  DigestCredentials given;
  uint32_t count = 0;
  return read(given, count, authorization.substr(0, DIGEST_AUTHORIZATION_MAX), config.kavro) &&
         isRight(given, method, findUser(config, given.username), config.kavro.algorithm) &&
         nonces_.isFresh(given.nonce, count, clock_());
}

bool Login::read(DigestCredentials& given, uint32_t& count, std::string_view authorization,
                 const KavroOptions& options) {
  return parseDigestCredentials(authorization, given) && isComplete(given, options) &&
         readCount(given.nc, count);
}

// The caller makes the plain MD5 challenge itself.
DigestResult Login::withoutCredentials(tagDIGEST_RESULT& result, const Configuration& config) {
  if (config.kavro.algorithm != DigestAlgorithm::MD5) challenge(result, config.kavro, false);
  return DIGEST_NO_CREDENTIALS;
}

DigestResult Login::refuse(tagDIGEST_RESULT& result, const Configuration& config,
                           const Lockout::Standing& standing) {
  result.retryLoginTime = standing.attemptsLeft;
  result.unlockTime = int32_t(standing.unlockIn.count());
  challenge(result, config.kavro, false);
  return DIGEST_REFUSED;
}

void Login::challenge(tagDIGEST_RESULT& result, const KavroOptions& options, bool stale) {
  char nonce[64];
  createNonce(nonce, sizeof nonce, Nonces::kRandomMin);
  std::snprintf(result.wwwAuthenticate, sizeof result.wwwAuthenticate,
                "Digest qop=\"auth\", realm=\"%s\", nonce=\"%s\", stale=\"%s\"%s",
                options.realm.c_str(), nonce, stale ? "TRUE" : "FALSE",
                options.algorithm == DigestAlgorithm::MD5 ? "" : ", algorithm=SHA-256");
}

}  // namespace qn

namespace {

// Never destroyed: requests may still come while the process ends.
qn::Login& login() {
  static qn::Login* const instance = new qn::Login;
  return *instance;
}

}  // namespace

bool qn::recogniseLogin(std::string_view method, std::string_view authorization) {
  return login().recognise(method, authorization);
}

int QN_KAVROMgrBus_CheckDigest(tagDIGEST_RESULT& result, const char* method,
                               const tagDIGEST_REQUEST& request, int mode) {
  return login().check(result, method ? method : "", request, mode);
}

int CreateNonce(char* buffer, int size, int randomBytes, int) {
  return login().createNonce(buffer, size, randomBytes);
}
