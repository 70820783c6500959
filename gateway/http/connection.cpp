// See connection.h.
#include "gateway/http/connection.h"

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/socket_base.hpp>
#include <exception>
#include <utility>

#include "platform/wlog.h"

namespace qn {
namespace asio = boost::asio;

namespace {

constexpr std::size_t kLingerBytes = 4 * 1024 * 1024;  // read and dropped after the last answer
constexpr int kStreamSendBuffer = 64 * 1024;           // what a stalled reader holds in the kernel
constexpr std::size_t kScratchKept = 256 * 1024;

// The message being made on this thread; a connection owns only what could not be sent at once.
std::string& scratch() {
  thread_local std::string buffer;
  if (buffer.capacity() > kScratchKept) std::string().swap(buffer);
  buffer.clear();
  return buffer;
}

bool wouldBlock(const boost::system::error_code& ec) {
  return ec == asio::error::would_block || ec == asio::error::try_again;
}

}  // namespace

template <class Stream>
Connection<Stream>::Connection(std::shared_ptr<ServiceCore> core, std::size_t reactor,
                               Stream stream, const asio::ip::address& peer, Access access)
    : core_(std::move(core)),
      reactor_(reactor),
      peer_(peer),
      access_(access),
      trusted_(core_->trusts(peer)),
      peerText_(peer.to_string()),
      stream_(std::move(stream)),
      timer_(stream_.get_executor()),
      reader_(core_->options.headBytes, core_->options.bodyBytes),
      bodyShare_(core_->bodies),
      answerShare_(core_->unsentAnswers) {}

template <class Stream>
Connection<Stream>::~Connection() {
  (access_ == Access::Nothing ? core_->refusals : core_->admission).leave(peer_);
}

template <class Stream>
bool Connection<Stream>::onOwnThread() const {
  return core_->reactors.context(reactor_).get_executor().running_in_this_thread();
}

template <class Stream>
template <class Function>
void Connection<Stream>::run(Function function) {
  try {
    function();
  } catch (const std::exception& e) {
    wlog_format(WLOG_ERROR, "http", "connection of %s: %s", peerText_.c_str(), e.what());
    close();
  }
}

template <class Stream>
template <class Function>
void Connection<Stream>::post(Function function) {
  asio::post(stream_.get_executor(),
             [self = this->shared_from_this(), function = std::move(function)]() mutable {
               self->run([&] { function(*self); });
             });
}

template <class Stream>
void Connection<Stream>::start() {
  run([this] {
    core_->open[reactor_].insert(this);
    if (core_->stopping) return close();
    ErrorCode ec;
    stream_.lowest_layer().non_blocking(true, ec);
    if (!ec) stream_.lowest_layer().set_option(asio::ip::tcp::no_delay(true), ec);
    if (ec) return close();  // the peer has gone already
    if (access_ == Access::Nothing) return refuse(OwnAnswer::Overloaded);
    setDeadline(core_->options.idleTime);
    startRead();
  });
}

template <class Stream>
void Connection<Stream>::close() {
  if (phase_ == Phase::Closed) return;
  endRequest();
  phase_ = Phase::Closed;
  bodyShare_.set(0);
  answerShare_.set(0);
  core_->open[reactor_].erase(this);
  if (exchange_) std::exchange(exchange_, nullptr)->detach();
  timer_.cancel();
  ErrorCode ignored;
  stream_.lowest_layer().close(ignored);
}

template <class Stream>
void Connection<Stream>::setDeadline(Clock::duration fromNow) {
  deadline_ = Clock::now() + fromNow;
  if (deadline_ < timerExpiry_) armTimer();
}

template <class Stream>
void Connection<Stream>::armTimer() {
  timerExpiry_ = deadline_;
  timer_.expires_at(deadline_);
  timer_.async_wait([self = this->shared_from_this()](const ErrorCode& ec) {
    if (ec != asio::error::operation_aborted) self->run([&] { self->onTimer(); });
  });
}

template <class Stream>
void Connection<Stream>::onTimer() {
  if (phase_ == Phase::Closed) return;
  timerExpiry_ = Clock::time_point::max();
  if (Clock::now() >= deadline_) expire();
  if (phase_ != Phase::Closed && timerExpiry_ == Clock::time_point::max()) armTimer();
}

template <class Stream>
void Connection<Stream>::expire() {
  switch (phase_) {
    case Phase::Head:
      return timed_ ? refuse(OwnAnswer::RequestTimeout) : close();
    case Phase::Body:
      return refuse(OwnAnswer::RequestTimeout);
    case Phase::Busy: {
      const ExchangePtr late = exchange_;
      if (late->finish(OwnAnswer::GatewayTimeout)) return;
      if (std::exchange(timed_, true)) return close();
      return setDeadline(core_->bounds.stalled);  // another thread's answer is on its way here
    }
    default:
      return close();
  }
}

// One read is always under way, as long as there is room; that costs nothing and shows when the
// peer goes away.
template <class Stream>
void Connection<Stream>::startRead() {
  if (reading_ || peerDone_ || phase_ == Phase::Closed || phase_ == Phase::Pushing) return;
  constexpr std::size_t kFirst = ReceiveBuffer::kFirst;
  const std::size_t limit = std::max(core_->options.headBytes, kFirst);
  const auto room = received_.prepare(phase_ == Phase::Body ? limit : kFirst,
                                      phase_ == Phase::Busy ? kFirst : limit);
  if (room.empty()) return;  // the client waits until its requests are answered
  reading_ = true;
  stream_.async_read_some(
      asio::buffer(room.data(), room.size()),
      [self = this->shared_from_this()](const ErrorCode& ec, std::size_t count) {
        self->run([&] { self->onRead(ec, count); });
      });
}

template <class Stream>
void Connection<Stream>::onRead(const ErrorCode& ec, std::size_t count) {
  reading_ = false;
  if (phase_ == Phase::Closed) return;
  if (phase_ == Phase::Pushing) return ec ? close() : waitForPeer();
  received_.commit(count);
  if (ec) {
    // A client may end its side and still wait for the answer.
    const bool owed = phase_ == Phase::Busy || phase_ == Phase::Writing;
    if (ec != asio::error::eof || !owed) return close();
    peerDone_ = true;
    return;
  }
  advance();
}

// A loop, so that many requests in one packet do not nest.
template <class Stream>
void Connection<Stream>::advance() {
  if (advancing_) return;
  advancing_ = true;
  while (step()) {
  }
  advancing_ = false;
  if (phase_ == Phase::Pushing) return waitForPeer();
  // What is still missing will never come.
  if (peerDone_ && (phase_ == Phase::Head || phase_ == Phase::Body)) return close();
  startRead();
}

// True when the next step can be tried.
template <class Stream>
bool Connection<Stream>::step() {
  if (phase_ == Phase::Head) return readHead();
  if (phase_ == Phase::Body) return readBody();
  return phase_ == Phase::Linger && discard();
}

template <class Stream>
bool Connection<Stream>::readHead() {
  received_.consume(RequestReader::blankLines(received_.unread()));
  if (received_.empty()) return false;
  const ReadResult result = reader_.readHead(received_.unread());
  if (result == ReadResult::Partial) return onPartial(core_->options.headTime);
  if (result != ReadResult::Complete) return refuse(result);
  const RequestHead& head = reader_.head();
  if (head.method == kOtherMethod) {
    refuse(OwnAnswer::NotImplemented);
    return false;
  }
  expectsContinue_ = head.expectsContinue;
  exchange_ =
      ExchangeState::create(head, trusted_ ? core_->clientAddress(peer_, head.fields) : peerText_,
                            this->weak_from_this());
  received_.consume(reader_.headLength());
  timed_ = false;
  phase_ = Phase::Body;
  return true;
}

template <class Stream>
bool Connection<Stream>::readBody() {
  std::size_t used = 0;
  const ReadResult result = reader_.readBody(received_.unread(), used);
  received_.consume(used);
  if (result == ReadResult::Partial) {
    const bool stuck = used == 0 && received_.unread().size() >=
                                        std::max(core_->options.headBytes, ReceiveBuffer::kFirst);
    if (stuck) return refuse(ReadResult::Malformed);  // an endless chunk head or trailer
    if (!bodyShare_.set(reader_.body().size())) {
      refuse(OwnAnswer::Overloaded);
      return false;
    }
    sendContinue();
    return onPartial(core_->options.bodyTime);
  }
  if (result != ReadResult::Complete) return refuse(result);
  dispatch();
  return true;
}

// The time for a head, or a body, runs in total from its first piece.
template <class Stream>
bool Connection<Stream>::onPartial(Clock::duration allowed) {
  if (!std::exchange(timed_, true)) setDeadline(allowed);
  return false;
}

template <class Stream>
void Connection<Stream>::sendContinue() {
  if (!std::exchange(expectsContinue_, false)) return;
  static constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
  ErrorCode ec;
  const std::size_t count = stream_.write_some(asio::buffer(kContinue), ec);
  if (count != kContinue.size()) close();  // nothing else is unsent, so the peer is gone
}

template <class Stream>
void Connection<Stream>::dispatch() {
  phase_ = Phase::Busy;
  const ExchangePtr exchange = exchange_;
  timed_ = false;
  bodyShare_.set(0);  // a body that has to wait is counted there
  counted_ = core_->enterRequest();
  if (counted_) {
    setDeadline(core_->bounds.answer);
    core_->handOver(exchange, access_, reader_.body());
  } else {
    exchange->finish(OwnAnswer::Overloaded);
  }
  reader_.reset();  // not earlier: the module may answer and go on with the body
}

template <class Stream>
bool Connection<Stream>::refuse(ReadResult result) {
  refuse(result == ReadResult::HeadTooLarge   ? OwnAnswer::HeadTooLarge
         : result == ReadResult::BodyTooLarge ? OwnAnswer::BodyTooLarge
                                              : OwnAnswer::Malformed);
  return false;
}

// Where the next request would start is not known any more, so the connection ends.
template <class Stream>
void Connection<Stream>::refuse(OwnAnswer answer) {
  if (exchange_) std::exchange(exchange_, nullptr)->detach();
  reader_.reset();
  bodyShare_.set(0);
  closeAfter_ = true;
  send(ownMessage(answer));
}

template <class Stream>
bool Connection<Stream>::discard() {
  discarded_ += received_.unread().size();
  received_.consume(received_.unread().size());
  if (discarded_ > kLingerBytes) close();
  return false;
}

template <class Stream>
Ending Connection<Stream>::endingOf(const ExchangeState& exchange) const {
  return exchange.keepAlive() && !core_->stopping ? Ending::KeepAlive : Ending::Close;
}

template <class Stream>
void Connection<Stream>::deliver(const ExchangePtr& exchange, std::string_view body) {
  const Ending ending = endingOf(*exchange);
  if (onOwnThread()) {
    std::string& message = scratch();
    exchange->appendMessage(message, body, ending);
    writeAnswer(exchange, message, ending);
    return;
  }
  std::string message;
  exchange->appendMessage(message, body, ending);
  post([exchange, ending, message = std::move(message)](Connection& self) {
    self.writeAnswer(exchange, message, ending);
  });
}

template <class Stream>
void Connection<Stream>::writeAnswer(const ExchangePtr& exchange, std::string_view message,
                                     Ending ending) {
  if (phase_ != Phase::Busy || exchange_ != exchange) return;
  endRequest();
  exchange_.reset();
  closeAfter_ = ending == Ending::Close;
  send(message);
}

template <class Stream>
void Connection<Stream>::endRequest() {
  if (std::exchange(counted_, false)) core_->leaveRequest();
}

// Mostly all goes out in this one write.
template <class Stream>
void Connection<Stream>::send(std::string_view bytes) {
  phase_ = Phase::Writing;
  ErrorCode ec;
  std::size_t count = stream_.write_some(asio::buffer(bytes.data(), bytes.size()), ec);
  if (ec && !wouldBlock(ec)) return close();
  if (ec) count = 0;
  if (count == bytes.size()) return onSent();
  if (!answerShare_.set(bytes.size() - count)) return close();
  out_.assign(bytes.substr(count));
  written_ = 0;
  setDeadline(core_->bounds.stalled);
  writeRest();
}

template <class Stream>
void Connection<Stream>::writeRest() {
  writing_ = true;
  stream_.async_write_some(
      asio::buffer(out_.data() + written_, out_.size() - written_),
      [self = this->shared_from_this()](const ErrorCode& ec, std::size_t count) {
        self->run([&] { self->onWritten(ec, count); });
      });
}

template <class Stream>
void Connection<Stream>::onWritten(const ErrorCode& ec, std::size_t count) {
  writing_ = false;
  if (phase_ == Phase::Closed) return;
  if (ec) return close();
  written_ += count;
  if (written_ < out_.size()) {
    setDeadline(core_->bounds.stalled);
    return writeRest();
  }
  if (phase_ == Phase::Pushing) {
    onPartsSent();
    return flushStream();
  }
  std::string().swap(out_);
  answerShare_.set(0);
  onSent();
}

template <class Stream>
void Connection<Stream>::onSent() {
  if (closeAfter_ || (peerDone_ && received_.empty())) return linger();
  phase_ = Phase::Head;
  timed_ = false;
  setDeadline(core_->options.idleTime);
  if (advancing_) return;  // the loop goes on
  if (received_.empty()) return startRead();
  post([](Connection& self) { self.advance(); });  // not inside the caller that answered
}

// Closing with unread bytes would reset the connection and could take the answer from the client.
template <class Stream>
void Connection<Stream>::linger() {
  phase_ = Phase::Linger;
  ErrorCode ec;
  stream_.lowest_layer().shutdown(asio::socket_base::shutdown_send, ec);
  if (ec || peerDone_) return close();
  setDeadline(core_->bounds.linger);
  discard();
  if (!advancing_) startRead();
}

template <class Stream>
void Connection<Stream>::openStream(const ExchangePtr& exchange) {
  if (onOwnThread()) return beginStream(exchange);
  post([exchange](Connection& self) { self.beginStream(exchange); });
}

template <class Stream>
void Connection<Stream>::wakeStream() {
  core_->senders[reactor_]->add(this->weak_from_this());
}

template <class Stream>
void Connection<Stream>::sendParts() {
  run([this] { flushStream(); });
}

template <class Stream>
void Connection<Stream>::beginStream(const ExchangePtr& exchange) {
  if (phase_ != Phase::Busy || exchange_ != exchange) return exchange->detach();
  endRequest();
  phase_ = Phase::Pushing;
  boundUnsent();
  exchange->appendStreamHead(out_);
  written_ = 0;
  setDeadline(core_->bounds.stalled);
  writeRest();
  if (!advancing_) waitForPeer();
}

// What a peer does not take may fill only a little of the kernel, and a peer that vanished without
// a word is noticed although its parts still fit there.
template <class Stream>
void Connection<Stream>::boundUnsent() {
  ErrorCode ignored;
  auto& socket = stream_.lowest_layer();
  socket.set_option(asio::socket_base::send_buffer_size(kStreamSendBuffer), ignored);
  const auto stalled = static_cast<unsigned int>(core_->bounds.stalled.count());
  ::setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_USER_TIMEOUT, &stalled, sizeof stalled);
}

