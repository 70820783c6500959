// See tls_session.h.
#include "gateway/tls/tls_session.h"

#include <sys/ioctl.h>
#include <sys/socket.h>

#include <boost/asio/error.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/ssl/impl/error.ipp>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <new>

namespace qn {
namespace {

using boost::system::error_code;

// A flag of ours beside OpenSSL's: the last read found nothing.
constexpr int kNothingThere = 0x10000;

template <class Bytes>
int transferred(BIO* bio, Bytes transfer) {
  BIO_clear_retry_flags(bio);
  const auto socket = static_cast<int>(reinterpret_cast<intptr_t>(BIO_get_data(bio)));
  return static_cast<int>(transfer(socket));
}

bool isForLater() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

// OpenSSL's own way to a socket would raise SIGPIPE.
int writeToSocket(BIO* bio, const char* bytes, int count) {
  const int sent = transferred(bio, [&](int socket) {
    return ::send(socket, bytes, static_cast<std::size_t>(count), MSG_NOSIGNAL);
  });
  if (sent < 0 && isForLater()) BIO_set_retry_write(bio);
  return sent;
}

int readFromSocket(BIO* bio, char* room, int count) {
  const int received = transferred(
      bio, [&](int socket) { return ::recv(socket, room, static_cast<std::size_t>(count), 0); });
  if (received == 0) BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
  BIO_clear_flags(bio, kNothingThere);
  if (received < 0 && isForLater()) {
    BIO_set_retry_read(bio);
    BIO_set_flags(bio, kNothingThere);
  }
  return received;
}

long controlSocket(BIO* bio, int command, long, void*) {
  if (command == BIO_CTRL_EOF) return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0 ? 1 : 0;
  return command == BIO_CTRL_FLUSH ? 1 : 0;
}

// For the life of the process.
BIO_METHOD* socketMethod() {
  static BIO_METHOD* const method = [] {
    BIO_METHOD* const made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "socket");
    if (!made) throw std::bad_alloc();
    BIO_meth_set_write(made, writeToSocket);
    BIO_meth_set_read(made, readFromSocket);
    BIO_meth_set_ctrl(made, controlSocket);
    return made;
  }();
  return method;
}

error_code faultOf(int systemError) {
  const unsigned long first = ERR_peek_error();
  if (first == 0) {
    return systemError == 0 ? error_code(TlsFault::Truncated)
                            : error_code(systemError, boost::system::system_category());
  }
  return {static_cast<int>(first & INT_MAX), boost::asio::error::get_ssl_category()};
}

constexpr std::size_t kRecordHead = 5;
constexpr unsigned char kHandshake = 22;
constexpr unsigned char kMajorVersion = 3;

// Bytes of the record that begins so; 0 when it begins no handshake.
std::size_t lengthOfRecord(const unsigned char (&head)[kRecordHead]) {
  const std::size_t length = head[3] * 256U + head[4];
  const bool fits = length > 0 && length <= TlsSession::kRecord;
  return head[0] == kHandshake && head[1] == kMajorVersion && fits ? kRecordHead + length : 0;
}

}  // namespace

error_code make_error_code(TlsFault fault) {
  return {int(fault), boost::asio::error::get_ssl_category()};
}

SslContextPtr newTlsContext(TlsRole role) {
  SslContextPtr context(
      SSL_CTX_new(role == TlsRole::Server ? TLS_server_method() : TLS_client_method()));
  if (!context) throw std::bad_alloc();
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
  SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE |
                                      SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                      SSL_MODE_RELEASE_BUFFERS);
  // One call reads one record: who sends many that hold nothing must not keep the thread.
  SSL_CTX_clear_mode(context.get(), SSL_MODE_AUTO_RETRY);
  SSL_CTX_set_read_ahead(context.get(), 1);  // a record's head and content with one system call
  return context;
}

