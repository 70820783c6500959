// See recorder.h.
#include "subdevice/recorder/recorder.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "gateway/alarmbus/multipart_reader.h"
#include "subdevice/recorder/anonymiser.h"
#include "text/ascii.h"
#include "text/number.h"

namespace subdevice {
namespace {

namespace http = boost::beast::http;
using boost::asio::ip::tcp;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Error = boost::system::error_code;

constexpr std::size_t kRequestBytes = 10 * 1024 * 1024;
constexpr std::chrono::seconds kIdle{120};

milliseconds since(steady_clock::time_point begin) {
  return std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
}

tcp::endpoint endpointOf(boost::asio::io_context& io, std::string_view url) {
  constexpr std::string_view kScheme = "http://";
  std::string_view rest = url;
  if (!rest.starts_with(kScheme))
    throw std::runtime_error("\"" + std::string(url) + "\" is not http://HOST[:PORT]");
  rest.remove_prefix(kScheme.size());
  if (rest.ends_with('/')) rest.remove_suffix(1);
  const auto colon = rest.find(':');
  const std::string port(colon == std::string_view::npos ? "80" : rest.substr(colon + 1));
  if (!qn::text::wholeNumber<uint16_t>(port) || rest.find('/') != std::string_view::npos)
    throw std::runtime_error("\"" + std::string(url) + "\" is not http://HOST[:PORT]");
  Error error;
  const auto found = tcp::resolver(io).resolve(std::string(rest.substr(0, colon)), port, error);
  if (error) throw std::runtime_error(std::string(url) + ": " + error.message());
  return found.begin()->endpoint();
}

// The user name of an Authorization value; empty when there is none.
std::string userOf(std::string_view authorization) {
  constexpr std::string_view kName = "username=\"";
  const auto at = authorization.find(kName);
  if (at == std::string_view::npos) return {};
  const std::string_view rest = authorization.substr(at + kName.size());
  return std::string(rest.substr(0, rest.find('"')));
}

std::string boundaryOf(std::string_view type) {
  constexpr std::string_view kName = "boundary=";
  const auto at = type.find(kName);
  if (at == std::string_view::npos) return {};
  std::string_view value = type.substr(at + kName.size());
  value = value.substr(0, value.find(';'));
  if (value.size() > 1 && value.starts_with('"')) value = value.substr(1, value.rfind('"') - 1);
  return std::string(value);
}

// One of the gateway's connections, with one to the device for each of its requests.
class Relay : public std::enable_shared_from_this<Relay> {
 public:
  Relay(tcp::socket socket, Recorder& recorder)
      : recorder_(recorder),
        connections_(recorder.connections()),
        client_(std::move(socket)),
        device_(recorder.io()) {
    ++*connections_;
  }
  ~Relay() { --*connections_; }
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  void readRequest() {
    request_.emplace();
    request_->body_limit(kRequestBytes);
    client_.expires_after(kIdle);
    http::async_read(client_, fromClient_, *request_,
                     [self = shared_from_this()](Error error, auto) {
                       if (!error) self->connect();
                     });
  }

 private:
  using Head = http::response_parser<http::empty_body>;

  void connect() {
    said_ = {};
    said_.method = message().method_string();
    said_.target = message().target();
    said_.request = bodyOf(message()[http::field::content_type], message().body());
    recorder_.sawUser(userOf(message()[http::field::authorization]));
    begin_ = steady_clock::now();
    client_.expires_never();
    fromDevice_.clear();
    device_.close();
    device_.expires_after(Recorder::kDeviceTime);
    device_.async_connect(recorder_.device(), [self = shared_from_this()](Error error) {
      error ? self->broken(error) : self->ask();
    });
  }

  void ask() {
    message().set(http::field::connection, "close");
    http::async_write(device_, message(), [self = shared_from_this()](Error error, auto) {
      error ? self->broken(error) : self->readHead();
    });
  }

  void readHead() {
    head_.emplace();
    head_->skip(message().method() == http::verb::head);
    http::async_read_header(device_, fromDevice_, *head_,
                            [self = shared_from_this()](Error error, auto) {
                              error ? self->broken(error) : self->readReply();
                            });
  }

