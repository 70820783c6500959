// Connects a stream to a device: finds out where the device is, tries each address, and begins TLS
// where the device is reached over https. A member of the bus's connections and of the alarm feeds,
// beside the stream that it connects.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

#include "gateway/devices/device.h"
#include "gateway/devices/device_stream.h"

namespace qn {

// On the stream's thread. One attempt at a time.
class Dialer {
 public:
  using Done = std::function<void(const boost::system::error_code&)>;

  // How long a name may take to be found; less when it has been found before.
  static constexpr std::chrono::milliseconds kPatience{5000};
  static constexpr std::chrono::milliseconds kPatienceWithOldAddress{500};

  // Both outlive the dialer.
  Dialer(Device& device, DeviceStream& stream)
      : device_(device), stream_(stream), timer_(stream.executor()) {}

  // `done` is called once, later, and keeps the dialer alive until then. Its error may be a
  // CertificateFault. Connecting and the handshake of TLS are not bounded in time.
  void start(Done done);
  // Ends an attempt with an error, and closes the stream.
  void cancel();

  enum class Step { Resolving, Connecting, Securing };
  // What the attempt does, or did when it failed.
  Step step() const { return step_; }

 private:
  void resolve(const Done& done);
  void found(const NameResolver::Addresses& addresses, Done done);
  void connect(const DeviceAddress::Endpoints& endpoints, Done done);
  void connected(const boost::system::error_code& error, Done done);
  bool prepareTls();
  void secure(Done done);

  Device& device_;
  DeviceStream& stream_;
  DeviceStream::Timer timer_;  // of a name that is looked up
  uint64_t lookups_ = 0;       // counts those that were begun and those that have ended
  Step step_ = Step::Resolving;
  bool cancelled_ = false;
};

}  // namespace qn
