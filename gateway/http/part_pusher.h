// The pushing side of a client's connection that became a stream: its head, then parts as they are
// queued. Part of ClientConnection; and what wakes the streams of a reactor.
#pragma once

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/socket_base.hpp>
#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "gateway/http/answer_sender.h"
#include "gateway/http/client_stream.h"
#include "gateway/http/exchange.h"
#include "gateway/http/service_core.h"
#include "gateway/sync/mutex.h"

namespace qn {

// Tells whether something comes again and again at intervals of less than a millisecond.
class Storm {
 public:
  using Clock = std::chrono::steady_clock;

  // It comes now.
  bool rages() {
    const auto now = Clock::now();
    const bool isClose = now - std::exchange(last_, now) < kGap;
    return std::exchange(wasClose_, isClose) && isClose;
  }

 private:
  static constexpr std::chrono::milliseconds kGap{1};

  Clock::time_point last_;
  bool wasClose_ = false;
};

template <class Stream>
class PartPusher {
 public:
  // What sends the connection's answers sends its parts, too; it outlives the pusher.
  PartPusher(AnswerSender<Stream>& sender, ServiceCore& core) : sender_(sender), core_(core) {}

  void begin(const ExchangePtr& exchange) {
    exchange_ = exchange;
    listed_ = core_.streams.add(exchange->clientAddress(), exchange->login());
    core_.counts.here().streamsOpened.add();
    boundUnsent();
    std::string head;
    exchange_->appendStreamHead(head);
    finish(LeftOver(std::move(head)));
  }
  // Sends all parts that are queued, unless some are still on their way. False when it is to be
  // asked again later.
  bool push(Sending when) {
    if (!exchange_ || !sender_.unsent().empty()) return true;
    if (when == Sending::NowOrLater && storm_.rages()) return false;
    send();
    return true;
  }
  // Null while the connection is no stream.
  const ExchangePtr& exchange() const { return exchange_; }
  bool isAllowed() const { return !exchange_ || exchange_->isStillAllowed(); }
  // The connection has ended.
  void end() {
    if (!exchange_) return;
    HttpCounts& counts = core_.counts.here();
    counts.partsDropped.add(std::exchange(exchange_, nullptr)->detach());
    counts.streamsClosed.add();
    core_.streams.remove(listed_);
  }

 private:
  static constexpr int kSendBuffer = 64 * 1024;  // what a stalled reader holds in the kernel

  // What a peer does not take may fill only a little of the kernel, and a peer that vanished
  // without a word is noticed although its parts still fit there.
  void boundUnsent() {
    boost::system::error_code ignored;
    auto& socket = sender_.client().stream().lowest_layer();
    socket.set_option(boost::asio::socket_base::send_buffer_size(kSendBuffer), ignored);
    const auto stalled = static_cast<unsigned int>(core_.bounds.stalled.count());
    ::setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_USER_TIMEOUT, &stalled, sizeof stalled);
  }
  void send() {
    std::string parts;
    if (!exchange_->takeParts(parts)) return;
    const auto count = sender_.unsent().begin(boost::asio::buffer(parts));
    if (!count) return;
    if (*count == parts.size()) return onPartsSent();
    LeftOver rest(std::move(parts));
    rest.consume(*count);
    finish(std::move(rest));
  }
  void finish(LeftOver bytes) {
    sender_.unsent().finish(std::move(bytes), [this] {
      onPartsSent();
      send();
    });
  }
  void onPartsSent() {
    const std::size_t count = exchange_->partsSent();
    core_.counts.here().partsSent.add(count);
    listed_->partsSent.add(count);
    sender_.client().setDeadline(core_.bounds.silent);
  }

  AnswerSender<Stream>& sender_;
  ServiceCore& core_;
  ExchangePtr exchange_;  // null while the connection is no stream
  StreamList::Entry listed_;
  Storm storm_;
};

// Has the streams of one reactor push what their queues hold, with one wake-up for all of them: at
// once, but those in a storm once in a while. One for each reactor, held by the service's core.
class StreamSender : public std::enable_shared_from_this<StreamSender> {
 public:
  explicit StreamSender(boost::asio::io_context& reactor) : reactor_(reactor), timer_(reactor) {}

  // Has the stream send soon; any thread.
  void add(std::weak_ptr<AnswerLink> stream);

 private:
  using Clock = std::chrono::steady_clock;
  using Timer = boost::asio::basic_waitable_timer<Clock, boost::asio::wait_traits<Clock>,
                                                  boost::asio::io_context::executor_type>;
  using Streams = std::vector<std::weak_ptr<AnswerLink>>;

  static constexpr std::chrono::milliseconds kGatherTime{1};

  void send();
  void sendStorms();

  boost::asio::io_context& reactor_;
  Timer timer_;
  Streams sending_;
  Streams storms_;  // these send when the timer says so

  Mutex mutex_;
  Streams waiting_ QN_GUARDED_BY(mutex_);  // send() will run when there are any
};

}  // namespace qn
