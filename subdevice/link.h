// A device's link to its clients, which an order makes slow.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/basic_stream.hpp>
#include <boost/beast/core/rate_policy.hpp>
#include <chrono>
#include <limits>

namespace subdevice {

using ClientStream = boost::beast::basic_stream<boost::asio::ip::tcp, boost::asio::any_io_executor,
                                                boost::beast::simple_rate_policy>;

struct Link {
  std::size_t bytesPerSecond = 0;      // that each connection can send; 0: any number
  std::chrono::milliseconds delay{0};  // before each answer
};

inline void limitSending(ClientStream& stream, std::size_t bytesPerSecond) {
  stream.rate_policy().write_limit(bytesPerSecond == 0 ? std::numeric_limits<std::size_t>::max()
                                                       : bytesPerSecond);
}

}  // namespace subdevice