TlsSession::TlsSession(SSL_CTX& context, TlsRole role, int socket) : ssl_(SSL_new(&context)) {
  BIO* const bio = ssl_ ? BIO_new(socketMethod()) : nullptr;
  if (!bio) throw std::bad_alloc();
  BIO_set_data(bio, reinterpret_cast<void*>(static_cast<intptr_t>(socket)));
  BIO_set_init(bio, 1);
  SSL_set_bio(ssl_.get(), bio, bio);
  if (role == TlsRole::Server) {
    SSL_set_accept_state(ssl_.get());
  } else {
    SSL_set_connect_state(ssl_.get());
  }
}

// attempt(count) is OpenSSL's call.
template <class Attempt>
TlsResult TlsSession::attempt(Attempt attempt) {
  using Wait = TlsResult::Wait;
  if (failed_) return {Wait::None, TlsFault::Truncated};
  ERR_clear_error();
  std::size_t count = 0;
  const int status = attempt(count);
  const int systemError = errno;
  switch (SSL_get_error(ssl_.get(), status)) {
    case SSL_ERROR_NONE:
      return {Wait::None, {}, count};
    case SSL_ERROR_WANT_READ:
      drained_ = BIO_test_flags(SSL_get_rbio(ssl_.get()), kNothingThere) != 0;
      return {Wait::Readable};
    case SSL_ERROR_WANT_WRITE:
      return {Wait::Writable};
    case SSL_ERROR_ZERO_RETURN:
      return {Wait::None, boost::asio::error::eof};
    default:
      failed_ = true;
      return {Wait::None, faultOf(systemError)};
  }
}

TlsResult TlsSession::handshake() {
  const TlsResult result = attempt([this](std::size_t&) { return SSL_do_handshake(ssl_.get()); });
  if (result.wait == TlsResult::Wait::None) drained_ = false;
  return result;
}

TlsResult TlsSession::read(std::span<char> room) {
  const TlsResult result = attempt([&](std::size_t& count) {
    return SSL_read_ex(ssl_.get(), room.data(), room.size(), &count);
  });
  if (result.wait == TlsResult::Wait::None) drained_ = false;
  return result;
}

TlsResult TlsSession::write(std::string_view bytes) {
  const TlsResult result = attempt([&](std::size_t& count) {
    return SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &count);
  });
  writing_ = result.wait != TlsResult::Wait::None;
  return result;
}

void TlsSession::endSending() {
  if (failed_ || writing_ || SSL_is_init_finished(ssl_.get()) == 0) return;
  const bool ended = (SSL_get_shutdown(ssl_.get()) & SSL_SENT_SHUTDOWN) != 0;
  if (!ended) attempt([this](std::size_t&) { return SSL_shutdown(ssl_.get()) < 0 ? -1 : 1; });
}

bool ClientHelloWatch::hasArrived(int socket, error_code& error) {
  unsigned char head[kRecordHead] = {};
  const ssize_t seen = ::recv(socket, head, sizeof head, MSG_PEEK);
  if (seen < 0 && isForLater()) return false;
  if (seen < 0) error.assign(errno, boost::system::system_category());
  if (seen == 0) error = TlsFault::Truncated;
  if (seen <= 0) return false;
  const bool headSeen = seen == ssize_t(sizeof head);
  const std::size_t wanted = headSeen ? lengthOfRecord(head) : sizeof head;
  if (wanted == 0 || head[0] != kHandshake) {
    error = TlsFault::NotTls;
    return false;
  }
  int there = 0;
  ::ioctl(socket, FIONREAD, &there);
  if (std::size_t(there) >= wanted) {
    awaitBytes(socket, 1);
    return true;
  }
  if (wanted == awaited_) error = TlsFault::Truncated;  // woken although not all is there
  awaitBytes(socket, wanted);
  return false;
}

void ClientHelloWatch::awaitBytes(int socket, std::size_t count) {
  if (count == awaited_) return;
  awaited_ = count;
  const int lowest = static_cast<int>(count);
  ::setsockopt(socket, SOL_SOCKET, SO_RCVLOWAT, &lowest, sizeof lowest);
}

}  // namespace qn
