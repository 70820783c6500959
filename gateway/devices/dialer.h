// Connects a socket to a device: finds out where the device is, tries each address. A member of the
// bus's connections and of the alarm feeds, beside the socket that it connects.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <functional>

#include "gateway/devices/device.h"

namespace qn {

// On the socket's thread. One attempt at a time.
class Dialer {
 public:
  using Done = std::function<void(const boost::system::error_code&)>;

  // Both outlive the dialer.
  Dialer(Device& device, boost::asio::ip::tcp::socket& socket)
      : device_(device), socket_(socket), resolver_(socket.get_executor()) {}

  // `done` is called once, later, and keeps the dialer alive until then. Not bounded in time.
  void start(Done done);
  // Ends an attempt with an error, and closes the socket.
  void cancel();

 private:
  void resolve(Done done);
  void connect(const DeviceAddress::Endpoints& endpoints, Done done);

  Device& device_;
  boost::asio::ip::tcp::socket& socket_;
  boost::asio::ip::tcp::resolver resolver_;
  bool cancelled_ = false;
};

}  // namespace qn
