#include "gateway/devices/dialer.h"

#include <boost/asio/connect.hpp>
#include <utility>

#include "text/number.h"

namespace qn {

void Dialer::start(Done done) {
  cancelled_ = false;
  const auto known = device_.address.endpoints();
  if (known.empty()) return resolve(std::move(done));
  connect(known, std::move(done));
}

void Dialer::resolve(Done done) {
  resolver_.async_resolve(
      device_.config.host, text::Decimal(device_.config.port).view(),
      boost::asio::ip::tcp::resolver::numeric_service,
      [this, done = std::move(done)](const auto& error, const auto& found) mutable {
        if (error || cancelled_) return done(boost::asio::error::operation_aborted);
        const DeviceAddress::Endpoints endpoints(found.begin(), found.end());
        device_.address.resolved(endpoints);
        connect(endpoints, std::move(done));
      });
}

void Dialer::connect(const DeviceAddress::Endpoints& endpoints, Done done) {
  boost::asio::async_connect(socket_, endpoints,
                             [this, done = std::move(done)](const auto& error, const auto&) {
                               if (error) device_.address.unreachable();
                               boost::system::error_code ignored;
                               if (!error)
                                 socket_.set_option(boost::asio::ip::tcp::no_delay(true), ignored);
                               if (!error) socket_.non_blocking(true, ignored);
                               done(error);
                             });
}

void Dialer::cancel() {
  cancelled_ = true;
  resolver_.cancel();
  boost::system::error_code ignored;
  socket_.close(ignored);
}

}  // namespace qn
