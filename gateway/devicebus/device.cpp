// See device.h.
#include "gateway/devicebus/device.h"

#include <utility>

namespace qn::devicebus {
namespace {

std::string hostField(const DeviceConfig& config) {
  const bool bareIpv6 = config.host.find(':') != std::string::npos && config.host.front() != '[';
  std::string host = bareIpv6 ? '[' + config.host + ']' : config.host;
  if (config.port != 80) host += ':' + std::to_string(config.port);
  return host;
}

}  // namespace

Device::Device(const DeviceConfig& deviceConfig)
    : config(deviceConfig),
      requestLineEnd(" HTTP/1.1\r\nHost: " + hostField(deviceConfig) + "\r\n"),
      circuit(deviceConfig.index),
      login(deviceConfig.index, deviceConfig.username, deviceConfig.password) {}

std::shared_ptr<Device> DeviceDirectory::find(const DeviceConfig& config) {
  std::lock_guard lock(mutex_);
  std::shared_ptr<Device>& device = devices_[config.index];
  if (!device || !device->config.sameServer(config)) device = std::make_shared<Device>(config);
  return device;
}

void DeviceDirectory::prune(const Configuration& configuration) {
  std::lock_guard lock(mutex_);
  std::erase_if(devices_,
                [&](const auto& entry) { return !configuration.findDevice(entry.first); });
}

bool Tally::enter() {
  ++count_;
  if (!closed_) return true;
  --count_;
  return false;
}

Admission::~Admission() {
  if (device_) --device_->admitted;
}

Admission::Refusal Admission::enter(Tally& tally, std::shared_ptr<Device> device,
                                    std::size_t limit) {
  if (!tally.enter()) return Refusal::kStopping;
  tally_.reset(&tally);
  device_ = std::move(device);
  return ++device_->admitted > limit ? Refusal::kFull : Refusal::kNone;
}

}  // namespace qn::devicebus
