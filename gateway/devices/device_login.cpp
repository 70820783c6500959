#include "gateway/devices/device_login.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "gateway/auth/auth_reader.h"
#include "gateway/log/log.h"
#include "text/ascii.h"
#include "text/hex.h"

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
  return text::hexOf(bytes);
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

ClientLogin::ClientLogin(std::string username, std::string password, DeviceAuth allowed)
    : username_(std::move(username)), password_(std::move(password)), allowed_(allowed) {}

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
    if (isAllowed(current.scheme) && current.strength() > best.strength()) {
      best = std::move(current);
    }
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

bool ClientLogin::isAllowed(Scheme scheme) const {
  return scheme == Scheme::Basic ? allowed_ != DeviceAuth::Digest : allowed_ != DeviceAuth::Basic;
}

void ClientLogin::use(Challenge challenge) {
  challenge_ = std::move(challenge);
  nonceCount_ = 0;
  if (challenge_.scheme != Scheme::Digest) return;
  allowed_ = DeviceAuth::Digest;  // whoever stands between could ask for the password later
  ha1_ = hexDigest(challenge_.algorithm, {username_, challenge_.realm, password_}).text();
  clientNonce_ = randomHex();
}

std::string ClientLogin::authorization(std::string_view method, std::string_view target) {
  switch (challenge_.scheme) {
    case Scheme::Digest:
      return digest(method, target);
    case Scheme::Basic:
      return "Basic " + base64(username_ + ':' + password_);
    default:
      return {};
  }
}

std::string ClientLogin::digest(std::string_view method, std::string_view target) {
  std::array<char, 9> count;
  std::snprintf(count.data(), count.size(), "%08x", ++nonceCount_);
  const DigestAlgorithm algorithm = challenge_.algorithm;
  const HexDigest response =
      challenge_.qopAuth
          ? DigestResponses(algorithm, ha1_, {challenge_.nonce, count.data(), clientNonce_})
                .of(method, target)
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

DeviceLogin::Ticket::~Ticket() {
  if (trialOf_) trialOf_->abandon(*this);
}

DeviceLogin::DeviceLogin(const DeviceConfig& config, const RefusalTimes& times)
    : enabled_(!config.username.empty()),
      device_(config.index),
      times_(times),
      login_(config.username, config.password, config.auth),
      pause_(times.first) {}

DeviceLogin::Verdict DeviceLogin::prepare(Ticket& ticket, std::string_view method,
                                          std::string_view target, std::string& authorization) {
  authorization.clear();
  if (!enabled_) return Verdict::Send;
  const MutexLock lock(mutex_);
  if (isRefused()) return Verdict::Refused;
  if (state_ == State::Trying && !ticket.trialOf_) return Verdict::Wait;
  if (state_ == State::Unproven) {
    ticket.challenge_ = 0;
    return Verdict::Send;
  }
  ticket.challenge_ = challenge_;
  authorization = login_.authorization(method, target);
  return Verdict::Send;
}

bool DeviceLogin::isRefused() {
  if (state_ != State::Refused) return false;
  if (Clock::now() < refusedUntil_) return true;
  state_ = State::Unproven;
  return false;
}

std::optional<DeviceLogin::Clock::duration> DeviceLogin::refusedFor() {
  const MutexLock lock(mutex_);
  if (!isRefused()) return std::nullopt;
  return refusedUntil_ - Clock::now();
}

bool DeviceLogin::refused(Ticket& ticket, std::string_view wwwAuthenticate) {
  if (!enabled_) return false;
  const MutexLock lock(mutex_);
  if (++ticket.refusals_ >= kTries) {
    if (ticket.trialOf_) refuse(ticket);
    return false;
  }
  if (state_ == State::Refused) return false;
  // Others have taken a newer challenge meanwhile, or are trying one.
  const bool outrun = ticket.challenge_ != challenge_ && state_ == State::Proven;
  if (outrun || (state_ == State::Trying && !ticket.trialOf_)) return true;
  return retryWithNewChallenge(ticket, wwwAuthenticate);
}

bool DeviceLogin::retryWithNewChallenge(Ticket& ticket, std::string_view wwwAuthenticate) {
  const bool understood = login_.takeChallenge(wwwAuthenticate);
  if (!understood && !std::exchange(warned_, true)) {
    logWarn("device {} asks for a login of another kind than it is configured with", device_);
  }
  if (understood) ++challenge_;
  const bool stale = understood && login_.stale();
  if (ticket.trialOf_ && !stale) {
    refuse(ticket);
    return false;
  }
  if (!understood) return false;
  // Credentials that were right once and met an old nonce need no trial.
  if (!ticket.trialOf_ && !(stale && state_ == State::Proven)) {
    state_ = State::Trying;
    ticket.trialOf_ = this;
  }
  return true;
}

void DeviceLogin::accepted(Ticket& ticket) {
  if (!ticket.trialOf_) return;
  const MutexLock lock(mutex_);
  ticket.trialOf_ = nullptr;
  state_ = State::Proven;
  pause_ = times_.first;
}

void DeviceLogin::refuse(Ticket& ticket) {
  ticket.trialOf_ = nullptr;
  state_ = State::Refused;
  refusedUntil_ = Clock::now() + pause_;
  restsUntil_ = refusedUntil_.time_since_epoch().count();
  logError("device {} refused the credentials it is configured with: they rest for {} s", device_,
           std::chrono::duration_cast<std::chrono::seconds>(pause_).count());
  pause_ = std::min<Clock::duration>(2 * pause_, times_.longest);
}

void DeviceLogin::abandon(Ticket& ticket) {
  const MutexLock lock(mutex_);
  ticket.trialOf_ = nullptr;
  state_ = State::Unproven;
}

}  // namespace qn
