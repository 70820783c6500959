// The reading side of a client's connection: requests, one at a time, each with its head and body;
// on a stream, that the client goes away; after the last answer, what is still coming. Part of
// ClientConnection.
#pragma once

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

#include "gateway/http/client_stream.h"
#include "gateway/http/exchange.h"
#include "gateway/http/receive_buffer.h"
#include "gateway/http/request_reader.h"
#include "gateway/http/service_core.h"
#include "gateway/net/coarse_clock.h"

namespace qn {

// Whom requests are for.
class RequestTaker {
 public:
  // A head is complete; the exchange is given back with the body.
  virtual ExchangePtr onHead(const RequestHead& head) = 0;
  // Complete. No further one comes before the receiver's resume(), which may be called in here.
  virtual void onRequest(const ExchangePtr& exchange, std::string_view body) = 0;
  // Where the next request would start is not known any more: the last thing that is received.
  virtual void onRefused(OwnAnswer answer) = 0;
  // While a request is held: the client has ended its side, or is gone.
  virtual void onPeerDone() = 0;

 protected:
  ~RequestTaker() = default;
};

template <class Stream>
class RequestReceiver {
 public:
  RequestReceiver(ClientStream<Stream>& client, ServiceCore& core, RequestTaker& taker)
      : client_(client),
        core_(core),
        taker_(taker),
        reader_(core.options().headBytes, core.options().bodyBytes) {}

  // Waits for the first request, or for the next one after an answer.
  void resume() {
    stage_ = Stage::Head;
    timed_ = false;
    const HttpOptions& options = core_.options();
    reader_.setLimits(options.headBytes, options.bodyBytes);
    idleTime_ = options.idleTime;
    client_.setDeadline(idleTime_, coarseNow());
    if (advancing_) return;  // the loop goes on
    if (received_.empty()) return read();
    client_.post([this] { advance(); });  // not inside the caller that answered
  }
  // No request will come from the client any more.
  bool isExhausted() const { return peerDone_ && received_.empty(); }
  // Since when nothing of a request is there; nothing otherwise.
  std::optional<std::chrono::steady_clock::time_point> idleSince() const {
    if (stage_ != Stage::Head || timed_ || !received_.empty()) return std::nullopt;
    return client_.deadline() - idleTime_;
  }
  // The deadline has come; false when no request is under way.
  bool onDeadline() {
    if (stage_ != Stage::Body && (stage_ != Stage::Head || !timed_)) return false;
    refuse(OwnAnswer::RequestTimeout);
    return true;
  }

  // From now on it is only of interest when the client goes away.
  void watch() {
    stage_ = Stage::Watching;
    if (!advancing_) waitForPeer();
  }
  // Drops what comes until the client closes. Closing with unread bytes would reset the connection
  // and could take the last answer from the client.
  void discard() {
    stage_ = Stage::Discarding;
    if (peerDone_) return client_.end();
    dropReceived();
    if (!advancing_) read();
  }
  // The connection has ended.
  void end() {
    stage_ = Stage::Ended;
    bodyShare_ = {};
    if (exchange_) std::exchange(exchange_, nullptr)->detach();
  }

 private:
  using ErrorCode = boost::system::error_code;
  // Held: a request is being answered, or refused.
  enum class Stage { Held, Head, Body, Watching, Discarding, Ended };

  static constexpr std::size_t kDiscardedBytes = 4 * 1024 * 1024;

  std::size_t roomForHead() const { return std::max(reader_.headLimit(), ReceiveBuffer::kFirst); }

  // One read is always under way, as long as there is room; that costs nothing and shows when the
  // peer goes away.
  void read() {
    if (reading_ || peerDone_ || stage_ == Stage::Ended) return;
    const std::size_t limit = roomForHead();
    const auto room = received_.prepare(stage_ == Stage::Body ? limit : ReceiveBuffer::kFirst,
                                        stage_ == Stage::Held ? ReceiveBuffer::kFirst : limit);
    if (room.empty()) return;  // the client waits until its requests are answered
    reading_ = true;
    client_.stream().async_read_some(
        boost::asio::buffer(room.data(), room.size()),
        client_.guarded([this](const ErrorCode& ec, std::size_t count) { onRead(ec, count); }));
  }

  void onRead(const ErrorCode& ec, std::size_t count) {
    reading_ = false;
    if (stage_ == Stage::Watching) return ec ? client_.end() : waitForPeer();
    received_.commit(count);
    core_.counts.here().received.add(count);
    if (!ec) return advance();
    // A client may end its side and still wait for the answer.
    if (ec != boost::asio::error::eof || stage_ != Stage::Held) return client_.end();
    peerDone_ = true;
    taker_.onPeerDone();
  }

  // A loop, so that many requests in one packet do not nest.
  void advance() {
    if (advancing_) return;
    advancing_ = true;
    while (step()) {
    }
    advancing_ = false;
    if (stage_ == Stage::Watching) return waitForPeer();
    // What is still missing will never come.
    if (peerDone_ && (stage_ == Stage::Head || stage_ == Stage::Body)) return client_.end();
    read();
  }

