// The TLS of one connection: OpenSSL's state on the connection's non-blocking socket, one attempt
// at a time. Made and driven by TlsStream, which waits for the socket in between.
#pragma once

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <boost/system/error_code.hpp>
#include <cstddef>
#include <memory>
#include <span>
#include <string_view>

namespace qn {

enum class TlsRole { Server, Client };

// The errors that TLS adds to a socket's are OpenSSL's, in Asio's category for them. These are told
// apart:
enum class TlsFault : int {
  // The peer ended without the alert that says so: something may be missing.
  Truncated = int(ERR_PACK(ERR_LIB_SSL, 0, SSL_R_UNEXPECTED_EOF_WHILE_READING)),
  // The peer speaks something else.
  NotTls = int(ERR_PACK(ERR_LIB_SSL, 0, SSL_R_WRONG_VERSION_NUMBER)),
};

boost::system::error_code make_error_code(TlsFault fault);  // NOLINT: Boost looks for this name

struct FreeSsl {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
};
using SslPtr = std::unique_ptr<SSL, FreeSsl>;
using SslContextPtr = std::unique_ptr<SSL_CTX, FreeSsl>;

// What every context of ours has, for either role: TLS 1.2 at least, buffers that go when they are
// empty, no renegotiation, no compression. Throws std::bad_alloc.
SslContextPtr newTlsContext(TlsRole role);

// What came of an attempt: it is done, with an error or a number of bytes, unless the socket has to
// be waited for first.
struct TlsResult {
  enum class Wait { None, Readable, Writable };

  Wait wait = Wait::None;
  boost::system::error_code error = {};
  std::size_t count = 0;
};

// By one thread at a time. Nothing blocks. The socket stays the caller's, and open during a call;
// writing to one that the peer has closed is an error and no signal.
class TlsSession {
 public:
  static constexpr std::size_t kRecord = 16 * 1024;  // the most that one write takes

  // Holds a reference to the context. Throws std::bad_alloc.
  TlsSession(SSL_CTX& context, TlsRole role, int socket);

  TlsResult handshake();
  // Error eof: the peer has ended its side as it should.
  TlsResult read(std::span<char> room);
  // At most a record, all of it or nothing. After Wait, the next write must begin with the same
  // bytes, wherever they are then.
  TlsResult write(std::string_view bytes);
  // Tells the peer that nothing more comes, as far as the socket takes it. Harmless when repeated,
  // or after an error.
  void endSending();

  // What a read would find without the socket's becoming readable.
  bool hasUnread() const { return !drained_ && SSL_has_pending(ssl_.get()) == 1; }
  SSL* ssl() const { return ssl_.get(); }

 private:
  template <class Attempt>
  TlsResult attempt(Attempt attempt);

  SslPtr ssl_;
  bool drained_ = false;  // what is left is a part of a record
  bool writing_ = false;  // a record is partly on its way
  bool failed_ = false;
};

// Watches a socket until the client's first message, which a handshake begins with, has arrived:
// the memory of a handshake is taken only then.
class ClientHelloWatch {
 public:
  // Whether all of it is there. Otherwise the socket becomes readable only when more of it is worth
  // a look, or no more will come. A peer that ends before, or speaks something else, is an error.
  bool hasArrived(int socket, boost::system::error_code& error);

 private:
  void awaitBytes(int socket, std::size_t count);

  std::size_t awaited_ = 1;  // as the socket has it by itself
};

}  // namespace qn

template <>
struct boost::system::is_error_code_enum<qn::TlsFault> : std::true_type {};
