#include "gateway/config/text_rules.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <string>

#include "gateway/config/redis_url.h"
#include "text/ascii.h"
#include "text/hex.h"
#include "text/number.h"

namespace qn {
namespace {

constexpr std::size_t kNameBytes = 128;
constexpr std::size_t kPasswordBytes = 256;
constexpr std::size_t kIndexBytes = 63;  // what the login hands to the request frame
constexpr std::size_t kUrlBytes = 1024;
constexpr std::size_t kHostBytes = 253;

// Printable ASCII without the blank.
bool isVisible(char c) { return c > ' ' && c < 0x7f; }

bool isControl(char c) { return uint8_t(c) < ' ' || c == 0x7f; }

bool hasNone(std::string_view text, std::string_view characters) {
  return text.find_first_of(characters) == text.npos;
}

bool isPlain(std::string_view text, std::size_t limit) {
  return text.size() <= limit && std::none_of(text.begin(), text.end(), isControl);
}

bool isIPv6(std::string_view text) {
  in6_addr address{};
  return inet_pton(AF_INET6, std::string(text).c_str(), &address) == 1;
}

bool isAddress(std::string_view text) {
  in_addr address{};
  return hasNone(text, std::string_view("\0", 1)) &&
         (inet_pton(AF_INET, std::string(text).c_str(), &address) == 1 || isIPv6(text));
}

// An address, or one followed by a slash and the number of its bits that count.
bool isNetwork(std::string_view text) {
  const std::size_t slash = text.find('/');
  if (slash == text.npos) return isAddress(text);
  const std::string_view address = text.substr(0, slash);
  const auto bits = text::wholeNumber<unsigned>(text.substr(slash + 1));
  return isAddress(address) && bits && *bits <= (isIPv6(address) ? 128u : 32u);
}

constexpr std::string_view kLevels[] = {"debug", "info", "warn", "error"};
constexpr std::string_view kLogFormats[] = {"text", "json"};
constexpr std::string_view kAccesses[] = {"none", "errors", "all"};
constexpr std::string_view kAlgorithms[] = {"MD5", "SHA-256"};
constexpr std::string_view kDeviceAuths[] = {"digest", "basic", "any"};
constexpr std::string_view kTlsVersions[] = {"1.2", "1.3"};
constexpr std::string_view kClientCertificates[] = {"none", "optional", "required"};
constexpr std::string_view kWhenFulls[] = {"refuse", "drop_oldest"};

template <const auto& kChoices>
bool isOneOf(std::string_view text) {
  return std::ranges::find(kChoices, text) != std::end(kChoices);
}

bool isRealm(std::string_view text) {
  return !text.empty() && text.size() <= kNameBytes && hasNone(text, "\"\\") &&
         std::all_of(text.begin(), text.end(), [](char c) { return c == ' ' || isVisible(c); });
}

bool isUserName(std::string_view text) {
  return !text.empty() && isPlain(text, kNameBytes) && hasNone(text, ":");
}

bool isPassword(std::string_view text) { return !text.empty() && isPlain(text, kPasswordBytes); }

bool isHa1(std::string_view text) { return !text.empty() && text::isHex(text); }

bool isDeviceIndex(std::string_view text) {
  return !text.empty() && text.size() <= kIndexBytes && hasNone(text, "&#%+?/") &&
         std::all_of(text.begin(), text.end(), isVisible);
}

bool isDeviceUrl(std::string_view text) {
  DeviceConfig device;
  return parseDeviceUrl(text, device);
}

bool isFingerprint(std::string_view text) {
  const std::string digits = plainFingerprint(text);
  return digits.size() == hexLength(DigestAlgorithm::SHA256) && text::isHex(digits);
}

bool isDeviceUser(std::string_view text) { return isPlain(text, kNameBytes) && hasNone(text, ":"); }

bool isDevicePassword(std::string_view text) { return isPlain(text, kPasswordBytes); }

bool isPath(std::string_view text) { return !text.empty() && isPlain(text, 4096); }

bool isHostName(std::string_view text) {
  constexpr std::string_view kAlphabet =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_";
  return !text.empty() && text.size() <= kHostBytes &&
         text.find_first_not_of(kAlphabet) == text.npos;
}

// Takes a name, an IPv4 address or an IPv6 address in brackets off the front.
bool takeHost(std::string_view& text, std::string& host) {
  const bool bracketed = text.starts_with('[');
  const std::size_t end = std::min(bracketed ? text.find(']') : text.find(':'), text.size());
  if (bracketed && end == text.size()) return false;
  host = bracketed ? text.substr(1, end - 1) : text.substr(0, end);
  text.remove_prefix(bracketed ? end + 1 : end);
  return bracketed ? isIPv6(host) : isHostName(host);
}

// ":" and a number, or nothing.
bool readPort(std::string_view text, uint16_t& port) {
  if (text.empty()) return true;
  const char* const last = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data() + 1, last, port);
  return text.size() > 1 && text[0] == ':' && error == std::errc() && end == last && port != 0;
}

// What may stand behind "Bearer"; or none.
bool isToken(std::string_view text) {
  constexpr std::size_t kShortest = 16;
  constexpr std::size_t kLongest = 256;
  const auto allowed = [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
           std::string_view("-._~+/=").find(c) != std::string_view::npos;
  };
  return text.empty() || (text.size() >= kShortest && text.size() <= kLongest &&
                          std::ranges::all_of(text, allowed));
}

// What libpq makes of it, the start says.
bool isPostgres(std::string_view text) {
  return isPlain(text, kUrlBytes) &&
         (text.starts_with("postgresql://") || text.starts_with("postgres://"));
}

bool isGatewayName(std::string_view text) {
  return !text.empty() && text.size() <= kIndexBytes &&
         std::ranges::all_of(text, [](unsigned char c) {
           return std::isalnum(c) != 0 || c == '-' || c == '.' || c == '_';
         });
}

}  // namespace