  void readReply() {
    said_.status = head_->get().result_int();
    said_.after = since(begin_);
    said_.reply.type = std::string(head_->get()[http::field::content_type]);
    if (said_.isStream()) return beginStream();
    reply_.emplace(std::move(*head_));
    reply_->body_limit(Recorder::kReplyBytes);
    http::async_read(device_, fromDevice_, *reply_, [self = shared_from_this()](Error error, auto) {
      error ? self->broken(error) : self->answer();
    });
  }

  void answer() {
    auto& reply = reply_->get();
    said_.reply = bodyOf(said_.reply.type, reply.body());
    if (!belongsToLogin(reply[http::field::www_authenticate])) keep();
    answer_ = http::response<http::string_body>(reply.result(), 11);
    for (const auto& field : reply)
      if (field.name() == http::field::www_authenticate ||
          field.name() == http::field::content_type)
        answer_.insert(field.name(), field.value());
    answer_.body() = std::move(reply.body());
    answer_.prepare_payload();
    http::async_write(client_, answer_, [self = shared_from_this()](Error error, auto) {
      if (!error) self->readRequest();
    });
  }

  // A challenge to a request that had no credentials, or old ones.
  bool belongsToLogin(std::string_view challenge) const {
    if (said_.status != 401) return false;
    return request_->get()[http::field::authorization].empty() ||
           qn::text::containsNoCase(challenge, "stale=true");
  }

  // The device gave no whole answer; the gateway gets none either.
  void broken(Error error) {
    const bool silent = error == boost::beast::error::timeout;
    said_.end = silent ? RecordedExchange::End::Silent : RecordedExchange::End::Closed;
    said_.after = since(begin_);
    said_.remark = "the device: " + error.message();
    keep();
    client_.close();
  }

  void keep() { kept_ = recorder_.keep(std::move(said_), place_); }

  void beginStream() {
    const std::string boundary = boundaryOf(said_.reply.type);
    headText_ =
        "HTTP/1.1 200 OK\r\nContent-Type: " + said_.reply.type + "\r\nConnection: close\r\n\r\n";
    keep();
    reader_.emplace(boundary, Recorder::kStreamBytes,
                    [this](std::string_view type, std::string_view body) { addPart(type, body); });
    stream_.emplace(std::move(*head_));
    stream_->body_limit(boost::none);
    begin_ = steady_clock::now();
    device_.expires_never();
    watchClient();
    boost::asio::async_write(client_, boost::asio::buffer(headText_),
                             [self = shared_from_this()](Error error, auto) {
                               error ? self->endStream() : self->readPiece();
                             });
  }

  void addPart(std::string_view type, std::string_view body) {
    streamBytes_ += body.size();
    if (!kept_ || streamBytes_ > Recorder::kStreamBytes || since(begin_) > Recorder::kStreamTime)
      return;
    recorder_.addPart(place_, {since(begin_), bodyOf(std::string(type), body)});
  }

  void readPiece() {
    stream_->get().body().data = piece_.data();
    stream_->get().body().size = piece_.size();
    http::async_read_some(device_, fromDevice_, *stream_,
                          [self = shared_from_this()](Error error, auto) {
                            if (error == http::error::need_buffer) error = {};
                            error ? self->endStream() : self->passOn();
                          });
  }

  void passOn() {
    const std::size_t size = piece_.size() - stream_->get().body().size;
    if (readable_) readable_ = reader_->feed({piece_.data(), size});
    boost::asio::async_write(client_, boost::asio::buffer(piece_.data(), size),
                             [self = shared_from_this()](Error error, auto) {
                               if (error || self->stream_->is_done()) return self->endStream();
                               self->readPiece();
                             });
  }

  // A client says nothing on a stream; a read that ends means that it has gone.
  void watchClient() {
    client_.async_read_some(boost::asio::buffer(&ignored_, 1),
                            [self = shared_from_this()](Error error, auto) {
                              if (!error) return self->watchClient();
                              self->clientGone_ = true;
                              self->endStream();
                            });
  }

  // An end that the client made says nothing about the device.
  void endStream() {
    if (kept_ && !clientGone_ && !ended_) recorder_.endStream(place_, since(begin_));
    ended_ = true;
    client_.close();
    device_.close();
  }

