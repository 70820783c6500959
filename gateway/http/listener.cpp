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

Listener::Listener(std::shared_ptr<ServiceCore> core, const std::string& text, uint16_t port,
                   Access access, Transport transport)
    : core_(std::move(core)),
      access_(access),
      transport_(transport),
      acceptor_(core_->reactors.context(0)),
      timer_(core_->reactors.context(0)) {
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
        if (!ec) return self->welcome(reactor, std::move(stream));
        if (ec == asio::error::connection_aborted) return self->accept();
        logError("http: accept on port {}: {}", self->port_, ec.message());
        self->pause();
      });
}

void Listener::welcome(std::size_t reactor, TcpStream stream) try {
  if (waitForPlace(reactor, stream)) return;
  serve(reactor, std::move(stream));
  accept();
} catch (const std::exception& e) {
  logError("http: accepted connection dropped: {}", e.what());
  pause();
}

// When all places are taken, longest idle connections are closed for the new one, and it is served
// and others are accepted after that: so one at most waits.
bool Listener::waitForPlace(std::size_t reactor, TcpStream& stream) {
  if (core_->places.hasRoom()) return false;
  const auto waiting = std::make_shared<TcpStream>(std::move(stream));
  const bool waits = core_->takeBackIdle([self = shared_from_this(), reactor, waiting] {
    self->serve(reactor, std::move(*waiting));
    self->accept();
  });
  if (!waits) stream = std::move(*waiting);
  return waits;
}

void Listener::serve(std::size_t reactor, TcpStream stream) try {
  core_->counts.here().accepted.add();
  error_code ec;
  Arrival arrival{{}, plainAddress(stream.remote_endpoint(ec).address()), port_, access_};
  if (ec) return;  // gone already
  // Who comes through a trusted proxy is many clients.
  const auto client =
      core_->trusted().contains(arrival.peer) ? asio::ip::address() : clientNetwork(arrival.peer);
  if (!core_->places.take(client, arrival.place)) {
    core_->counts.here().turnedAway.add();
    const std::string peer = arrival.peer.to_string();
    logClient(LogLevel::Warn, peer, "connection from {} refused: too many are open", peer);
    // Closed without a word where there are too many, or a word would take a handshake.
    if (transport_ == Transport::Tls || !core_->refusals.take(client, arrival.place)) return;
    arrival.access = Access::Nothing;
  }
  if (transport_ == Transport::Plain) return begin(reactor, std::move(stream), std::move(arrival));
  begin(reactor, TlsClientStream(std::move(stream), TlsRole::Server), std::move(arrival));
} catch (const std::exception& e) {
  logError("http: accepted connection dropped: {}", e.what());
}

template <class Stream>
void Listener::begin(std::size_t reactor, Stream stream, Arrival arrival) {
  auto connection = std::make_shared<ClientConnection<Stream>>(core_, reactor, std::move(stream),
                                                               std::move(arrival));
  asio::post(core_->reactors.context(reactor),
             [connection = std::move(connection)] { connection->start(); });
}

// Descriptors or memory ran out: trying again at once would only spin.
void Listener::pause() {
  timer_.expires_after(core_->bounds.acceptPause);
  timer_.async_wait([self = shared_from_this()](const error_code& ec) {
    if (!ec) self->accept();
  });
}

Ports::Ports(std::shared_ptr<ServiceCore> core, std::string address, Transport transport)
    : core_(std::move(core)),
      transport_(transport),
      timer_(core_->reactors.context(0)),
      address_(std::move(address)) {}

Ports::ListenerPtr Ports::opened(uint16_t port, Access access) {
  auto listener = std::make_shared<Listener>(core_, address_, port, access, transport_);
  listener->start();
  return listener;
}

// Nothing is closed with the mutex held: a timer may be waiting for it on the first reactor.
uint16_t Ports::setMain(const MainPort& wanted) {
  const auto former = formerFor(wanted);
  if (!former) return wanted.port.value_or(0);
  if (former->inTheWay) closeAll({former->inTheWay});
  Listeners unused;
  try {
    const MutexLock lock(mutex_);
    address_ = wanted.address;
    ListenerPtr next = wanted.port ? opened(*wanted.port, wanted.access) : nullptr;
    unused = replaceMain(std::move(next), wanted.address != former->address);
  } catch (...) {
    const MutexLock lock(mutex_);
    address_ = former->address;
    wanted_ = former->wanted;
    if (former->inTheWay) putBack(*former->inTheWay);
    throw;
  }
  closeAll(unused);
  return main().port.value_or(0);
}

