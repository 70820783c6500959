// The bytes to and from a device: a socket, or TLS on it. A member of the bus's connections and of
// the alarm feeds, connected by their dialer.
#pragma once

#include <unistd.h>

#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <cstddef>
#include <utility>

#include "gateway/tls/tls_stream.h"

namespace qn {

// As Asio's sockets and TlsStream have it: on one thread, handlers keep it alive.
class DeviceStream {
 public:
  using Socket = boost::asio::basic_stream_socket<boost::asio::ip::tcp,
                                                  boost::asio::io_context::executor_type>;
  using Timer =
      boost::asio::basic_waitable_timer<std::chrono::steady_clock,
                                        boost::asio::wait_traits<std::chrono::steady_clock>,
                                        boost::asio::io_context::executor_type>;
  using ErrorCode = boost::system::error_code;

  explicit DeviceStream(boost::asio::io_context& reactor)
      : tls_(Socket(reactor), TlsRole::Client) {}

  Socket::executor_type executor() { return socket().get_executor(); }
  Socket& socket() { return tls_.lowest_layer(); }

  // From now on what is read and written is TLS; until it is closed.
  TlsStream<Socket>& encrypt() {
    encrypted_ = true;
    return tls_;
  }
  SSL* ssl() const { return encrypted_ ? tls_.ssl() : nullptr; }

  // All that can be had at once, up to the buffer's size.
  std::size_t readSome(const boost::asio::mutable_buffer& space, ErrorCode& error) {
    if (!encrypted_) return socket().read_some(space, error);
    std::size_t size = 0;
    do {
      size += tls_.read_some(space + size, error);  // a record at a time
    } while (!error && size < space.size());
    if (size > 0) error.clear();  // comes again with the next
    return size;
  }
  template <class Buffers>
  std::size_t writeSome(const Buffers& buffers, ErrorCode& error) {
    return encrypted_ ? tls_.write_some(buffers, error) : socket().write_some(buffers, error);
  }
  template <class Handler>
  void asyncReadSome(const boost::asio::mutable_buffer& space, Handler handler) {
    if (encrypted_) return tls_.async_read_some(space, std::move(handler));
    socket().async_read_some(space, std::move(handler));
  }
  template <class Buffers, class Handler>
  void asyncWriteSome(const Buffers& buffers, Handler handler) {
    if (encrypted_) return tls_.async_write_some(buffers, std::move(handler));
    socket().async_write_some(buffers, std::move(handler));
  }
  // handler(error) when readSome() has something to do.
  template <class Handler>
  void asyncWaitUnread(Handler handler) {
    if (encrypted_) return tls_.async_wait_unread(std::move(handler));
    socket().async_wait(Socket::wait_read, std::move(handler));
  }

  // For a stream that only reads from now on: room to write is no event any more, of which each
  // asyncWaitUnread() would see one. Nothing may be under way. With an error it is closed.
  void endWriting(ErrorCode& error) {
    const auto protocol = socket().local_endpoint(error).protocol();
    if (error) return;
    const int handle = socket().release(error);
    if (!error) socket().assign(protocol, handle, error);
    if (error) {
      ::close(handle);
    } else {
      socket().non_blocking(true, error);
    }
  }

  // Harmless when repeated; may be connected again.
  void close() {
    if (encrypted_) tls_.close();
    encrypted_ = false;
    ErrorCode ignored;
    socket().close(ignored);
  }

 private:
  TlsStream<Socket> tls_;  // its socket alone while nothing is encrypted
  bool encrypted_ = false;
};

}  // namespace qn