  // True when the next step can be tried.
  bool step() {
    if (stage_ == Stage::Head) return readHead();
    if (stage_ == Stage::Body) return readBody();
    if (stage_ == Stage::Discarding) dropReceived();
    return false;
  }

  bool readHead() {
    received_.consume(RequestReader::blankLines(received_.unread()));
    if (received_.empty()) return false;
    const ReadResult result = reader_.readHead(received_.unread());
    if (result == ReadResult::Partial) return waitForMore(core_.options().headTime);
    if (result != ReadResult::Complete) return refuse(result);
    const RequestHead& head = reader_.head();
    if (head.method == kOtherMethod) return refuse(OwnAnswer::NotImplemented);
    expectsContinue_ = head.expectsContinue;
    exchange_ = taker_.onHead(head);
    droppingBody_ = false;
    received_.consume(reader_.headLength());
    timed_ = false;
    stage_ = Stage::Body;
    return true;
  }

  bool readBody() {
    std::size_t used = 0;
    const ReadResult result = reader_.readBody(received_.unread(), used);
    received_.consume(used);
    if (result == ReadResult::Partial) return awaitBody(used == 0);
    if (result != ReadResult::Complete) return refuse(result);
    stage_ = Stage::Held;
    bodyShare_ = {};  // a body that has to wait is counted there
    if (droppingBody_) reader_.dropBody();
    taker_.onRequest(std::exchange(exchange_, nullptr), reader_.body());
    reader_.reset();  // not earlier: the module may answer and go on with the body
    return true;
  }

  bool awaitBody(bool nothingUsed) {
    // An endless chunk head or trailer.
    if (nothingUsed && received_.unread().size() >= roomForHead()) {
      return refuse(OwnAnswer::Malformed);
    }
    if (!bodyShare_.hasBudget()) bodyShare_ = core_.bodyShare(*exchange_);
    if (droppingBody_) reader_.dropBody();
    if (!bodyShare_.set(reader_.body().size()) && !dropBody()) return refuse(OwnAnswer::Overloaded);
    sendContinue();
    return waitForMore(core_.options().bodyTime);
  }

  // One who comes without credentials gets the challenge, which no body changes; so a client's
  // first request is not refused because strangers hold the room for bodies.
  bool dropBody() {
    if (!core_.isAnonymous(*exchange_)) return false;
    droppingBody_ = true;
    reader_.dropBody();
    bodyShare_.set(0);
    return true;
  }

  // The time for a head, or a body, runs in total from its first piece.
  bool waitForMore(std::chrono::milliseconds allowed) {
    if (!std::exchange(timed_, true)) client_.setDeadline(allowed);
    return false;
  }

  void sendContinue() {
    if (!std::exchange(expectsContinue_, false)) return;
    static constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
    ErrorCode ec;
    const std::size_t count = client_.stream().write_some(boost::asio::buffer(kContinue), ec);
    if (count != kContinue.size()) client_.end();  // nothing else is unsent: the peer is gone
  }

  bool refuse(ReadResult result) {
    return refuse(result == ReadResult::HeadTooLarge   ? OwnAnswer::HeadTooLarge
                  : result == ReadResult::BodyTooLarge ? OwnAnswer::BodyTooLarge
                                                       : OwnAnswer::Malformed);
  }
  bool refuse(OwnAnswer answer) {
    if (exchange_) std::exchange(exchange_, nullptr)->detach();
    stage_ = Stage::Held;
    reader_.reset();
    bodyShare_ = {};
    taker_.onRefused(answer);
    return false;
  }

  void dropReceived() {
    discarded_ += received_.unread().size();
    received_.consume(received_.unread().size());
    if (discarded_ > kDiscardedBytes) client_.end();
  }

  // Without a buffer. A read that is still under way tells the same.
  void waitForPeer() {
    if (reading_) return;
    received_.release();
    client_.stream().async_wait_unread(
        client_.guarded([this](const ErrorCode& ec) { onPeer(ec); }));
  }
  void onPeer(const ErrorCode& ec) {
    if (ec) return client_.end();
    char dropped[1024];  // a client has nothing to say on a stream
    ErrorCode readError;
    client_.stream().read_some(boost::asio::buffer(dropped), readError);
    const bool nothingThere =
        readError == boost::asio::error::would_block || readError == boost::asio::error::try_again;
    if (readError && !nothingThere) return client_.end();
    waitForPeer();
  }

  ClientStream<Stream>& client_;
  ServiceCore& core_;
  RequestTaker& taker_;
  Stage stage_ = Stage::Held;
  ReceiveBuffer received_;
  RequestReader reader_;
  ExchangePtr exchange_;  // of the body that is being read
  MemoryBudget::Share bodyShare_;
  std::chrono::seconds idleTime_{0};  // that the deadline of an idle connection was set for
  std::size_t discarded_ = 0;
  bool reading_ = false;
  bool advancing_ = false;
  bool timed_ = false;  // the deadline of the head or body is set
  bool peerDone_ = false;
  bool expectsContinue_ = false;
  bool droppingBody_ = false;
};

}  // namespace qn
