// TLS with a device: what proves that it is the right one, and the session that saves the next
// handshake. One for each device that is reached over https. Used by the dialer.
#pragma once

#include <openssl/x509_vfy.h>

#include <atomic>
#include <boost/system/error_code.hpp>
#include <memory>

#include "gateway/config/configuration.h"
#include "gateway/sync/mutex.h"
#include "gateway/tls/tls_session.h"

namespace qn {

// Why a device's certificate does not do. An error code of its own category, whose message says it
// to operators.
enum class CertificateFault : int {
  Expired = 1,       // or not valid yet
  UnknownIssuer,     // nobody who is trusted vouches for it
  WrongName,         // it is another host's
  WrongFingerprint,  // it is not the one that is pinned
  Other
};
boost::system::error_code make_error_code(CertificateFault fault);  // NOLINT: Boost's name

// The platform's code for what came of connecting: that of a certificate's fault, or
// ERROR_DEVICE_UNREACHABLE.
unsigned int errorOfConnecting(const boost::system::error_code& error);

// Any thread.
class DeviceTls {
 public:
  explicit DeviceTls(const DeviceConfig& config);

  // Of all devices. The system's authorities are read as they are needed.
  static SSL_CTX& context();

  // Before the handshake: the server's name, whom to trust, the newest session. Outlives the
  // connection's reads. Throws std::bad_alloc.
  void prepare(SSL& ssl);
  // What has come of the handshake: its error, or what is wrong with the certificate.
  boost::system::error_code judge(SSL& ssl, const boost::system::error_code& error) const;
  // Whether this is said for the first time since it was otherwise; for the log.
  bool isNews(const boost::system::error_code& verdict);

  // Copies it, for the next connection.
  void keep(SSL_SESSION& session);

 private:
  struct FreeStore {
    void operator()(X509_STORE* store) const { X509_STORE_free(store); }
  };

  using SessionPtr = std::unique_ptr<SSL_SESSION, FreeSsl>;

  bool hasPinnedCertificate(SSL& ssl) const;

  const std::string host_;
  const bool verifies_;  // who vouches for it, and its name
  const std::string fingerprint_;
  std::unique_ptr<X509_STORE, FreeStore> authorities_;  // null: the system's
  std::atomic<int> said_{0};
  Mutex mutex_;
  SessionPtr session_ QN_GUARDED_BY(mutex_);
};

}  // namespace qn

template <>
struct boost::system::is_error_code_enum<qn::CertificateFault> : std::true_type {};