const TextRule kAddressRule{isAddress, "an IP address"};
const TextRule kNetworkRule{isNetwork, "an IP address or a network ADDRESS/BITS"};
const TextRule kLevelRule{isOneOf<kLevels>, "\"debug\", \"info\", \"warn\" or \"error\"", kLevels};
const TextRule kLogFormatRule{isOneOf<kLogFormats>, "\"text\" or \"json\"", kLogFormats};
const TextRule kAccessRule{isOneOf<kAccesses>, "\"none\", \"errors\" or \"all\"", kAccesses};
const TextRule kAlgorithmRule{isOneOf<kAlgorithms>, "\"MD5\" or \"SHA-256\"", kAlgorithms};
const TextRule kRealmRule{isRealm, "1 to 128 printable ASCII characters without \" and \\"};
const TextRule kUserNameRule{isUserName, "1 to 128 bytes without \":\" and control characters"};
const TextRule kPasswordRule{isPassword, "1 to 256 bytes without control characters"};
const TextRule kTokenRule{isToken, "16 to 256 letters, digits and -._~+/="};
const TextRule kHa1Rule{isHa1, "the hexadecimal digest of name:realm:password"};
const TextRule kDeviceIndexRule{
    isDeviceIndex, "1 to 63 printable ASCII characters without blanks and & # % + ? /"};
const TextRule kDeviceUrlRule{isDeviceUrl,
                              "http://HOST[:PORT][/PATH] or https://..., an IPv6 HOST in brackets"};
const TextRule kFingerprintRule{isFingerprint, "64 hexadecimal digits, with or without colons"};
const TextRule kDeviceUserRule{isDeviceUser,
                               "at most 128 bytes without \":\" and control characters"};
const TextRule kDevicePasswordRule{isDevicePassword,
                                   "at most 256 bytes without control characters"};
const TextRule kDeviceAuthRule{isOneOf<kDeviceAuths>, "\"digest\", \"basic\" or \"any\"",
                               kDeviceAuths};
const TextRule kPathRule{isPath, "a path"};
const TextRule kSecretFileRule{isPath,
                               "a path, or \"credential:NAME\" for one of the service manager's"};
const TextRule kTlsVersionRule{isOneOf<kTlsVersions>, "\"1.2\" or \"1.3\"", kTlsVersions};
const TextRule kCipherRule{isOneOf<kTls12Ciphers>,
                           "ECDHE-ECDSA or ECDHE-RSA with -AES128-GCM-SHA256, "
                           "-AES256-GCM-SHA384 or -CHACHA20-POLY1305",
                           kTls12Ciphers};
const TextRule kClientCertificatesRule{
    isOneOf<kClientCertificates>, "\"none\", \"optional\" or \"required\"", kClientCertificates};
const TextRule kWhenFullRule{isOneOf<kWhenFulls>, "\"refuse\" or \"drop_oldest\"", kWhenFulls};

const TextRule kPostgresRule{isPostgres, "postgresql://[USER[:PASSWORD]@]HOST[:PORT]/DATABASE"};
const TextRule kGatewayNameRule{isGatewayName, "1 to 63 letters, digits and -._"};

const TextRule kRedisRule{[](std::string_view text) { return parseRedisUrl(text).has_value(); },
                          "redis://[USER][:PASSWORD@]HOST[:PORT][/DATABASE]"};

bool parseDeviceUrl(std::string_view url, DeviceConfig& device) {
  constexpr std::string_view kHttp = "http://";
  constexpr std::string_view kHttps = "https://";
  device.tls = url.starts_with(kHttps);
  device.port = device.tls ? kDeviceHttpsPort : kDeviceHttpPort;
  if (url.size() > kUrlBytes || !(device.tls || url.starts_with(kHttp))) return false;
  url.remove_prefix((device.tls ? kHttps : kHttp).size());
  const std::size_t pathStart = std::min(url.find('/'), url.size());
  std::string_view authority = url.substr(0, pathStart);
  std::string_view path = url.substr(pathStart);
  while (path.ends_with('/')) path.remove_suffix(1);
  device.basePath = path;
  return takeHost(authority, device.host) && readPort(authority, device.port) &&
         hasNone(path, "?#") && std::all_of(path.begin(), path.end(), isVisible);
}

std::string plainFingerprint(std::string_view text) {
  std::string digits;
  for (const char c : text) {
    if (c != ':') digits += text::lower(c);
  }
  return digits;
}

bool isLoopback(std::string_view text) {
  const std::string address(text);
  in_addr four{};
  in6_addr six{};
  if (inet_pton(AF_INET, address.c_str(), &four) == 1) return ntohl(four.s_addr) >> 24 == 127;
  return inet_pton(AF_INET6, address.c_str(), &six) == 1 && IN6_IS_ADDR_LOOPBACK(&six);
}

}  // namespace qn
