// What the server's side of TLS shows and accepts: certificates by server name, versions, ciphers,
// certificates of clients. Made by the HTTP service of the configuration, which checks with
// faultOf() what it reads.
#pragma once

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gateway/tls/ticket_keys.h"
#include "gateway/tls/tls_session.h"

namespace qn {

// A certificate with those that lead to its authority, the server's own first, and its key: PEM,
// the key without a passphrase.
struct TlsIdentity {
  std::string chain;
  std::string key;

  bool operator==(const TlsIdentity&) const = default;
};

// What is wrong with it, in words; empty when nothing is. A key is looked at with its certificate,
// when that is good.
struct TlsIdentityFault {
  std::string inChain;
  std::string inKey;
};
TlsIdentityFault faultOf(const TlsIdentity& identity);

// Of one without a fault.
struct TlsIdentityFacts {
  std::vector<std::string> names;  // lower case; "*.NAME" stands for one label before the name
  std::chrono::system_clock::time_point expires;
};
TlsIdentityFacts factsOf(const TlsIdentity& identity);

// What is wrong with the certificates of authorities, PEM; empty when nothing is.
std::string faultOfAuthorities(const std::string& certificates);

enum class ClientCertificates { None, Optional, Required };

// For TLS 1.2: forward secrecy and authenticated encryption.
inline constexpr std::array<std::string_view, 6> kTls12Ciphers = {
    "ECDHE-ECDSA-AES128-GCM-SHA256", "ECDHE-RSA-AES128-GCM-SHA256",
    "ECDHE-ECDSA-AES256-GCM-SHA384", "ECDHE-RSA-AES256-GCM-SHA384",
    "ECDHE-ECDSA-CHACHA20-POLY1305", "ECDHE-RSA-CHACHA20-POLY1305"};

struct TlsServerOptions {
  // Without faults; the first for clients that name no server, or none of them.
  std::vector<TlsIdentity> identities;
  bool only13 = false;               // TLS 1.3 alone
  std::vector<std::string> ciphers;  // some of kTls12Ciphers
  std::string clientAuthorities;     // PEM, without a fault
  ClientCertificates clientCertificates = ClientCertificates::None;

  bool operator==(const TlsServerOptions&) const = default;
};

// Constant. Any thread.
class TlsServer {
 public:
  // Throws std::runtime_error when OpenSSL refuses what the checks have passed.
  TlsServer(const TlsServerOptions& options, const std::shared_ptr<TicketKeys>& keys);

  // Sessions of it hold what they need.
  SSL_CTX& context() const { return *context_; }

 private:
  SslContextPtr context_;
};

}  // namespace qn
