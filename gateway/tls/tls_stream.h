// A stream of TLS over a non-blocking socket, for both sides: what ClientConnection and the
// connections to devices do with a socket they do with this in its place.
#pragma once

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/socket_base.hpp>
#include <cstddef>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "gateway/tls/tls_session.h"

namespace qn {

// `Socket` is one of Asio's for TCP, connected and non-blocking before the handshake begins.
// Everything happens on the socket's thread. One read and one write may be under way at a time; the
// stream is not moved meanwhile, and their handlers, which are called later and never inside of the
// call, keep it alive. Closing the socket ends them. Times are the caller's to bound.
template <class Socket>
class TlsStream {
 public:
  using ErrorCode = boost::system::error_code;
  // NOLINTBEGIN(readability-identifier-naming): Asio's names
  using executor_type = typename Socket::executor_type;
  using lowest_layer_type = Socket;

  TlsStream(Socket socket, TlsRole role) : socket_(std::move(socket)), role_(role) {}

  executor_type get_executor() { return socket_.get_executor(); }
  Socket& lowest_layer() { return socket_; }
  const Socket& lowest_layer() const { return socket_; }
  // OpenSSL's: null before the handshake has taken memory; a client's after makeSession().
  SSL* ssl() const { return session_ ? session_->ssl() : nullptr; }

  // A client sets what its handshake needs (server's name, session, verification) on ssl() then.
  // Throws std::bad_alloc.
  void makeSession(SSL_CTX& context) { session_.emplace(context, role_, socket_.native_handle()); }
  // handler(error). Its session is there.
  template <class Handler>
  void async_handshake(Handler handler) {
    perform(
        Wait::None, [this] { return session_->handshake(); },
        [handler = std::move(handler)](const ErrorCode& ec, std::size_t) mutable { handler(ec); });
  }
  // Of a server: handler(error) when the client's first message has arrived, so that a session is
  // worth its memory.
  template <class Handler>
  void async_await_handshake(Handler handler) {
    socket_.async_wait(Socket::wait_read,
                       [this, handler = std::move(handler)](ErrorCode ec) mutable {
                         if (!ec && !socket_.is_open()) ec = boost::asio::error::operation_aborted;
                         const bool arrived = !ec && hello_.hasArrived(socket_.native_handle(), ec);
                         if (arrived || ec) return handler(ec);
                         async_await_handshake(std::move(handler));
                       });
  }

  // What can be had, or be sent, at once; error would_block when that is nothing.
  template <class Buffer>
  std::size_t read_some(const Buffer& buffer, ErrorCode& ec) {
    return immediate(session_->read(roomOf(buffer)), ec);
  }
  // Small buffers that follow each other become one record.
  template <class Buffers>
  std::size_t write_some(const Buffers& buffers, ErrorCode& ec) {
    std::size_t sent = 0;
    ec.clear();
    for (auto record = nextRecord(buffers, 0); !ec && !record.empty();
         record = nextRecord(buffers, sent)) {
      sent += immediate(session_->write(record), ec);
    }
    if (sent > 0) ec.clear();  // comes again with the next
    return sent;
  }

  // handler(error, count). An empty error with a count; eof when the peer has ended its side as it
  // should, TlsFault::Truncated when it has not said so.
  template <class Buffer, class Handler>
  void async_read_some(const Buffer& buffer, Handler handler) {
    perform(
        session_->hasUnread() ? Wait::None : Wait::Readable,
        [this, room = roomOf(buffer)] { return session_->read(room); }, std::move(handler));
  }
  template <class Buffers, class Handler>
  void async_write_some(const Buffers& buffers, Handler handler) {
    perform(
        Wait::None, [this, buffers] { return session_->write(nextRecord(buffers, 0)); },
        std::move(handler));
  }
  // handler(error) when read_some() has something to do; holds no buffer meanwhile.
  template <class Handler>
  void async_wait_unread(Handler handler) {
    if (!session_->hasUnread()) return socket_.async_wait(Socket::wait_read, std::move(handler));
    boost::asio::post(get_executor(),
                      [handler = std::move(handler)]() mutable { handler(ErrorCode()); });
  }

  // NOLINTEND(readability-identifier-naming)

  // Tells the peer that nothing more is sent.
  void endSending(ErrorCode& ec) {
    if (session_) session_->endSending();
    socket_.shutdown(Socket::shutdown_send, ec);
  }
  // The peer learns that it was meant, where that takes no waiting. Harmless when repeated.
  void close() {
    if (session_ && socket_.is_open()) session_->endSending();
    ErrorCode ignored;
    socket_.lowest_layer().close(ignored);
  }

 private:
  using Wait = TlsResult::Wait;

  template <class Buffer>
  static std::span<char> roomOf(const Buffer& buffer) {
    const boost::asio::mutable_buffer room = *boost::asio::buffer_sequence_begin(buffer);
    return {static_cast<char*>(room.data()), room.size()};
  }

  // The bytes that the next record takes of the buffers, from `sent` on: as they stand, or copied
  // together for this thread's next use.
  template <class Buffers>
  static std::string_view nextRecord(const Buffers& buffers, std::size_t sent) {
    // Not in place, where it would be a part of every thread's stack.
    thread_local const std::unique_ptr<char[]> together(
        new (std::nothrow) char[TlsSession::kRecord]);
    std::string_view record;
    const auto end = boost::asio::buffer_sequence_end(buffers);
    for (auto each = boost::asio::buffer_sequence_begin(buffers); each != end; ++each) {
      const boost::asio::const_buffer unsent = boost::asio::const_buffer(*each) + sent;
      sent -= std::min(sent, boost::asio::const_buffer(*each).size());
      const std::size_t room = TlsSession::kRecord - record.size();
      const std::string_view bytes(static_cast<const char*>(unsent.data()),
                                   std::min(unsent.size(), room));
      if (bytes.empty()) continue;
      if (record.empty()) {
        record = bytes;
      } else if (together) {
        if (record.data() != together.get()) std::ranges::copy(record, together.get());
        std::ranges::copy(bytes, together.get() + record.size());
        record = {together.get(), record.size() + bytes.size()};
      }
    }
    return record;
  }

  std::size_t immediate(const TlsResult& result, ErrorCode& ec) const {
    ec = result.wait == Wait::None ? result.error : ErrorCode(boost::asio::error::would_block);
    return result.count;
  }

  // Makes attempts, and waits for the socket before and between them, until one is done.
  template <class Attempt, class Handler>
  void perform(Wait wait, Attempt attempt, Handler handler) {
    auto step = [this, attempt = std::move(attempt),
                 handler = std::move(handler)](ErrorCode ec = {}) mutable {
      if (!ec && !socket_.is_open()) ec = boost::asio::error::operation_aborted;
      if (ec) return handler(ec, std::size_t{0});
      const TlsResult result = attempt();
      if (result.wait == Wait::None) return handler(result.error, result.count);
      const bool again = result.wait == Wait::Readable && session_->hasUnread();
      perform(again ? Wait::None : result.wait, std::move(attempt), std::move(handler));
    };
    switch (wait) {
      case Wait::None:
        return boost::asio::post(get_executor(), std::move(step));
      case Wait::Readable:
        return socket_.async_wait(Socket::wait_read, std::move(step));
      case Wait::Writable:
        return socket_.async_wait(Socket::wait_write, std::move(step));
    }
  }

  Socket socket_;
  const TlsRole role_;
  ClientHelloWatch hello_;
  std::optional<TlsSession> session_;  // since the handshake has begun
};

}  // namespace qn
