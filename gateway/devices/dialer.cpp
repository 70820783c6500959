#include "gateway/devices/dialer.h"

#include <boost/asio/connect.hpp>
#include <utility>

namespace qn {

void Dialer::start(Done done) {
  cancelled_ = false;
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
  device_.names.find(name, socket_.get_executor(), [this, lookup, done](const auto& addresses) {
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
  boost::asio::async_connect(socket_, endpoints,
                             [this, done = std::move(done)](const auto& error, const auto&) {
                               if (error) {
                                 device_.address.unreachable();
                               } else {
                                 boost::system::error_code ignored;
                                 socket_.set_option(boost::asio::ip::tcp::no_delay(true), ignored);
                                 socket_.non_blocking(true, ignored);
                               }
                               done(error);
                             });
}

void Dialer::cancel() {
  cancelled_ = true;
  timer_.cancel();
  boost::system::error_code ignored;
  socket_.close(ignored);
}

}  // namespace qn
