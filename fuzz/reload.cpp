// A configuration and any others after it, parted by lines "---", as a running gateway reads them
// again and again: what is refused changes nothing, and the announcements of devices always add up
// to the devices in force.
#include <map>
#include <memory>
#include <string>

#include "fuzz/require.h"
#include "gateway/config/configuration_changes.h"
#include "gateway/config/configuration_file.h"
#include "gateway/log/log.h"
#include "platform/config_mgr.h"
#include "platform/device_mgr.h"

namespace {

std::map<std::string, int>& announced() {
  static std::map<std::string, int> devices;
  return devices;
}

void onChange(tagNotifyType type, void* device, const void*) {
  const std::string index = static_cast<const char*>(device);
  if (type == DEVICE_ADDED) Require(announced().emplace(index, 0).second);
  if (type == DEVICE_REMOVED) Require(announced().erase(index) == 1);
  if (type == DEVICE_CHANGED) Require(announced().contains(index));
}

void checkInForce(const qn::Configuration& made) {
  const auto inForce = qn::configuration();
  Require(inForce->users.size() == made.users.size());
  Require(announced().size() == made.devices.size());
  for (const auto& device : made.devices) {
    Require(announced().contains(device.index) && QN_DeviceMgr_GetDevice(device.index));
  }
  for (const auto& user : made.users) {
    Require(inForce->stillAllows(user.name, user.ha1, user.device));
    Require(!inForce->stillAllows(user.name, user.ha1 + '0', user.device));
  }
  Require(QN_ConfigMgr_GetUserCfg()->isActivated() == (made.findUser("admin") != nullptr));
}

// As the host does it.
void reload(std::string_view content) {
  const std::shared_ptr<const qn::Configuration> before = qn::configuration();
  try {
    const qn::Configuration next = qn::parseConfiguration(content, "FILE");
    qn::checkReload(*before, next, "FILE");
    qn::publishConfiguration(std::make_shared<const qn::Configuration>(next));
    Require(!before->findUser("admin") || next.findUser("admin"));
    checkInForce(next);
  } catch (const qn::ConfigurationError&) {
    Require(qn::configuration() == before);
  }
}

}  // namespace

void fuzz(std::string_view input) {
  qn::setLogLevel("error");
  QN_DeviceMgr_NotifyAttach(onChange, nullptr);
  constexpr std::string_view kMark = "\n---\n";
  std::string_view rest = input;
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find(kMark), rest.size());
    reload(rest.substr(0, end));
    rest.remove_prefix(std::min(end + kMark.size(), rest.size()));
  }
  qn::publishConfiguration(std::make_shared<const qn::Configuration>());
  Require(announced().empty());
}
