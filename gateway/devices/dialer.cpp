#include "gateway/devices/dialer.h"

#include <boost/asio/connect.hpp>
#include <exception>
#include <utility>

#include "gateway/log/log.h"

namespace qn {

void Dialer::start(Done done) {
  cancelled_ = false;
  step_ = Step::Resolving;
  const auto known = device_.address.endpoints();
  if (known.empty()) return resolve(done);
  connect(known, std::move(done));
}

// Ends with whatever comes first: the name is found, patience ends, or the attempt is cancelled.
void Dialer::resolve(const Done& done) {
  const std::string& name = device_.config.host;
  const bool foundBefore = !device_.names.lastGood(name).empty();
  const uint64_t lookup = ++lookups_;
  timer_.expires_after(foundBefore ? kPatienceWithOldAddress : kPatience);
  timer_.async_wait([this, lookup, done](const auto&) {
    if (lookup == lookups_) found(device_.names.lastGood(device_.config.host), done);
  });
  device_.names.find(name, stream_.executor(), [this, lookup, done](const auto& addresses) {
    if (lookup == lookups_) found(addresses, done);
  });
}

void Dialer::found(const NameResolver::Addresses& addresses, Done done) {
  ++lookups_;
  timer_.cancel();
  if (cancelled_) return done(boost::asio::error::operation_aborted);
  if (addresses.empty()) return done(boost::asio::error::host_not_found);
  device_.address.resolved(addresses);
  connect(device_.address.endpoints(), std::move(done));
}

void Dialer::connect(const DeviceAddress::Endpoints& endpoints, Done done) {
  step_ = Step::Connecting;
  boost::asio::async_connect(
      stream_.socket(), endpoints,
      [this, done = std::move(done)](const auto& error, const auto&) mutable {
        connected(error, std::move(done));
      });
}

void Dialer::connected(const boost::system::error_code& error, Done done) {
  if (error) {
    device_.address.unreachable();
    return done(error);
  }
  boost::system::error_code ignored;
  stream_.socket().set_option(boost::asio::ip::tcp::no_delay(true), ignored);
  stream_.socket().non_blocking(true, ignored);
  if (!device_.tls) return done(error);
  secure(std::move(done));
}

// False when there is no memory for it.
bool Dialer::prepareTls() try {
  stream_.encrypt().makeSession(DeviceTls::context());
  device_.tls->prepare(*stream_.ssl());
  return true;
} catch (const std::exception& error) {
  logError("device {}: {}", device_.config.index, error.what());
  return false;
}

void Dialer::secure(Done done) {
  if (cancelled_) return done(boost::asio::error::operation_aborted);
  step_ = Step::Securing;
  if (!prepareTls()) return done(boost::asio::error::no_memory);
  stream_.encrypt().async_handshake(
      [this, done = std::move(done)](const boost::system::error_code& error) {
        if (cancelled_) return done(boost::asio::error::operation_aborted);
        const auto verdict = device_.tls->judge(*stream_.ssl(), error);
        if (device_.tls->isNews(verdict)) {
          logWarn("device {}: {}", device_.config.index, verdict.message());
        }
        done(verdict);
      });
}

void Dialer::cancel() {
  cancelled_ = true;
  timer_.cancel();
  stream_.close();
}

}  // namespace qn
