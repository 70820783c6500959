#include "gateway/devices/device.h"

#include <boost/asio/ip/address.hpp>
#include <utility>

#include "gateway/log/log.h"
#include "text/number.h"

namespace qn {
namespace {

std::string hostField(const DeviceConfig& config) {
  const bool ipv6 = config.host.find(':') != std::string::npos;
  std::string host = ipv6 ? '[' + config.host + ']' : config.host;
  if (config.port == (config.tls ? kDeviceHttpsPort : kDeviceHttpPort)) return host;
  host += ':';
  text::appendDecimal(host, config.port);
  return host;
}

Circuit::Clock::rep probeAfter(Circuit::Clock::time_point now) {
  return (now + Circuit::kProbePeriod).time_since_epoch().count();
}

}  // namespace

DeviceAddress::DeviceAddress(const DeviceConfig& config) : port_(config.port) {
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(config.host, error);
  literal_ = !error;
  if (literal_) endpoints_.emplace_back(address, config.port);
}

DeviceAddress::Endpoints DeviceAddress::endpoints() const {
  const MutexLock lock(mutex_);
  return endpoints_;
}

void DeviceAddress::resolved(const NameResolver::Addresses& addresses) {
  const MutexLock lock(mutex_);
  endpoints_.clear();
  for (const auto& address : addresses) endpoints_.emplace_back(address, port_);
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

void Circuit::failed(Clock::time_point now, unsigned int reason) {
  reason_ = reason;
  if (failures_ < kFailures) nextProbe_ = probeAfter(now);
  if (++failures_ == kFailures) {
    logWarn("device {} does not answer: probing it from now on", device_);
  }
}

Device::Device(const DeviceConfig& deviceConfig, const RefusalTimes& times, NameResolver& resolver)
    : config(deviceConfig),
      requestLineEnd(" HTTP/1.1\r\nHost: " + hostField(deviceConfig) + "\r\n"),
      names(resolver),
      tls(deviceConfig.tls ? std::make_unique<DeviceTls>(deviceConfig) : nullptr),
      address(deviceConfig),
      login(deviceConfig, times),
      circuit(deviceConfig.index) {}

std::shared_ptr<Device> DeviceDirectory::find(const DeviceConfig& config) {
  Shard& shard = shards_[std::hash<std::string>()(config.index) % shards_.size()];
  const MutexLock lock(shard.mutex);
  std::shared_ptr<Device>& device = shard.devices[config.index];
  if (!device || !device->config.sameServer(config)) {
    device = std::make_shared<Device>(config, times_, names_);
  }
  return device;
}

std::vector<std::shared_ptr<Device>> DeviceDirectory::all() {
  std::vector<std::shared_ptr<Device>> found;
  for (Shard& shard : shards_) {
    const MutexLock lock(shard.mutex);
    for (const auto& [index, device] : shard.devices) found.push_back(device);
  }
  return found;
}

void DeviceDirectory::prune(const Configuration& configuration) {
  for (Shard& shard : shards_) {
    const MutexLock lock(shard.mutex);
    std::erase_if(shard.devices,
                  [&](const auto& entry) { return !configuration.findDevice(entry.first); });
  }
  std::unordered_set<std::string> hosts;
  for (const DeviceConfig& device : configuration.devices) hosts.insert(device.host);
  names_.keep(hosts);
}

}  // namespace qn
