// See listener.h.
#include "gateway/http/listener.h"

#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <exception>
#include <string>
#include <system_error>
#include <utility>

#include "gateway/log/client_log.h"
#include "gateway/log/log.h"

namespace qn {
namespace asio = boost::asio;
using boost::system::error_code;

Listener::Listener(std::shared_ptr<ServiceCore> core, uint16_t port, Access access)
    : core_(std::move(core)),
      access_(access),
      acceptor_(core_->reactors.context(0)),
      timer_(core_->reactors.context(0)) {
  const std::string& text = core_->options.address;
  const auto check = [&](const error_code& ec) {
    if (ec)
      throw std::system_error(ec, "cannot listen on " + text + " port " + std::to_string(port));
  };
  error_code ec;
  const auto address = asio::ip::make_address(text, ec);
  check(ec);
  const asio::ip::tcp::endpoint endpoint(address, port);
  acceptor_.open(endpoint.protocol(), ec);
  check(ec);
  acceptor_.set_option(asio::socket_base::reuse_address(true), ec);
  check(ec);
  acceptor_.bind(endpoint, ec);
  check(ec);
  acceptor_.listen(asio::socket_base::max_listen_connections, ec);
  check(ec);
  port_ = acceptor_.local_endpoint().port();
}

void Listener::start() {
  asio::post(acceptor_.get_executor(), [self = shared_from_this()] { self->accept(); });
}

void Listener::close() {
  error_code ignored;
  acceptor_.close(ignored);
  timer_.cancel();
}

void Listener::accept() {
  if (!acceptor_.is_open()) return;
  const std::size_t reactor = core_->nextReactor();
  acceptor_.async_accept(
      core_->reactors.context(reactor),
      [self = shared_from_this(), reactor](const error_code& ec, TcpStream stream) {
        if (!self->acceptor_.is_open()) return;
        if (!ec) {
          self->admit(reactor, std::move(stream));
        } else if (ec != asio::error::connection_aborted) {
          logError("http: accept on port {}: {}", self->port_, ec.message());
          return self->pause();
        }
        self->accept();
      });
}

void Listener::admit(std::size_t reactor, TcpStream stream) try {
  error_code ec;
  const auto peer = plainAddress(stream.remote_endpoint(ec).address());
  if (ec) return;  // gone already
  Access access = access_;
  if (!core_->admission.enter(peer)) {
    logClient(peer.to_string(), "connection from {} refused: too many are open", peer.to_string());
    if (!core_->refusals.enter(peer)) return;  // too many to be told so: closed
    access = Access::Nothing;
  }
  auto client = std::make_shared<ClientConnection<TcpStream>>(core_, reactor, std::move(stream),
                                                              peer, access);
  asio::post(core_->reactors.context(reactor), [client = std::move(client)] { client->start(); });
} catch (const std::exception& e) {
  logError("http: accepted connection dropped: {}", e.what());
}

// Descriptors or memory ran out: trying again at once would only spin.
void Listener::pause() {
  timer_.expires_after(core_->bounds.acceptPause);
  timer_.async_wait([self = shared_from_this()](const error_code& ec) {
    if (!ec) self->accept();
  });
}

}  // namespace qn
