// The port of one device, and the connections of its clients.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <list>
#include <memory>
#include <optional>
#include <vector>

#include "subdevice/device.h"
#include "subdevice/faults.h"
#include "subdevice/link.h"
#include "subdevice/message.h"

namespace subdevice {

class DeviceListener;

// One client connection: reads requests, one at a time, and answers them, properly or as the
// control resource ordered.
class ClientConnection : public std::enable_shared_from_this<ClientConnection> {
 public:
  static constexpr std::size_t kBodyBytes = 10 * 1024 * 1024;
  static constexpr std::size_t kHeadBytes = 16 * 1024;
  static constexpr std::chrono::seconds kIdle{120};  // without a request, and for reading one

  ClientConnection(boost::asio::ip::tcp::socket socket, DeviceListener& listener);

  void readRequest();
  void close();

 private:
  void serve();
  void serveControl();
  void perform(const OrderedFault& fault);
  void answerProperly();
  // Null: there is nothing to be played.
  void replay(const RecordedExchange* said);
  void play(const RecordedExchange& said);
  void hang();
  void send(const Reply& reply);
  void sendAndClose(std::string bytes);
  void sendBytes(std::string bytes, bool closeAfter);

  ClientStream stream_;
  DeviceListener& listener_;
  boost::beast::flat_buffer buffer_;
  std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser_;
  Request request_;
  bool keepAlive_ = true;
  bool serving_ = false;  // the control resource, whose answer must still go out
  std::string writing_;
  boost::asio::steady_timer delay_;
};

// Accepts clients' connections while the device is switched on.
class DeviceListener {
 public:
  static constexpr std::size_t kConnections = 256;

  using Devices = std::vector<std::unique_ptr<SimulatedDevice>>;

  // Throws boost::system::system_error when the port is taken; port 0 picks a free one and stores
  // it in the device.
  DeviceListener(boost::asio::io_context& io, const Devices& devices, SimulatedDevice& device,
                 uint16_t port);

  // Opens or closes the port as the device says; closing it ends every connection, so that the
  // device is gone as if its power had failed.
  void followSwitch();

  boost::asio::io_context& io() { return io_; }
  SimulatedDevice& device() { return device_; }
  const Devices& devices() const { return devices_; }

 private:
  void open(uint16_t port);
  void accept();
  std::size_t openConnections();
  void admit(boost::asio::ip::tcp::socket socket);

  boost::asio::io_context& io_;
  const Devices& devices_;
  SimulatedDevice& device_;
  boost::asio::ip::tcp::acceptor acceptor_;
  std::list<std::weak_ptr<ClientConnection>> connections_;
};

}  // namespace subdevice