// Nothing when all is there already. Two listeners of one port are in each other's way, whatever
// their addresses.
std::optional<Ports::Former> Ports::formerFor(const MainPort& wanted) {
  const MutexLock lock(mutex_);
  const bool there =
      main_ ? wanted.port == main_->port() && wanted.access == main_->access() : !wanted.port;
  if (core_->stopping || (there && wanted.address == address_)) return std::nullopt;
  const uint16_t port = wanted.port.value_or(0);
  const auto before = wanted_;
  wanted_.erase(port);  // until setExtra()
  const auto extra = extra_.find(port);
  ListenerPtr inTheWay = extra == extra_.end() ? nullptr : extra->second;
  if (main_ && wanted.port == main_->port()) inTheWay = main_;
  return Former{address_, before, inTheWay};
}

MainPort Ports::main() const {
  const MutexLock lock(mutex_);
  if (!main_) return {address_, std::nullopt};
  return {address_, main_->port(), main_->access()};
}

// Returns what is to be closed: the other ports come again with setExtra() where all move.
Ports::Listeners Ports::replaceMain(ListenerPtr next, bool allMove) {
  Listeners unused;
  if (main_) unused.push_back(main_);
  main_ = std::move(next);
  const uint16_t mainPort = main_ ? main_->port() : 0;
  std::erase_if(extra_, [&](const auto& entry) {
    const bool goes = allMove || entry.first == mainPort;
    if (goes) unused.push_back(entry.second);
    return goes;
  });
  return unused;
}

void Ports::putBack(const Listener& closed) {
  auto again = opened(closed.port(), closed.access());
  if (main_ && main_->port() == closed.port()) {
    main_ = std::move(again);
  } else {
    extra_[closed.port()] = std::move(again);
  }
}

void Ports::openExtra(uint16_t port, Access access) {
  const MutexLock lock(mutex_);
  if (!isOpen(port)) open(port, access);
}

void Ports::open(uint16_t port, Access access) { extra_.emplace(port, opened(port, access)); }

bool Ports::isOpen(uint16_t port) const {
  return extra_.contains(port) || (main_ && main_->port() == port);
}

void Ports::setExtra(const std::map<uint16_t, Access>& wanted) {
  Listeners unwanted;
  {
    const MutexLock lock(mutex_);
    wanted_ = wanted;
    std::erase_if(extra_, [&](const auto& entry) {
      const auto found = wanted.find(entry.first);
      if (found != wanted.end() && found->second == entry.second->access()) return false;
      unwanted.push_back(entry.second);
      return true;
    });
    std::erase_if(taken_, [&](uint16_t port) { return !wanted.contains(port); });
  }
  closeAll(unwanted);  // first: a port may be wanted again for something else
  const MutexLock lock(mutex_);
  openMissing();
}

void Ports::openMissing() {
  if (core_->stopping) return;
  bool missing = false;
  for (const auto& [port, access] : wanted_) {
    missing |= !isOpen(port) && !tryToOpen(port, access);
  }
  if (missing && !std::exchange(retrying_, true)) {
    asio::post(timer_.get_executor(), [self = shared_from_this()] { self->retryLater(); });
  }
}

bool Ports::tryToOpen(uint16_t port, Access access) try {
  open(port, access);
  if (taken_.erase(port) > 0) logWarn("http: listens on port {} now", port);
  return true;
} catch (const std::system_error& e) {
  if (taken_.insert(port).second) {
    logWarn("http: {}; tried again every {} ms", e.what(), core_->bounds.reopen.count());
  }
  return false;
}

void Ports::retryLater() {
  if (core_->stopping) return;
  timer_.expires_after(core_->bounds.reopen);
  timer_.async_wait([self = shared_from_this()](const error_code& ec) {
    if (!ec) self->retry();
  });
}

void Ports::retry() {
  const MutexLock lock(mutex_);
  retrying_ = false;
  openMissing();
}

bool Ports::serves(uint16_t port) const {
  const MutexLock lock(mutex_);
  return isOpen(port);
}

void Ports::close() {
  Listeners listeners;
  {
    const MutexLock lock(mutex_);
    for (const auto& [port, listener] : extra_) listeners.push_back(listener);
    extra_.clear();
    if (main_) listeners.push_back(std::exchange(main_, nullptr));
  }
  core_->runOn(0, [self = shared_from_this()] { self->timer_.cancel(); });
  closeAll(listeners);
}

void Ports::closeAll(const Listeners& listeners) {
  if (listeners.empty()) return;
  core_->runOn(0, [listeners] {
    for (const auto& listener : listeners) listener->close();
  });
}

}  // namespace qn
