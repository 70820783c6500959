// One HTTP request to somebody else, on a connection of its own: a device fetches a picture with
// it, and a command reaches the control resource of a running simulator.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <functional>
#include <string>

namespace subdevice {

struct HttpCall {
  static constexpr std::size_t kBodyBytes = 10 * 1024 * 1024;  // of the answer
  static constexpr std::chrono::seconds kTime{10};             // for everything

  boost::asio::ip::tcp::endpoint server;
  std::string method, target, host, body;
};

struct HttpCallAnswer {
  boost::system::error_code error;
  unsigned status = 0;
  std::string body;
};

// Calls `answered` once, later, on the context's thread.
void call(boost::asio::io_context& io, const HttpCall& what,
          std::function<void(HttpCallAnswer)> answered);

}  // namespace subdevice
