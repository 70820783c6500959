#include "gateway/config/configuration.h"

#include <algorithm>
#include <tuple>

#include "platform/config_mgr.h"

namespace qn {
namespace {

template <class Items, class Index, class Key>
auto lookUp(const Items& items, const Index& index, const Key& key) -> const
    typename Items::value_type* {
  const auto found = index.find(key);
  return found == index.end() ? nullptr : &items[found->second];
}

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
  return lookUp(users, usersByName_, name);
}

const UserConfig* Configuration::findHashedUser(std::string_view hash) const {
  return lookUp(users, usersByHash_, hash);
}

const DeviceConfig* Configuration::findDevice(std::string_view index) const {
  return lookUp(devices, devicesByIndex_, index);
}

const DeviceConfig* Configuration::findDeviceByPort(uint16_t httpPort) const {
  return lookUp(devices, devicesByPort_, httpPort);
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
  usersByName_.clear();
  usersByHash_.clear();
  offersBoth_ = false;
  devicesByIndex_.clear();
  devicesByPort_.clear();
  const auto other =
      kavro.algorithm == DigestAlgorithm::MD5 ? DigestAlgorithm::SHA256 : DigestAlgorithm::MD5;
  for (std::size_t i = 0; i < users.size(); ++i) {
    const UserConfig& user = users[i];
    usersByName_.emplace(user.name, i);
    // A strong one that only stands beside another is no reason to offer it.
    offersBoth_ = offersBoth_ || user.ha1.size() == hexLength(other);
    for (const auto algorithm : {DigestAlgorithm::MD5, DigestAlgorithm::SHA256}) {
      usersByHash_.emplace(hexDigest(algorithm, {user.name, kavro.realm}).text(), i);
    }
  }
  for (std::size_t i = 0; i < devices.size(); ++i) {
    devicesByIndex_.emplace(devices[i].index, i);
    if (devices[i].httpPort != 0) devicesByPort_.emplace(devices[i].httpPort, i);
  }
}

}  // namespace qn