  http::request<http::string_body>& message() { return request_->get(); }

  Recorder& recorder_;  // may be gone when this one is destroyed
  const std::shared_ptr<std::size_t> connections_;
  boost::beast::tcp_stream client_;
  boost::beast::tcp_stream device_;
  boost::beast::flat_buffer fromClient_, fromDevice_;
  std::optional<http::request_parser<http::string_body>> request_;
  std::optional<Head> head_;
  std::optional<http::response_parser<http::string_body>> reply_;
  http::response<http::string_body> answer_;
  steady_clock::time_point begin_;
  RecordedExchange said_;
  std::size_t place_ = 0;
  bool kept_ = false;
  // Of a stream.
  std::string headText_;
  std::optional<http::response_parser<http::buffer_body>> stream_;
  std::optional<qn::MultipartReader> reader_;
  bool readable_ = true;
  std::array<char, 16 * 1024> piece_;
  std::size_t streamBytes_ = 0;
  bool clientGone_ = false;
  bool ended_ = false;
  char ignored_ = 0;
};

void writeWhole(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(file, text.data(), text.size());
    if (count < 0 && errno != EINTR) throw std::runtime_error(std::strerror(errno));
    if (count > 0) text.remove_prefix(static_cast<std::size_t>(count));
  }
}

}  // namespace

Recorder::Recorder(boost::asio::io_context& io, uint16_t port, const std::string& url,
                   std::string file)
    : io_(io),
      acceptor_(io, {boost::asio::ip::address_v4::loopback(), port}),
      device_(endpointOf(io, url)),
      file_(std::move(file)),
      saving_(io) {
  save();  // so that a file that cannot be written is known now
  accept();
  saveLater();
}

void Recorder::accept() {
  acceptor_.async_accept([this](Error error, tcp::socket socket) {
    if (error == boost::asio::error::operation_aborted) return;
    if (!error && *connections_ < kConnections)
      std::make_shared<Relay>(std::move(socket), *this)->readRequest();
    accept();
  });
}

bool Recorder::hasRoom(std::size_t bytes) {
  changed_ = true;
  bytes_ += bytes;
  const bool room = bytes_ <= kBytes && conversation_.size() < kExchanges;
  if (!room && !std::exchange(full_, true))
    std::fputs("qn-subdevice: the recording is full; what comes now is passed on only\n", stderr);
  return room;
}

bool Recorder::keep(RecordedExchange exchange, std::size_t& place) {
  if (!hasRoom(exchange.target.size() + exchange.request.text.size() + exchange.reply.text.size()))
    return false;
  place = conversation_.size();
  conversation_.push_back(std::move(exchange));
  return true;
}

void Recorder::addPart(std::size_t place, RecordedPart part) {
  if (hasRoom(part.body.text.size())) conversation_[place].parts.push_back(std::move(part));
}

void Recorder::endStream(std::size_t place, milliseconds at) {
  conversation_[place].ended = at;
  changed_ = true;
}

void Recorder::saveLater() {
  saving_.expires_after(kSavePeriod);
  saving_.async_wait([this](Error error) {
    if (error) return;
    try {
      save();
    } catch (const std::exception& failed) {
      std::fprintf(stderr, "qn-subdevice: %s\n", failed.what());
    }
    saveLater();
  });
}

void Recorder::save() {
  if (!std::exchange(changed_, false)) return;
  Anonymiser anonymiser;
  for (const auto& user : users_)
    if (!user.empty()) anonymiser.learn(Secret::User, user);
  std::ostringstream text;
  writeConversation(text, anonymiser.anonymous(conversation_));
  const std::string temporary = file_ + ".new";
  const int file = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (file < 0) throw std::runtime_error(temporary + ": " + std::strerror(errno));
  try {
    writeWhole(file, text.view());
  } catch (...) {
    ::close(file);
    throw;
  }
  ::close(file);
  if (std::rename(temporary.c_str(), file_.c_str()) != 0)
    throw std::runtime_error(file_ + ": " + std::strerror(errno));
}

}  // namespace subdevice
