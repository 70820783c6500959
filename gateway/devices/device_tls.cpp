// See device_tls.h.
#include "gateway/devices/device_tls.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <array>
#include <boost/asio/ip/address.hpp>
#include <new>
#include <string>
#include <utility>

#include "platform/error_codes.h"
#include "text/hex.h"

namespace qn {
namespace {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"  // Boost's base: never deleted by it
class CertificateCategory final : public boost::system::error_category {
 public:
  const char* name() const noexcept override { return "certificate"; }
  std::string message(int fault) const override {
    switch (CertificateFault(fault)) {
      case CertificateFault::Expired:
        return "the device's certificate has expired, or is not valid yet";
      case CertificateFault::UnknownIssuer:
        return "the device's certificate is from an unknown issuer";
      case CertificateFault::WrongName:
        return "the device's certificate is for another name";
      case CertificateFault::WrongFingerprint:
        return "the device's certificate has another fingerprint";
      default:
        return "the device's certificate is not acceptable";
    }
  }
};
#pragma GCC diagnostic pop

const CertificateCategory& category() {
  static const CertificateCategory instance;
  return instance;
}

CertificateFault faultOfVerification(long result) {
  switch (result) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return CertificateFault::Expired;
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
      return CertificateFault::WrongName;
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_CERT_UNTRUSTED:
      return CertificateFault::UnknownIssuer;
    default:
      return CertificateFault::Other;
  }
}

// Where a connection's DeviceTls stands.
int ownerIndex() {
  static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return index;
}

// False: the session stays OpenSSL's.
int keepSession(SSL* ssl, SSL_SESSION* session) {
  static_cast<DeviceTls*>(SSL_get_ex_data(ssl, ownerIndex()))->keep(*session);
  return 0;
}

struct FreeCertificate {
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(BIO* bio) const { BIO_free(bio); }
};

X509_STORE* storeOf(const std::string& certificates) {
  X509_STORE* const store = X509_STORE_new();
  if (!store) throw std::bad_alloc();
  const std::unique_ptr<BIO, FreeCertificate> bio(
      BIO_new_mem_buf(certificates.data(), int(certificates.size())));
  for (;;) {
    const std::unique_ptr<X509, FreeCertificate> each(
        PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (!each) break;
    X509_STORE_add_cert(store, each.get());
  }
  ERR_clear_error();  // its end
  return store;
}

bool isAddress(const std::string& host) {
  boost::system::error_code error;
  boost::asio::ip::make_address(host, error);
  return !error;
}

}  // namespace

boost::system::error_code make_error_code(CertificateFault fault) {
  return {int(fault), category()};
}

unsigned int errorOfConnecting(const boost::system::error_code& error) {
  if (error.category() != category()) return ERROR_DEVICE_UNREACHABLE;
  switch (CertificateFault(error.value())) {
    case CertificateFault::Expired:
      return ERROR_DEVICE_CERTIFICATE_EXPIRED;
    case CertificateFault::UnknownIssuer:
      return ERROR_DEVICE_CERTIFICATE_UNKNOWN_ISSUER;
    case CertificateFault::WrongName:
      return ERROR_DEVICE_CERTIFICATE_WRONG_NAME;
    case CertificateFault::WrongFingerprint:
      return ERROR_DEVICE_CERTIFICATE_WRONG_FINGERPRINT;
    default:
      return ERROR_DEVICE_CERTIFICATE_REFUSED;
  }
}

SSL_CTX& DeviceTls::context() {
  static SSL_CTX* const made = [] {  // never destroyed: connections may end while the process does
    SslContextPtr context = newTlsContext(TlsRole::Client);
    SSL_CTX_set_default_verify_paths(context.get());
    SSL_CTX_set_session_cache_mode(context.get(),
                                   SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
    SSL_CTX_sess_set_new_cb(context.get(), keepSession);
    return context.release();
  }();
  return *made;
}

DeviceTls::DeviceTls(const DeviceConfig& config)
    : host_(config.host),
      verifies_(config.verify && config.fingerprint.empty()),
      fingerprint_(config.fingerprint),
      authorities_(config.authorities.empty() ? nullptr : storeOf(config.authorities)) {}

void DeviceTls::prepare(SSL& ssl) {
  SSL_set_ex_data(&ssl, ownerIndex(), this);
  const bool address = isAddress(host_);
  if (!address) SSL_set_tlsext_host_name(&ssl, host_.c_str());
  SSL_set_verify(&ssl, verifies_ ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr);
  if (verifies_) {
    X509_VERIFY_PARAM* const wanted = SSL_get0_param(&ssl);
    X509_VERIFY_PARAM_set_hostflags(wanted, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    const bool set = address ? X509_VERIFY_PARAM_set1_ip_asc(wanted, host_.c_str()) == 1
                             : X509_VERIFY_PARAM_set1_host(wanted, host_.c_str(), 0) == 1;
    if (!set) throw std::bad_alloc();
    if (authorities_) SSL_set1_verify_cert_store(&ssl, authorities_.get());
  }
  const MutexLock lock(mutex_);
  if (!session_) return;
  const SessionPtr copy(SSL_SESSION_dup(session_.get()));
  if (copy) SSL_set_session(&ssl, copy.get());
}

boost::system::error_code DeviceTls::judge(SSL& ssl, const boost::system::error_code& error) const {
  const long verification = verifies_ ? SSL_get_verify_result(&ssl) : X509_V_OK;
  if (verification != X509_V_OK) return faultOfVerification(verification);
  if (error || fingerprint_.empty() || hasPinnedCertificate(ssl)) return error;
  return CertificateFault::WrongFingerprint;
}

bool DeviceTls::hasPinnedCertificate(SSL& ssl) const {
  const X509* const certificate = SSL_get0_peer_certificate(&ssl);
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
  unsigned int size = 0;
  return certificate && X509_digest(certificate, EVP_sha256(), digest.data(), &size) == 1 &&
         text::hexOf(std::span(digest.data(), size)) == fingerprint_;
}

bool DeviceTls::isNews(const boost::system::error_code& verdict) {
  const int fault = verdict.category() == category() ? verdict.value() : 0;
  return said_.exchange(fault) != fault && fault != 0;
}

// Copies here and there: a connection that breaks spoils the session that it has, and many devices
// end theirs without the alert that would tell it from an attack.
void DeviceTls::keep(SSL_SESSION& session) {
  SessionPtr kept(SSL_SESSION_dup(&session));
  const MutexLock lock(mutex_);
  session_.swap(kept);
}

}  // namespace qn
