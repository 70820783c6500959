// The port of one device: accepts its clients' connections while the device is switched on.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <list>
#include <memory>
#include <vector>

#include "subdevice/connection.h"
#include "subdevice/device.h"

namespace subdevice {

class Listener {
 public:
  static constexpr std::size_t kConnections = 256;

  using Devices = std::vector<std::unique_ptr<Device>>;

  // Throws boost::system::system_error when the port is taken; port 0 picks a free one and stores
  // it in the device.
  Listener(boost::asio::io_context& io, const Devices& devices, Device& device, uint16_t port);

  // Opens or closes the port as the device says; closing it ends every connection, so that the
  // device is gone as if its power had failed.
  void followSwitch();

  Device& device() { return device_; }
  const Devices& devices() const { return devices_; }

 private:
  void open(uint16_t port);
  void accept();
  std::size_t openConnections();
  void admit(boost::asio::ip::tcp::socket socket);

  const Devices& devices_;
  Device& device_;
  boost::asio::ip::tcp::acceptor acceptor_;
  std::list<std::weak_ptr<Connection>> connections_;
};

}  // namespace subdevice
