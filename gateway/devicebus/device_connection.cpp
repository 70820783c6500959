#include "gateway/devicebus/device_connection.h"

#include <boost/asio/post.hpp>
#include <exception>
#include <utility>

#include "gateway/devicebus/lane.h"
#include "gateway/log/log.h"
#include "gateway/net/coarse_clock.h"

namespace qn::devicebus {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;

constexpr std::size_t kShortBody = 16 * 1024;  // sent from one buffer with the head
constexpr int kInterimReplies = 8;             // 1xx replies before a final one

}  // namespace

DeviceConnection::DeviceConnection(Lane& lane, asio::io_context& reactor)
    : lane_(&lane), stream_(reactor), device_(lane.sharedDevice()), dialer_(*device_, stream_) {}

template <typename Step>
void DeviceConnection::guarded(Step step) noexcept {
  if (!lane_) return;
  try {
    step();
  } catch (const std::exception& exception) {
    logError("device connection: {}", exception.what());
    report(Fault::Unusable);
  }
}

void DeviceConnection::start(const DeviceRequestHead& head, RequestPtr request) {
  writeRequestHead(head_, *device_, head, request->body);
  if (request->body.size() <= kShortBody) head_ += request->body;
  reply_.emplace(lane_->replyLimit(), request->method == "HEAD");
  request_ = std::move(request);
  ++device_->counts.inFlight;
  request_->reply.giveBack();  // of an attempt that was refused
  interimReplies_ = 0;
  gotReplyBytes_ = false;
  reused_ = connected_;
  if (connected_) return send();
  dialer_.start([self = shared_from_this()](const ErrorCode& error) {
    self->guarded([&] { self->onConnected(error); });
  });
}

void DeviceConnection::onConnected(const ErrorCode& error) {
  connectError_ = error;
  if (error) return report(Fault::NotConnected);
  connected_ = true;
  send();
  read();
}

void DeviceConnection::send() {
  ErrorCode error;
  const std::size_t sent = request_->body.size() <= kShortBody
                               ? stream_.writeSome(asio::buffer(head_), error)
                               : stream_.writeSome(unsent(0), error);
  if (error && error != asio::error::would_block) return reportLater(Fault::Closed);
  sendRest(sent);
}

std::array<asio::const_buffer, 2> DeviceConnection::unsent(std::size_t sent) const {
  const bool bodyApart = request_->body.size() > kShortBody;
  const std::size_t fromHead = std::min(sent, head_.size());
  return {asio::buffer(head_) + fromHead,
          bodyApart ? asio::buffer(request_->body) + (sent - fromHead) : asio::const_buffer()};
}

void DeviceConnection::sendRest(std::size_t sent) {
  const auto rest = unsent(sent);
  sending_ = asio::buffer_size(rest) > 0;
  if (!sending_) return;
  stream_.asyncWriteSome(
      rest, [self = shared_from_this(), sent](const ErrorCode& error, std::size_t count) {
        self->guarded([&] {
          // Later, because a reply that has arrived by now counts for more.
          if (error) return self->reportLater(Fault::Closed);
          self->sendRest(sent + count);
        });
      });
}

void DeviceConnection::read() {
  const auto room = reply_ ? reply_->roomForBody() : asio::mutable_buffer();
  if (room.size() != 0) return readBody(room);
  const auto space =
      buffer_.space(reply_ && reply_->hasLongBody() ? ReadBuffer::kLargest : ReadBuffer::kUsual);
  if (space.size() == 0) return reportLater(Fault::Unusable);
  stream_.asyncReadSome(space,
                        [self = shared_from_this()](const ErrorCode& error, std::size_t count) {
                          self->guarded([&] { self->onRead(error, count); });
                        });
}

// What comes of a long body, straight to where it is gathered; nothing is unread by now.
void DeviceConnection::readBody(asio::mutable_buffer room) {
  stream_.asyncReadSome(
      room, [self = shared_from_this(), room](const ErrorCode& error, std::size_t count) {
        self->guarded([&] {
          if (error) return self->onReadEnd(error);
          ErrorCode parsed;
          self->reply_->put(asio::buffer(room, count), parsed);
          self->onReplyBytes(parsed);
        });
      });
}

void DeviceConnection::onRead(const ErrorCode& error, std::size_t count) {
  if (error) return onReadEnd(error);
  buffer_.commit(count);
  if (!request_) return report(Fault::Unusable);
  gotReplyBytes_ = true;
  parse();
}

void DeviceConnection::onReadEnd(const ErrorCode& error) {
  ended_ = true;
  if (error == asio::error::eof && request_ && gotReplyBytes_ && reply_->is_header_done() &&
      reply_->need_eof()) {
    ErrorCode unfinished;
    reply_->put_eof(unfinished);
    if (!unfinished && reply_->is_done()) return lane_->onReply(*this);
  }
  report(Fault::Closed);
}

void DeviceConnection::parse() {
  ErrorCode error;
  const std::string_view bytes = buffer_.unread();
  buffer_.consume(reply_->put(asio::buffer(bytes), error));
  onReplyBytes(error);
}

// The parser has had what was there.
void DeviceConnection::onReplyBytes(const ErrorCode& error) {
  if (error && error != http::error::need_more) return report(Fault::Unusable);
  if (!reply_->is_done()) {
    reply_->keepBody();
    return readOnWhenRoom();
  }
  if (reply_->status() >= 200) return lane_->onReply(*this);
  if (!nextAfterInterim()) return report(Fault::Unusable);
  if (buffer_.empty()) return read();
  parse();
}

// A reply of known length waits for all of its room at once, so that no two wait for each other;
// meanwhile the device waits too. One that just grows has taken its room already and cannot wait.
void DeviceConnection::readOnWhenRoom() {
  const auto onRoom = [self = weak_from_this()] {
    const auto connection = self.lock();
    if (!connection) return;
    asio::post(connection->stream_.executor(), [connection] {
      connection->guarded([&] {
        connection->waitingForRoom_ = false;
        connection->read();
      });
    });
  };
  const std::size_t announced = reply_->announcedBytes();
  if (announced == 0) {
    const bool fits = request_->reply.hold(*device_, reply_->body().size(), nullptr);
    return fits ? read() : report(Fault::NoRoom);
  }
  waitingForRoom_ = !request_->reply.hold(*device_, announced, onRoom);
  if (!waitingForRoom_) read();
}

// False when the interim reply cannot be passed over.
bool DeviceConnection::nextAfterInterim() {
  constexpr int kSwitchingProtocols = 101;
  if (reply_->status() == kSwitchingProtocols || ++interimReplies_ > kInterimReplies) return false;
  reply_.emplace(lane_->replyLimit(), request_->method == "HEAD");
  return true;
}

bool DeviceConnection::canBeReused() const {
  return lane_ && !ended_ && !sending_ && buffer_.empty() && reply_->keep_alive();
}

void DeviceConnection::rest() {
  restingSince_ = coarseNow();
  reply_.reset();
  buffer_.clear();
  head_.clear();
  read();
}

void DeviceConnection::close() {
  lane_ = nullptr;
  dialer_.cancel();
}

void DeviceConnection::report(Fault fault) {
  if (lane_) lane_->onFault(*this, fault);
}

void DeviceConnection::reportLater(Fault fault) {
  asio::post(stream_.executor(),
             [self = shared_from_this(), fault] { self->guarded([&] { self->report(fault); }); });
}

}  // namespace qn::devicebus
