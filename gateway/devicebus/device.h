// What all reactors share about one device, and the directory they find it in.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "gateway/config/configuration.h"
#include "gateway/devicebus/circuit.h"
#include "gateway/devicebus/device_login.h"

namespace qn::devicebus {

// A changed configuration makes a new one: requests in flight keep the old.
struct Device {
  explicit Device(const DeviceConfig& deviceConfig);

  const DeviceConfig config;
  const std::string requestLineEnd;  // version, line end and Host line of every request
  Circuit circuit;
  DeviceLogin login;
  std::atomic<std::size_t> admitted{0};  // requests accepted and not yet answered
  std::atomic<std::size_t> awaited{0};   // threads that wait for a reply
};

// Any thread.
class DeviceDirectory {
 public:
  // The device of this configuration; made on first use and whenever the configuration differs.
  std::shared_ptr<Device> find(const DeviceConfig& config);
  // Forgets the devices that the configuration does not have.
  void prune(const Configuration& configuration);

 private:
  std::mutex mutex_;
  std::unordered_map<std::string, std::shared_ptr<Device>> devices_;  // guarded by mutex_
};

// Requests in the bus, counted until their callbacks have returned.
class Tally {
 public:
  // False once closed: the request is not counted.
  bool enter();
  void leave() { --count_; }
  void close() { closed_ = true; }
  bool empty() const { return count_ == 0; }

 private:
  std::atomic<std::size_t> count_{0};
  std::atomic<bool> closed_{false};
};

// A request's place among those of its device and of the bus; given back when destroyed.
class Admission {
 public:
  enum class Refusal { kNone, kStopping, kFull };

  Admission() = default;
  Admission(Admission&&) = default;
  Admission& operator=(Admission&&) = default;
  ~Admission();

  // `limit`: requests the device may have. At most one call.
  Refusal enter(Tally& tally, std::shared_ptr<Device> device, std::size_t limit);

 private:
  struct Leave {
    void operator()(Tally* tally) const { tally->leave(); }
  };
  std::unique_ptr<Tally, Leave> tally_;
  std::shared_ptr<Device> device_;
};

}  // namespace qn::devicebus
