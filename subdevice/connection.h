// One client connection of a device: reads requests, one at a time, and answers them, properly or
// as the control resource ordered.
#pragma once

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <memory>
#include <optional>

#include "subdevice/faults.h"
#include "subdevice/message.h"

namespace subdevice {

class Listener;

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  static constexpr std::size_t kBodyBytes = 10 * 1024 * 1024;
  static constexpr std::size_t kHeadBytes = 16 * 1024;
  static constexpr std::chrono::seconds kIdle{120};  // without a request, and for reading one

  Connection(boost::asio::ip::tcp::socket socket, Listener& listener);

  void readRequest();
  void close();

 private:
  void serve();
  void serveControl();
  void perform(const Fault& fault);
  void answerProperly();
  void hang();
  void send(const Reply& reply);
  void sendAndClose(std::string bytes);
  void sendBytes(std::string bytes, bool closeAfter);

  boost::beast::tcp_stream stream_;
  Listener& listener_;
  boost::beast::flat_buffer buffer_;
  std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser_;
  Request request_;
  bool keepAlive_ = true;
  bool serving_ = false;  // the control resource, whose answer must still go out
  std::string writing_;
  boost::asio::steady_timer delay_;
};

}  // namespace subdevice
