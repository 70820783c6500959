// One listening port of the HTTP service: accepts and deals the connections out to the reactors in
// turn. Lives on the first reactor.
#pragma once

#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <memory>

#include "gateway/http/client_connection.h"
#include "gateway/http/service_core.h"

namespace qn {

class Listener : public std::enable_shared_from_this<Listener> {
 public:
  // Listens at once, accepts after start(). Throws std::system_error.
  Listener(std::shared_ptr<ServiceCore> core, uint16_t port, Access access);

  uint16_t port() const { return port_; }
  Access access() const { return access_; }
  void start();  // any thread
  void close();  // on the first reactor, or before start()

 private:
  void accept();
  void admit(std::size_t reactor, TcpStream stream);
  void pause();

  const std::shared_ptr<ServiceCore> core_;
  const Access access_;
  boost::asio::basic_socket_acceptor<boost::asio::ip::tcp, boost::asio::io_context::executor_type>
      acceptor_;
  boost::asio::steady_timer timer_;
  uint16_t port_ = 0;
};

}  // namespace qn
