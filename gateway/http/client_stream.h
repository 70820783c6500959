// What reading requests, answering them and pushing parts share of a client's connection: the
// stream, one deadline, handlers that keep the connection alive. Base of ClientConnection.
#pragma once

#include <algorithm>
#include <array>
#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <chrono>
#include <cstddef>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "gateway/http/bounds.h"
#include "gateway/log/log.h"
#include "gateway/metrics/counts.h"
#include "gateway/net/reply_in_hand.h"

namespace qn {

// Asio's socket, with what a client's connection asks of it by the names that TlsStream has.
class TcpStream : public boost::asio::basic_stream_socket<boost::asio::ip::tcp,
                                                          boost::asio::io_context::executor_type> {
 public:
  TcpStream(basic_stream_socket socket) : basic_stream_socket(std::move(socket)) {}

  void endSending(boost::system::error_code& ec) { shutdown(shutdown_send, ec); }
  void close() {
    boost::system::error_code ignored;
    basic_stream_socket::close(ignored);
  }
  template <class Handler>
  void async_wait_unread(Handler handler) {  // NOLINT(readability-identifier-naming): as Asio's
    async_wait(wait_read, std::move(handler));
  }
};

// Everything happens on the reactor that the stream belongs to. Stream is what TcpStream is:
// non-blocking write_some, async_read_some, async_write_some, get_executor, lowest_layer.
template <class Stream>
class ClientStream : public std::enable_shared_from_this<ClientStream<Stream>> {
 public:
  using Clock = std::chrono::steady_clock;
  using ErrorCode = boost::system::error_code;

  ClientStream(Stream stream, std::string peer)
      : stream_(std::move(stream)), timer_(stream_.get_executor()), peer_(std::move(peer)) {}
  virtual ~ClientStream() = default;
  ClientStream(const ClientStream&) = delete;
  ClientStream& operator=(const ClientStream&) = delete;

  Stream& stream() { return stream_; }
  const std::string& peer() const { return peer_; }
  bool isOpen() const { return open_; }

  // Harmless when repeated.
  void end() {
    if (!std::exchange(open_, false)) return;
    onEnd();
    timer_.cancel();
    stream_.close();
  }

  // No exception leaves a handler; one ends the connection.
  template <class Function>
  void run(Function function) {
    try {
      function();
    } catch (const std::exception& e) {
      logError("http: connection of {}: {}", peer_, e.what());
      end();
    }
  }
  // The handler of an operation: keeps the connection, and is not called once that has ended.
  template <class Handler>
  auto guarded(Handler handler) {
    return
        [self = this->shared_from_this(), handler = std::move(handler)](auto... results) mutable {
          if (self->open_) self->run([&] { handler(results...); });
        };
  }
  template <class Function>
  void post(Function function) {
    boost::asio::post(stream_.get_executor(), guarded(std::move(function)));
  }

  Clock::time_point deadline() const { return deadline_; }
  // In place of the deadline that was set before.
  void setDeadline(Clock::duration fromNow, Clock::time_point now = Clock::now()) {
    deadline_ = now + fromNow;
    if (deadline_ < timerExpiry_) armTimer();
  }

 protected:
  virtual void onEnd() = 0;
  virtual void onDeadline() = 0;

 private:
  using Timer = boost::asio::basic_waitable_timer<Clock, boost::asio::wait_traits<Clock>,
                                                  boost::asio::io_context::executor_type>;

  // Armed again only when it expires or must expire earlier: deadlines move with every request.
  void armTimer() {
    timerExpiry_ = deadline_;
    timer_.expires_at(deadline_);
    timer_.async_wait(guarded([this](const ErrorCode& ec) {
      if (ec != boost::asio::error::operation_aborted) onTimer();
    }));
  }
  void onTimer() {
    timerExpiry_ = Clock::time_point::max();
    if (Clock::now() >= deadline_) onDeadline();
    if (open_ && timerExpiry_ == Clock::time_point::max()) armTimer();
  }

  Stream stream_;
  Timer timer_;
  const std::string peer_;
  Clock::time_point deadline_;
  Clock::time_point timerExpiry_ = Clock::time_point::max();
  bool open_ = true;
};

// What a write left over: bytes of its own, and behind them some of a text that it shares.
class LeftOver {
 public:
  LeftOver() = default;
  explicit LeftOver(std::string own, SharedBytes keeper = nullptr, std::string_view shared = {})
      : own_(std::move(own)), keeper_(std::move(keeper)), shared_(shared) {}

  std::size_t size() const { return own_.size() - written_ + shared_.size(); }
  bool empty() const { return size() == 0; }
  std::array<boost::asio::const_buffer, 2> buffers() const {
    return {boost::asio::buffer(own_) + written_,
            boost::asio::buffer(shared_.data(), shared_.size())};
  }
  void consume(std::size_t count) {
    const std::size_t ofOwn = std::min(count, own_.size() - written_);
    written_ += ofOwn;
    shared_.remove_prefix(count - ofOwn);
  }

 private:
  std::string own_;
  std::size_t written_ = 0;
  SharedBytes keeper_;
  std::string_view shared_;
};

// What a write left over, until the peer has taken it.
template <class Stream>
class UnsentBytes {
 public:
  UnsentBytes(ClientStream<Stream>& client, const HttpBounds& bounds, Sharded<HttpCounts>& counts)
      : client_(client), bounds_(bounds), counts_(counts) {}

  bool empty() const { return bytes_.empty(); }

  // Writes what the peer takes at once: the number of bytes, nothing when the connection has ended.
  template <class Buffers>
  std::optional<std::size_t> begin(const Buffers& buffers) {
    typename ClientStream<Stream>::ErrorCode ec;
    const std::size_t count = client_.stream().write_some(buffers, ec);
    counts_.here().sent.add(count);
    if (!ec) return count;
    if (ec == boost::asio::error::would_block || ec == boost::asio::error::try_again) return 0;
    client_.end();
    return std::nullopt;
  }
  // Writes the bytes and then calls onSent(); only when empty(). The deadline of the connection
  // becomes that of a peer that takes nothing, or too little.
  template <class Handler>
  void finish(LeftOver bytes, Handler onSent) {
    bytes_ = std::move(bytes);
    const auto slowest = std::chrono::seconds(bytes_.size() / bounds_.slowestRate);
    end_ = Clock::now() + bounds_.stalled + slowest;
    writeOn(onSent);
  }

 private:
  using Clock = std::chrono::steady_clock;

  template <class Handler>
  void writeOn(Handler onSent) {
    client_.setDeadline(std::min<Clock::duration>(bounds_.stalled, end_ - Clock::now()));
    client_.stream().async_write_some(
        bytes_.buffers(), client_.guarded([this, onSent](const auto& ec, std::size_t count) {
          if (ec) return client_.end();
          counts_.here().sent.add(count);
          bytes_.consume(count);
          if (!bytes_.empty()) return writeOn(onSent);
          bytes_ = {};
          onSent();
        }));
  }

  ClientStream<Stream>& client_;
  const HttpBounds& bounds_;
  Sharded<HttpCounts>& counts_;
  LeftOver bytes_;
  Clock::time_point end_;  // by then a peer that takes them fast enough has all
};

}  // namespace qn
