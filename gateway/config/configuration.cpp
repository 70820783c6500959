#include "gateway/config/configuration.h"

#include <algorithm>
#include <functional>
#include <tuple>

#include "platform/config_mgr.h"

namespace qn {
namespace {

std::size_t hashOf(std::string_view text) { return std::hash<std::string_view>()(text); }

}  // namespace

bool DeviceConfig::sameServer(const DeviceConfig& other) const {
  const auto facts = [](const DeviceConfig& device) {
    return std::tie(device.host, device.port, device.basePath, device.username, device.password,
                    device.auth, device.tls, device.verify, device.authorities, device.fingerprint);
  };
  return facts(*this) == facts(other);
}

TlsServerOptions HttpsOptions::tls() const {
  TlsServerOptions options{{}, minVersion == "1.3", ciphers, clientAuthorities, clientCertificates};
  for (const CertificateConfig& each : inUse()) options.identities.push_back(each.identity);
  return options;
}

std::vector<CertificateConfig> HttpsOptions::inUse() const {
  std::vector<CertificateConfig> all;
  if (!isOn()) return all;
  all.push_back(*this);
  all.insert(all.end(), certificates.begin(), certificates.end());
  return all;
}

std::string_view UserConfig::ha1For(DigestAlgorithm algorithm) const {
  for (const std::string* each : {&ha1, &strongHa1}) {
    if (each->size() == hexLength(algorithm)) return *each;
  }
  return {};
}

const UserConfig* Configuration::findUser(std::string_view name) const {
  return usersByName_.find(name, users);
}

const UserConfig* Configuration::findHashedUser(std::string_view hash) const {
  using enum DigestAlgorithm;
  const auto algorithm = hash.size() == hexLength(MD5) ? MD5 : SHA256;
  const std::size_t wanted = hashOf(hash);
  auto at = std::ranges::lower_bound(usersByHash_, HashedUser{wanted, 0});
  for (; at != usersByHash_.end() && at->hash == wanted; ++at) {
    const UserConfig& user = users[at->position];
    if (hexDigest(algorithm, {user.name, kavro.realm}).text() == hash) return &user;
  }
  return nullptr;
}

const DeviceConfig* Configuration::findDevice(std::string_view index) const {
  return devicesByIndex_.find(index, devices);
}

const DeviceConfig* Configuration::findDeviceByPort(uint16_t httpPort) const {
  const auto found = devicesByPort_.find(httpPort);
  return found == devicesByPort_.end() ? nullptr : &devices[found->second];
}

bool Configuration::mayUse(const UserConfig& user, std::string_view device) const {
  return user.device == device || (kavro.mode == KAVRO_MODE_DEVICE_PORTS &&
                                   std::ranges::find(user.devices, device) != user.devices.end());
}

bool Configuration::stillAllows(std::string_view name, std::string_view ha1,
                                std::string_view device) const {
  const UserConfig* const user = findUser(name);
  return user && user->ha1 == ha1 && mayUse(*user, device);
}

bool Configuration::offers(DigestAlgorithm algorithm) const {
  return algorithm == kavro.algorithm || offersBoth_;
}

void Configuration::buildIndexes() {
  usersByName_.build(users);
  devicesByIndex_.build(devices);
  usersByHash_.clear();
  usersByHash_.reserve(2 * users.size());
  offersBoth_ = false;
  const auto other =
      kavro.algorithm == DigestAlgorithm::MD5 ? DigestAlgorithm::SHA256 : DigestAlgorithm::MD5;
  for (uint32_t i = 0; i < users.size(); ++i) {
    // A strong one that only stands beside another is no reason to offer it.
    offersBoth_ = offersBoth_ || users[i].ha1.size() == hexLength(other);
    for (const auto algorithm : {DigestAlgorithm::MD5, DigestAlgorithm::SHA256}) {
      usersByHash_.push_back(
          {hashOf(hexDigest(algorithm, {users[i].name, kavro.realm}).text()), i});
    }
  }
  std::ranges::sort(usersByHash_);
  devicesByPort_.clear();
  for (std::size_t i = 0; i < devices.size(); ++i) {
    if (devices[i].httpPort != 0) devicesByPort_.emplace(devices[i].httpPort, i);
  }
}

}  // namespace qn
