// See connection.h.
#include "gateway/devicebus/connection.h"

#include <boost/asio/post.hpp>
#include <exception>
#include <utility>

#include "gateway/devicebus/lane.h"
#include "platform/wlog.h"

namespace qn::devicebus {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;

constexpr std::size_t kShortBody = 16 * 1024;  // sent from one buffer with the head
constexpr int kInterimReplies = 8;             // 1xx replies before a final one

}  // namespace

Connection::Connection(Lane& lane, asio::io_context& reactor) : lane_(&lane), socket_(reactor) {}

template <typename Step>
void Connection::guarded(Step step) noexcept {
  if (!lane_) return;
  try {
    step();
  } catch (const std::exception& exception) {
    wlog_format(WLOG_ERROR, "QNW", "device connection: %s", exception.what());
    report(Fault::kUnusable);
  }
}

void Connection::start(RequestPtr request, const std::vector<Endpoint>& endpoints) {
  prepareFor(std::move(request));
  if (connected_) {
    send();
  } else {
    endpoints_ = endpoints;
    connect(0);
  }
}

void Connection::startUnresolved(RequestPtr request) {
  prepareFor(std::move(request));
  resolve();
}

void Connection::prepareFor(RequestPtr request) {
  request_ = std::move(request);
  if (request_->body.size() <= kShortBody) head_ += request_->body;
  reply_.emplace(lane_->replyLimit(), request_->method == "HEAD");
  interimReplies_ = 0;
  gotReplyBytes_ = false;
  reused_ = connected_;
}

void Connection::resolve() {
  const DeviceConfig& config = lane_->device().config;
  resolver_.emplace(socket_.get_executor());
  resolver_->async_resolve(
      config.host, std::to_string(config.port),
      [self = shared_from_this()](const ErrorCode& error, const auto& results) {
        self->guarded([&] {
          if (error) return self->report(Fault::kNotConnected);
          self->endpoints_.assign(results.begin(), results.end());
          self->lane_->resolved(self->endpoints_);
          self->connect(0);
        });
      });
}

void Connection::connect(std::size_t endpoint) {
  if (endpoint >= endpoints_.size()) return reportLater(Fault::kNotConnected);
  ErrorCode ignored;
  socket_.close(ignored);
  socket_.async_connect(endpoints_[endpoint],
                        [self = shared_from_this(), endpoint](const ErrorCode& error) {
                          self->guarded([&] { self->onConnected(error, endpoint); });
                        });
}

void Connection::onConnected(const ErrorCode& error, std::size_t endpoint) {
  if (error) return connect(endpoint + 1);
  connected_ = true;
  endpoints_.clear();
  ErrorCode ignored;
  socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
  socket_.non_blocking(true, ignored);
  send();
  read();
}

void Connection::send() {
  ErrorCode error;
  const std::size_t sent = request_->body.size() <= kShortBody
                               ? socket_.write_some(asio::buffer(head_), error)
                               : socket_.write_some(unsent(0), error);
  if (error && error != asio::error::would_block) return reportLater(Fault::kClosed);
  sendRest(sent);
}

std::array<asio::const_buffer, 2> Connection::unsent(std::size_t sent) const {
  const bool bodyApart = request_->body.size() > kShortBody;
  const std::size_t fromHead = std::min(sent, head_.size());
  return {asio::buffer(head_) + fromHead,
          bodyApart ? asio::buffer(request_->body) + (sent - fromHead) : asio::const_buffer()};
}

void Connection::sendRest(std::size_t sent) {
  const auto rest = unsent(sent);
  sending_ = asio::buffer_size(rest) > 0;
  if (!sending_) return;
  socket_.async_write_some(
      rest, [self = shared_from_this(), sent](const ErrorCode& error, std::size_t count) {
        self->guarded([&] {
          // Later, because a reply that has arrived by now counts for more.
          if (error) return self->reportLater(Fault::kClosed);
          self->sendRest(sent + count);
        });
      });
}

void Connection::read() {
  const auto space = buffer_.space(reply_ && reply_->hasLongBody());
  if (space.size() == 0) return reportLater(Fault::kUnusable);
  socket_.async_read_some(space,
                          [self = shared_from_this()](const ErrorCode& error, std::size_t count) {
                            self->guarded([&] { self->onRead(error, count); });
                          });
}

void Connection::onRead(const ErrorCode& error, std::size_t count) {
  if (error) return onReadEnd(error);
  buffer_.commit(count);
  if (!request_) return report(Fault::kUnusable);
  gotReplyBytes_ = true;
  parse();
}

void Connection::onReadEnd(const ErrorCode& error) {
  ended_ = true;
  if (error == asio::error::eof && request_ && gotReplyBytes_ && reply_->is_header_done() &&
      reply_->need_eof()) {
    ErrorCode unfinished;
    reply_->put_eof(unfinished);
    if (!unfinished && reply_->is_done()) return lane_->onReply(*this);
  }
  report(Fault::kClosed);
}

void Connection::parse() {
  for (;;) {
    ErrorCode error;
    const std::string_view bytes = buffer_.unread();
    buffer_.consume(reply_->put(asio::buffer(bytes), error));
    if (error && error != http::error::need_more) return report(Fault::kUnusable);
    if (!reply_->is_done()) {
      reply_->keepBody();
      return read();
    }
    if (reply_->status() >= 200) return lane_->onReply(*this);
    if (!nextAfterInterim()) return report(Fault::kUnusable);
    if (buffer_.empty()) return read();
  }
}

// False when the interim reply cannot be passed over.
bool Connection::nextAfterInterim() {
  constexpr int kSwitchingProtocols = 101;
  if (reply_->status() == kSwitchingProtocols || ++interimReplies_ > kInterimReplies) return false;
  reply_.emplace(lane_->replyLimit(), request_->method == "HEAD");
  return true;
}

bool Connection::canBeReused() const {
  return lane_ && !ended_ && !sending_ && buffer_.empty() && reply_->keep_alive();
}

void Connection::rest() {
  restingSince_ = Clock::now();
  reply_.reset();
  buffer_.clear();
  head_.clear();
  read();
}

void Connection::close() {
  lane_ = nullptr;
  resolver_.reset();
  ErrorCode ignored;
  socket_.close(ignored);
}

void Connection::report(Fault fault) {
  if (lane_) lane_->onFault(*this, fault);
}

void Connection::reportLater(Fault fault) {
  asio::post(socket_.get_executor(),
             [self = shared_from_this(), fault] { self->guarded([&] { self->report(fault); }); });
}

}  // namespace qn::devicebus