// Without a buffer: a stream only wants to know when the peer goes away. A read that is still under
// way tells the same.
template <class Stream>
void Connection<Stream>::waitForPeer() {
  if (reading_) return;
  received_.release();
  stream_.lowest_layer().async_wait(asio::socket_base::wait_read,
                                    [self = this->shared_from_this()](const ErrorCode& ec) {
                                      self->run([&] { self->onPeer(ec); });
                                    });
}

template <class Stream>
void Connection<Stream>::onPeer(const ErrorCode& ec) {
  if (phase_ == Phase::Closed) return;
  if (ec) return close();
  char dropped[1024];  // a client has nothing to say on a stream
  ErrorCode readError;
  stream_.read_some(asio::buffer(dropped), readError);
  if (readError && !wouldBlock(readError)) return close();
  waitForPeer();
}

template <class Stream>
void Connection<Stream>::flushStream() {
  if (phase_ != Phase::Pushing || writing_ || !exchange_->takeParts(out_)) return;
  written_ = 0;
  ErrorCode ec;
  const std::size_t count = stream_.write_some(asio::buffer(out_), ec);
  if (ec && !wouldBlock(ec)) return close();
  if (!ec) written_ = count;
  if (written_ == out_.size()) return onPartsSent();
  setDeadline(core_->bounds.stalled);
  writeRest();
}

template <class Stream>
void Connection<Stream>::onPartsSent() {
  std::string().swap(out_);
  exchange_->partsSent();
  setDeadline(core_->bounds.silent);
}

template class Connection<TcpStream>;

}  // namespace qn
