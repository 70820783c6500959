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

#include "gateway/http/client_stream.h"
#include "gateway/http/exchange.h"
#include "gateway/http/service_core.h"
#include "gateway/sync/mutex.h"

namespace qn {

template <class Stream>
class PartPusher {
 public:
  PartPusher(ClientStream<Stream>& client, ServiceCore& core)
      : client_(client), core_(core), unsent_(client, core.bounds, core.counts) {}

  void begin(const ExchangePtr& exchange) {
    exchange_ = exchange;
    listed_ = core_.streams.add(exchange->clientAddress(), exchange->login());
    core_.counts.here().streamsOpened.add();
    boundUnsent();
    std::string head;
    exchange_->appendStreamHead(head);
    finish(LeftOver(std::move(head)));
  }
  // Sends all parts that are queued, unless some are still on their way.
  void push() {
    std::string parts;
    if (!exchange_ || !unsent_.empty() || !exchange_->takeParts(parts)) return;
    const auto count = unsent_.begin(boost::asio::buffer(parts));
    if (!count) return;
    if (*count == parts.size()) return onPartsSent();
    LeftOver rest(std::move(parts));
    rest.consume(*count);
    finish(std::move(rest));
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
    auto& socket = client_.stream().lowest_layer();
    socket.set_option(boost::asio::socket_base::send_buffer_size(kSendBuffer), ignored);
    const auto stalled = static_cast<unsigned int>(core_.bounds.stalled.count());
    ::setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_USER_TIMEOUT, &stalled, sizeof stalled);
  }
  void finish(LeftOver bytes) {
    unsent_.finish(std::move(bytes), [this] {
      onPartsSent();
      push();
    });
  }
  void onPartsSent() {
    const std::size_t count = exchange_->partsSent();
    core_.counts.here().partsSent.add(count);
    listed_->partsSent.add(count);
    client_.setDeadline(core_.bounds.silent);
  }

  ClientStream<Stream>& client_;
  ServiceCore& core_;
  UnsentBytes<Stream> unsent_;
  ExchangePtr exchange_;  // null while the connection is no stream
  StreamList::Entry listed_;
};

// Has the streams of one reactor push what their queues hold: at once after a pause, once in a
// while when parts keep coming, so that one wake-up and one write carry many. One for each reactor,
// held by the service's core.
class StreamSender : public std::enable_shared_from_this<StreamSender> {
 public:
  explicit StreamSender(boost::asio::io_context& reactor) : reactor_(reactor), timer_(reactor) {}

  // Has the stream send soon; any thread.
  void add(std::weak_ptr<AnswerLink> stream);

 private:
  using Clock = std::chrono::steady_clock;
  using Timer = boost::asio::basic_waitable_timer<Clock, boost::asio::wait_traits<Clock>,
                                                  boost::asio::io_context::executor_type>;

  static constexpr std::chrono::milliseconds kGatherTime{1};

  void send();
  bool takeWaiting();

  boost::asio::io_context& reactor_;
  Timer timer_;
  Clock::time_point lastSent_;
  std::vector<std::weak_ptr<AnswerLink>> sending_;

  Mutex mutex_;
  std::vector<std::weak_ptr<AnswerLink>> waiting_ QN_GUARDED_BY(mutex_);
  bool coming_ QN_GUARDED_BY(mutex_) = false;  // send() will run
};

}  // namespace qn
