#include "gateway/config/configuration.h"

#include <tuple>

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
  return std::tie(host, port, basePath, username, password, auth) ==
         std::tie(other.host, other.port, other.basePath, other.username, other.password,
                  other.auth);
}

const UserConfig* Configuration::findUser(std::string_view name) const {
  return lookUp(users, usersByName_, name);
}

const DeviceConfig* Configuration::findDevice(std::string_view index) const {
  return lookUp(devices, devicesByIndex_, index);
}

const DeviceConfig* Configuration::findDeviceByPort(uint16_t httpPort) const {
  return lookUp(devices, devicesByPort_, httpPort);
}

void Configuration::buildIndexes() {
  usersByName_.clear();
  devicesByIndex_.clear();
  devicesByPort_.clear();
  for (std::size_t i = 0; i < users.size(); ++i) usersByName_.emplace(users[i].name, i);
  for (std::size_t i = 0; i < devices.size(); ++i) {
    devicesByIndex_.emplace(devices[i].index, i);
    if (devices[i].httpPort != 0) devicesByPort_.emplace(devices[i].httpPort, i);
  }
}

}  // namespace qn
