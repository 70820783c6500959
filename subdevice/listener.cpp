// See listener.h.
#include "subdevice/listener.h"

#include <boost/asio/ip/address_v4.hpp>
#include <utility>

namespace subdevice {

using boost::asio::ip::tcp;

Listener::Listener(boost::asio::io_context& io, const Devices& devices, Device& device,
                   uint16_t port)
    : devices_(devices), device_(device), acceptor_(io) {
  open(port);
  device_.port = acceptor_.local_endpoint().port();
  device_.onSwitch = [this] { followSwitch(); };
  device_.connections = [this] { return openConnections(); };
}

void Listener::followSwitch() {
  if (device_.listening == acceptor_.is_open()) return;
  if (device_.listening) return open(device_.port);
  acceptor_.close();
  device_.alarms.closeStreams();
  for (const auto& connection : connections_)
    if (const auto open = connection.lock()) open->close();
}

void Listener::open(uint16_t port) {
  const tcp::endpoint endpoint(boost::asio::ip::address_v4::loopback(), port);
  acceptor_.open(endpoint.protocol());
  acceptor_.set_option(tcp::acceptor::reuse_address(true));
  acceptor_.bind(endpoint);
  acceptor_.listen();
  accept();
}

void Listener::accept() {
  acceptor_.async_accept([this](boost::system::error_code error, tcp::socket socket) {
    if (!acceptor_.is_open()) return;
    if (!error) admit(std::move(socket));
    accept();
  });
}

std::size_t Listener::openConnections() {
  std::erase_if(connections_, [](const auto& connection) { return connection.expired(); });
  return connections_.size();
}

// One connection too many is closed at once.
void Listener::admit(tcp::socket socket) {
  if (openConnections() >= kConnections) return;
  boost::system::error_code ignored;
  socket.set_option(tcp::no_delay(true), ignored);
  const auto connection = std::make_shared<Connection>(std::move(socket), *this);
  connections_.push_back(connection);
  connection->readRequest();
}

}  // namespace subdevice
