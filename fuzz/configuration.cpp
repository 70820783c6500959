// Any text as a configuration file: it is read or refused with an error that begins with the file's
// name, and what is read keeps the promises that the gateway builds on.

#include "fuzz/require.h"
#include "gateway/config/configuration_file.h"
#include "gateway/log/log.h"

namespace {

void CheckPromises(const qn::Configuration& read) {
  for (const qn::UserConfig& user : read.users) {
    Require(!user.ha1For(qn::DigestAlgorithm::MD5).empty() ||
            !user.ha1For(qn::DigestAlgorithm::SHA256).empty());
    Require(read.findUser(user.name) == &user);
  }
  for (const qn::DeviceConfig& device : read.devices) {
    Require(!device.host.empty() && device.port != 0);
    Require(!device.index.empty() && device.index.size() < 64);
    Require(read.findDevice(device.index) == &device);
    Require(device.basePath.empty() || device.basePath.front() == '/');
    Require(device.httpPort == 0 || read.findDeviceByPort(device.httpPort) == &device);
  }
}

}  // namespace

void fuzz(std::string_view content) {
  qn::setLogLevel("error");
  try {
    CheckPromises(qn::parseConfiguration(content, "FILE"));
  } catch (const qn::ConfigurationError& error) {
    Require(std::string_view(error.what()).starts_with("FILE:"));
  }
}
