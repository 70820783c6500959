#include "gateway/auth/client_login.h"

#include <openssl/evp.h>

#include <array>
#include <cstdio>
#include <utility>

#include "gateway/auth/auth_reader.h"
#include "text/ascii.h"

namespace qn {
namespace {

bool listHas(std::string_view list, std::string_view word) {
  while (!list.empty()) {
    const std::size_t end = list.find_first_of(", \t");
    if (text::equalNoCase(list.substr(0, end), word)) return true;
    list.remove_prefix(end == list.npos ? list.size() : end + 1);
  }
  return false;
}

std::string randomHex() {
  std::array<uint8_t, 8> bytes{};
  if (!fillRandom(bytes.data(), bytes.size())) return {};
  return std::string(HexDigest(bytes.data(), bytes.size()).text());
}

std::string base64(std::string_view text) {
  std::string encoded(4 * ((text.size() + 2) / 3) + 1, '\0');  // the library adds a NUL
  const int length =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()),
                      reinterpret_cast<const unsigned char*>(text.data()), int(text.size()));
  encoded.resize(std::size_t(length));
  return encoded;
}

}  // namespace

ClientLogin::ClientLogin(std::string username, std::string password)
    : username_(std::move(username)), password_(std::move(password)) {}

int ClientLogin::Challenge::strength() const {
  if (scheme == Scheme::Basic) return 1;
  if (scheme != Scheme::Digest || !usable || nonce.empty()) return 0;
  return algorithm == DigestAlgorithm::MD5 ? 2 : 3;
}

void ClientLogin::Challenge::take(std::string_view name, std::string_view value) {
  if (text::equalNoCase(name, "realm")) realm = unescapeQuoted(value);
  if (text::equalNoCase(name, "nonce")) nonce = value;
  if (text::equalNoCase(name, "stale")) stale = text::equalNoCase(value, "true");
  if (text::equalNoCase(name, "opaque")) {
    opaque = value;
    hasOpaque = true;
  }
  if (text::equalNoCase(name, "qop")) {
    qopAuth = listHas(value, "auth");
    usable = usable && qopAuth;
  }
  if (text::equalNoCase(name, "algorithm")) {
    const bool sha256 = text::equalNoCase(value, "SHA-256");
    algorithm = sha256 ? DigestAlgorithm::SHA256 : DigestAlgorithm::MD5;
    usable = usable && (sha256 || text::equalNoCase(value, "MD5"));
  }
}

bool ClientLogin::takeChallenge(std::string_view wwwAuthenticate) {
  using Item = AuthReader::Item;
  AuthReader reader(wwwAuthenticate);
  Challenge best;
  Challenge current;
  const auto settle = [&] {
    if (current.strength() > best.strength()) best = std::move(current);
    current = Challenge();
  };
  for (Item item = reader.next(); item != Item::End && item != Item::Malformed;
       item = reader.next()) {
    if (item == Item::Parameter) current.take(reader.name(), reader.value());
    if (item != Item::Scheme) continue;
    settle();
    if (text::equalNoCase(reader.name(), "Digest")) current.scheme = Scheme::Digest;
    if (text::equalNoCase(reader.name(), "Basic")) current.scheme = Scheme::Basic;
  }
  settle();
  if (best.strength() == 0) return false;
  use(std::move(best));
  return true;
}

void ClientLogin::use(Challenge challenge) {
  challenge_ = std::move(challenge);
  stale_ = challenge_.stale;
  nonceCount_ = 0;
  if (challenge_.scheme != Scheme::Digest) return;
  ha1_ = hexDigest(challenge_.algorithm, {username_, challenge_.realm, password_}).text();
  clientNonce_ = randomHex();
}

std::string ClientLogin::authorization(std::string_view method, std::string_view target) {
  switch (challenge_.scheme) {
    case Scheme::Digest:
      return digest(method, target);
    case Scheme::Basic:
      return basic();
    default:
      return {};
  }
}

std::string ClientLogin::basic() const { return "Basic " + base64(username_ + ':' + password_); }

std::string ClientLogin::digest(std::string_view method, std::string_view target) {
  std::array<char, 9> count;
  std::snprintf(count.data(), count.size(), "%08x", ++nonceCount_);
  const DigestAlgorithm algorithm = challenge_.algorithm;
  const HexDigest response =
      challenge_.qopAuth
          ? digestResponse(algorithm, ha1_,
                           {method, target, challenge_.nonce, count.data(), clientNonce_})
          : hexDigest(algorithm,
                      {ha1_, challenge_.nonce, hexDigest(algorithm, {method, target}).text()});
  std::string value;
  value.reserve(512);
  const auto add = [&value](std::initializer_list<std::string_view> pieces) {
    for (const std::string_view piece : pieces) value += piece;
  };
  add({"Digest username=\"", escapeQuoted(username_), "\", realm=\"",
       escapeQuoted(challenge_.realm), "\", nonce=\"", challenge_.nonce, "\", uri=\"", target,
       "\", algorithm=", algorithmName(algorithm), ", response=\"", response.text(), "\""});
  if (challenge_.qopAuth) {
    add({", qop=auth, nc=", count.data(), ", cnonce=\"", clientNonce_, "\""});
  }
  if (challenge_.hasOpaque) add({", opaque=\"", challenge_.opaque, "\""});
  return value;
}

}  // namespace qn
