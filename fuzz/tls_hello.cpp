// What a stranger sends to the port of HTTPS, from the client's first message through the
// handshake. The first byte chooses the size of the pieces.
#include <poll.h>

#include <memory>
#include <optional>

#include "fuzz/require.h"
#include "gateway/tls/tls_server.h"
#include "tests/contract/certificates.h"
#include "tests/contract/socket.h"

namespace {

constexpr std::size_t kMost = 64 * 1024;

const qn::TlsServer& server() {
  static const auto made = [] {
    qn::Authority authority;
    const auto identity = [&](const char* file, const char* names) {
      const qn::PemPair pair = authority.issue(file, names);
      return qn::TlsIdentity{qn::contentOfPem(pair.certificate), qn::contentOfPem(pair.key)};
    };
    qn::TlsServerOptions options;
    options.identities = {identity("a", "DNS:a.test"), identity("b", "DNS:*.b.test")};
    options.clientAuthorities = qn::contentOfPem(authority.certificate());
    options.clientCertificates = qn::ClientCertificates::Optional;
    return std::make_unique<qn::TlsServer>(options, std::make_shared<qn::TicketKeys>());
  }();
  return *made;
}

bool isReadable(const qn::Socket& socket) {
  pollfd entry{socket.descriptor(), POLLIN, 0};
  return ::poll(&entry, 1, 0) == 1;
}

// The gateway's side of one connection.
class Accepted {
 public:
  explicit Accepted(int descriptor) : socket_(descriptor) {}

  // False when it has been given up.
  bool step() {
    if (!isReadable(socket_)) return true;
    boost::system::error_code error;
    if (!session_) {
      const bool arrived = hello_.hasArrived(socket_.descriptor(), error);
      Require(!arrived || !error);
      if (!arrived) return !error;
      session_.emplace(server().context(), qn::TlsRole::Server, socket_.descriptor());
    }
    const qn::TlsResult result = session_->handshake();
    // Nobody comes in without having done the sums.
    Require(result.wait != qn::TlsResult::Wait::None || result.error);
    if (!result.error) return true;
    session_->endSending();
    char room[64];
    Require(bool(session_->read(room).error));
    return false;
  }

 private:
  const qn::Socket socket_;
  qn::ClientHelloWatch hello_;
  std::optional<qn::TlsSession> session_;
};

}  // namespace

void fuzz(std::string_view input) {
  if (input.empty() || input.size() > kMost) return;
  static qn::Socket listener;
  static const uint16_t port = listener.listen(0);
  qn::Socket client;
  Require(client.connect(port));
  Accepted accepted(::accept4(listener.descriptor(), nullptr, nullptr, SOCK_NONBLOCK));
  const std::size_t piece = std::size_t{1} + static_cast<unsigned char>(input[0]) * 16;
  input.remove_prefix(1);
  for (bool goesOn = true; goesOn && !input.empty();) {
    client.send(input.substr(0, piece));
    input.remove_prefix(std::min(piece, input.size()));
    goesOn = accepted.step();
  }
  client.shutDown(SHUT_WR);
  while (accepted.step() && isReadable(client)) {
    std::string dropped;
    if (!client.receive(dropped)) break;
  }
}
