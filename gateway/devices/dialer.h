// Connects a socket to a device: finds out where the device is, tries each address. A member of the
// bus's connections and of the alarm feeds, beside the socket that it connects.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <functional>

#include "gateway/devices/device.h"

namespace qn {

// On the socket's thread. One attempt at a time.
class Dialer {
 public:
  using Done = std::function<void(const boost::system::error_code&)>;

  // How long a name may take to be found; less when it has been found before.
  static constexpr std::chrono::milliseconds kPatience{5000};
  static constexpr std::chrono::milliseconds kPatienceWithOldAddress{500};

  // Both outlive the dialer.
  Dialer(Device& device, boost::asio::ip::tcp::socket& socket)
      : device_(device), socket_(socket), timer_(socket.get_executor()) {}

  // `done` is called once, later, and keeps the dialer alive until then. Connecting itself is not
  // bounded in time.
  void start(Done done);
  // Ends an attempt with an error, and closes the socket.
  void cancel();

 private:
  void resolve(const Done& done);
  void found(const NameResolver::Addresses& addresses, Done done);
  void connect(const DeviceAddress::Endpoints& endpoints, Done done);

  Device& device_;
  boost::asio::ip::tcp::socket& socket_;
  boost::asio::steady_timer timer_;  // of a name that is looked up
  uint64_t lookups_ = 0;             // counts those that were begun and those that have ended
  bool cancelled_ = false;
};

}  // namespace qn
