// One device as both buses know it, and the directory in which they find it.
#pragma once

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
#include "gateway/sync/mutex.h"

namespace qn {

// Where a device is: what its host name stood for when it was last resolved. Any thread.
class DeviceAddress {
 public:
  using Endpoints = std::vector<boost::asio::ip::tcp::endpoint>;

  explicit DeviceAddress(const DeviceConfig& config);

  // Empty while the name has to be resolved.
  Endpoints endpoints() const;
  void resolved(Endpoints endpoints);
  // Nobody answers there: the name may stand for another place by now.
  void unreachable();

 private:
  bool literal_ = false;  // the host is no name
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
  // Whether a request may be sent now; while open, true for one request in each period.
  bool admit(Clock::time_point now);

  void succeeded();
  void failed(Clock::time_point now);

 private:
  const std::string device_;  // for the log
  std::atomic<int> failures_{0};
  std::atomic<Clock::rep> nextProbe_{0};  // of Clock, since its epoch
};

// A changed configuration makes a new one: requests in flight keep the old.
struct Device {
  Device(const DeviceConfig& deviceConfig, const RefusalTimes& times);

  const DeviceConfig config;
  const std::string requestLineEnd;  // version, line end and Host line of every request
  DeviceAddress address;
  DeviceLogin login;
  Circuit circuit;
  std::atomic<std::size_t> admitted{0};  // requests of the bus, accepted and not yet answered
  std::atomic<std::size_t> awaited{0};   // threads that wait for a reply
};

// Any thread. One for both buses, so that what one learns of a device the other knows.
class DeviceDirectory {
 public:
  explicit DeviceDirectory(RefusalTimes times = {}) : times_(times) {}

  // The device of this configuration; made on first use and whenever the configuration differs.
  std::shared_ptr<Device> find(const DeviceConfig& config);
  // Forgets the devices that the configuration does not have.
  void prune(const Configuration& configuration);

 private:
  const RefusalTimes times_;
  Mutex mutex_;
  std::unordered_map<std::string, std::shared_ptr<Device>> devices_ QN_GUARDED_BY(mutex_);
};

}  // namespace qn
