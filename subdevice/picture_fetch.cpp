// See picture_fetch.h.
#include "subdevice/picture_fetch.h"

#include <boost/asio/ip/address.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <charconv>
#include <memory>
#include <utility>

namespace subdevice {
namespace {

namespace http = boost::beast::http;
using boost::asio::ip::tcp;

constexpr std::chrono::seconds kFetchTime{10};

struct PictureUrl {
  tcp::endpoint server;
  std::string host;  // address and port as they stand
  std::string target;
};

std::optional<PictureUrl> parseUrl(std::string_view url) {
  constexpr std::string_view kScheme = "http://";
  if (!url.starts_with(kScheme)) return {};
  url.remove_prefix(kScheme.size());
  const auto slash = url.find('/');
  if (slash == std::string_view::npos) return {};
  const std::string_view host = url.substr(0, slash);
  const auto colon = host.find(':');
  uint16_t port = 80;
  if (colon != std::string_view::npos)
    std::from_chars(host.data() + colon + 1, host.data() + host.size(), port);
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(host.substr(0, colon), error);
  if (error) return {};
  return PictureUrl{{address, port}, std::string(host), std::string(url.substr(slash))};
}

class Fetch : public std::enable_shared_from_this<Fetch> {
 public:
  Fetch(boost::asio::io_context& io, const PictureUrl& url, PictureArrived arrived)
      : stream_(io), arrived_(std::move(arrived)), request_(http::verb::get, url.target, 11) {
    request_.set(http::field::host, url.host);
    request_.set(http::field::connection, "close");
    parser_.body_limit(kPictureBytes);
    stream_.expires_after(kFetchTime);
  }

  void start(const tcp::endpoint& server) {
    stream_.async_connect(server, [self = shared_from_this()](boost::system::error_code error) {
      if (error) return self->arrived_({});
      self->ask();
    });
  }

 private:
  void ask() {
    http::async_write(stream_, request_,
                      [self = shared_from_this()](boost::system::error_code error, auto) {
                        if (error) return self->arrived_({});
                        self->read();
                      });
  }

  void read() {
    http::async_read(stream_, buffer_, parser_,
                     [self = shared_from_this()](boost::system::error_code error, auto) {
                       if (error || self->parser_.get().result() != http::status::ok)
                         return self->arrived_({});
                       self->arrived_(std::move(self->parser_.get().body()));
                     });
  }

  boost::beast::tcp_stream stream_;
  PictureArrived arrived_;
  http::request<http::empty_body> request_;
  http::response_parser<http::string_body> parser_;
  boost::beast::flat_buffer buffer_;
};

}  // namespace

void fetchPicture(boost::asio::io_context& io, std::string_view url, PictureArrived arrived) {
  const auto parsed = parseUrl(url);
  if (!parsed) {
    boost::asio::post(io, [arrived = std::move(arrived)] { arrived({}); });
    return;
  }
  std::make_shared<Fetch>(io, *parsed, std::move(arrived))->start(parsed->server);
}

}  // namespace subdevice
