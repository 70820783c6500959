// See http_call.h.
#include "subdevice/http_call.h"

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <memory>
#include <utility>

namespace subdevice {
namespace {

namespace http = boost::beast::http;

class Call : public std::enable_shared_from_this<Call> {
 public:
  Call(boost::asio::io_context& io, const HttpCall& what,
       std::function<void(HttpCallAnswer)> answered)
      : stream_(io), answered_(std::move(answered)) {
    request_.method_string(what.method);
    request_.target(what.target);
    request_.set(http::field::host, what.host);
    request_.set(http::field::connection, "close");
    request_.body() = what.body;
    request_.prepare_payload();
    parser_.body_limit(HttpCall::kBodyBytes);
    stream_.expires_after(HttpCall::kTime);
  }

  void start(const boost::asio::ip::tcp::endpoint& server) {
    stream_.async_connect(server, [self = shared_from_this()](boost::system::error_code error) {
      error ? self->answered_({error, 0, {}}) : self->ask();
    });
  }

 private:
  void ask() {
    http::async_write(stream_, request_,
                      [self = shared_from_this()](boost::system::error_code error, auto) {
                        error ? self->answered_({error, 0, {}}) : self->read();
                      });
  }

  void read() {
    http::async_read(stream_, buffer_, parser_,
                     [self = shared_from_this()](boost::system::error_code error, auto) {
                       auto& answer = self->parser_.get();
                       self->answered_({error, answer.result_int(), std::move(answer.body())});
                     });
  }

  boost::beast::tcp_stream stream_;
  std::function<void(HttpCallAnswer)> answered_;
  http::request<http::string_body> request_;
  http::response_parser<http::string_body> parser_;
  boost::beast::flat_buffer buffer_;
};

}  // namespace

void call(boost::asio::io_context& io, const HttpCall& what,
          std::function<void(HttpCallAnswer)> answered) {
  std::make_shared<Call>(io, what, std::move(answered))->start(what.server);
}

}  // namespace subdevice
