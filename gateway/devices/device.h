// One device as both buses know it, and the directory in which they find it.
#pragma once

#include <array>
#include <atomic>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "gateway/config/configuration.h"
#include "gateway/devices/device_login.h"
#include "gateway/devices/device_tls.h"
#include "gateway/devices/name_resolver.h"
#include "gateway/metrics/counts.h"
#include "gateway/sync/mutex.h"
#include "platform/error_codes.h"

namespace qn {

// Where a device is: what its host name stood for when it was last resolved. Any thread.
class DeviceAddress {
 public:
  using Endpoints = std::vector<boost::asio::ip::tcp::endpoint>;

  explicit DeviceAddress(const DeviceConfig& config);

  // Empty while the name has to be resolved.
  Endpoints endpoints() const;
  void resolved(const NameResolver::Addresses& addresses);
  // Nobody answers there: the name may stand for another place by now.
  void unreachable();

 private:
  const uint16_t port_;
  bool literal_ = false;  // the host is no name; constant after construction
  mutable Mutex mutex_;
  Endpoints endpoints_ QN_GUARDED_BY(mutex_);
};

// Whether a device is worth asking: one that did not answer several times in a row is probed by one
// request each second instead of keeping every request waiting. Any thread. Only connect failures
// and time-outs are failures: a device that answers nonsense is there.
class Circuit {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr int kFailures = 3;  // consecutive ones that open it
  static constexpr std::chrono::milliseconds kProbePeriod{1000};

  explicit Circuit(std::string device) : device_(std::move(device)) {}

  // Open, and the next probe is not due: a request can only fail.
  bool blocked(Clock::time_point now) const;
  bool isOpen() const { return failures_ >= kFailures; }
  // Whether a request may be sent now; while open, true for one request in each period.
  bool admit(Clock::time_point now);

  void succeeded();
  // `reason`: what a request is told that is not even sent.
  void failed(Clock::time_point now, unsigned int reason = ERROR_DEVICE_UNREACHABLE);
  unsigned int reason() const { return reason_; }

 private:
  const std::string device_;  // for the log
  std::atomic<int> failures_{0};
  std::atomic<Clock::rep> nextProbe_{0};  // of Clock, since its epoch
  std::atomic<unsigned int> reason_{ERROR_DEVICE_UNREACHABLE};
};

// A changed configuration makes a new one: requests in flight keep the old.
struct Device {
  Device(const DeviceConfig& deviceConfig, const RefusalTimes& times, NameResolver& resolver);

  const DeviceConfig config;
  const std::string requestLineEnd;  // version, line end and Host line of every request
  NameResolver& names;
  const std::unique_ptr<DeviceTls> tls;  // null for http
  DeviceAddress address;
  DeviceLogin login;
  Circuit circuit;
  // What every request touches stands together, so that it is fetched once.
  alignas(64) std::atomic<std::size_t> admitted{0};  // requests of the bus, not yet answered
  std::atomic<std::size_t> bytes{0};                 // that these requests hold
  DeviceCounts counts;
  std::atomic<std::size_t> awaited{0};  // threads that wait for a reply
};

// Any thread. One for both buses, so that what one learns of a device the other knows. Outlives all
// use of its devices, and goes before the reactors.
class DeviceDirectory {
 public:
  explicit DeviceDirectory(RefusalTimes times = {},
                           NameResolver::Lookup lookup = NameResolver::systemLookup)
      : times_(times), names_(std::move(lookup)) {}

  // The device of this configuration; made on first use and whenever the configuration differs.
  std::shared_ptr<Device> find(const DeviceConfig& config);
  // Those that have been found since they were configured.
  std::vector<std::shared_ptr<Device>> all();
  // Forgets the devices that the configuration does not have.
  void prune(const Configuration& configuration);

 private:
  const RefusalTimes times_;
  NameResolver names_;
  // So many that listing all devices holds each lock for a moment only.
  struct Shard {
    Mutex mutex;
    std::unordered_map<std::string, std::shared_ptr<Device>> devices QN_GUARDED_BY(mutex);
  };
  std::array<Shard, 64> shards_;
};

}  // namespace qn
