#include "gateway/devices/device.h"

#include <boost/asio/ip/address.hpp>
#include <utility>

#include "gateway/log/log.h"
#include "text/number.h"

namespace qn {
namespace {

constexpr uint16_t kUsualPort = 80;

std::string hostField(const DeviceConfig& config) {
  const bool ipv6 = config.host.find(':') != std::string::npos;
  std::string host = ipv6 ? '[' + config.host + ']' : config.host;
  if (config.port == kUsualPort) return host;
  host += ':';
  text::appendDecimal(host, config.port);
  return host;
}

Circuit::Clock::rep probeAfter(Circuit::Clock::time_point now) {
  return (now + Circuit::kProbePeriod).time_since_epoch().count();
}

}  // namespace

DeviceAddress::DeviceAddress(const DeviceConfig& config) {
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(config.host, error);
  literal_ = !error;
  if (literal_) endpoints_.emplace_back(address, config.port);
}

DeviceAddress::Endpoints DeviceAddress::endpoints() const {
  const MutexLock lock(mutex_);
  return endpoints_;
}

void DeviceAddress::resolved(Endpoints endpoints) {
  const MutexLock lock(mutex_);
  endpoints_ = std::move(endpoints);
}

void DeviceAddress::unreachable() {
  if (!literal_) resolved({});
}

bool Circuit::blocked(Clock::time_point now) const {
  return failures_ >= kFailures && now.time_since_epoch().count() < nextProbe_;
}

bool Circuit::admit(Clock::time_point now) {
  if (failures_ < kFailures) return true;
  Clock::rep due = nextProbe_;
  return now.time_since_epoch().count() >= due &&
         nextProbe_.compare_exchange_strong(due, probeAfter(now));
}

void Circuit::succeeded() {
  if (failures_ == 0) return;
  if (failures_.exchange(0) >= kFailures) {
    logWarn("device {} answers again", device_);
  }
}

void Circuit::failed(Clock::time_point now) {
  if (failures_ < kFailures) nextProbe_ = probeAfter(now);
  if (++failures_ == kFailures) {
    logWarn("device {} does not answer: probing it from now on", device_);
  }
}

Device::Device(const DeviceConfig& deviceConfig, const RefusalTimes& times)
    : config(deviceConfig),
      requestLineEnd(" HTTP/1.1\r\nHost: " + hostField(deviceConfig) + "\r\n"),
      address(deviceConfig),
      login(deviceConfig, times),
      circuit(deviceConfig.index) {}

std::shared_ptr<Device> DeviceDirectory::find(const DeviceConfig& config) {
  const MutexLock lock(mutex_);
  std::shared_ptr<Device>& device = devices_[config.index];
  if (!device || !device->config.sameServer(config)) {
    device = std::make_shared<Device>(config, times_);
  }
  return device;
}

void DeviceDirectory::prune(const Configuration& configuration) {
  const MutexLock lock(mutex_);
  std::erase_if(devices_,
                [&](const auto& entry) { return !configuration.findDevice(entry.first); });
}

}  // namespace qn
