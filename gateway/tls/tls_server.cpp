// See tls_server.h.
#include "gateway/tls/tls_server.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <functional>
#include <map>
#include <new>
#include <stdexcept>
#include <utility>

#include "text/ascii.h"

namespace qn {
namespace {

struct Free {
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(GENERAL_NAMES* names) const { GENERAL_NAMES_free(names); }
};
using BioPtr = std::unique_ptr<BIO, Free>;
using X509Ptr = std::unique_ptr<X509, Free>;
using KeyPtr = std::unique_ptr<EVP_PKEY, Free>;

// The most that strangers may send as their certificates.
constexpr long kClientChainBytes = 32 * 1024;

BioPtr bytesOf(const std::string& text) {
  BioPtr bio(BIO_new_mem_buf(text.data(), int(text.size())));
  if (!bio) throw std::bad_alloc();
  return bio;
}

// OpenSSL's reason for the call that has just failed.
std::string reason() {
  const char* const text = ERR_reason_error_string(ERR_peek_error());
  ERR_clear_error();
  return text ? text : "unknown";
}

// Nobody is asked for a passphrase.
int noPassphrase(char*, int, int, void*) { return 0; }

// As far as they can be read; `broken` when there is more than that.
std::vector<X509Ptr> certificatesOf(const std::string& pem, bool& broken) {
  std::vector<X509Ptr> certificates;
  const BioPtr bio = bytesOf(pem);
  while (X509Ptr next{PEM_read_bio_X509(bio.get(), nullptr, noPassphrase, nullptr)}) {
    certificates.push_back(std::move(next));
  }
  const auto end = ERR_peek_last_error();
  broken = ERR_GET_LIB(end) != ERR_LIB_PEM || ERR_GET_REASON(end) != PEM_R_NO_START_LINE;
  ERR_clear_error();
  return certificates;
}

std::string faultOfCertificates(const std::string& pem) {
  bool broken = false;
  const auto certificates = certificatesOf(pem, broken);
  if (certificates.empty()) return "expected a certificate (PEM, -----BEGIN CERTIFICATE-----)";
  return broken ? "expected certificates, of which the one after the first " +
                      std::to_string(certificates.size()) + " cannot be read"
                : "";
}

KeyPtr keyOf(const std::string& pem) {
  const BioPtr bio = bytesOf(pem);
  return KeyPtr(PEM_read_bio_PrivateKey(bio.get(), nullptr, noPassphrase, nullptr));
}

std::chrono::system_clock::time_point timeOf(const ASN1_TIME* time) {
  tm parts{};
  if (ASN1_TIME_to_tm(time, &parts) != 1) return {};
  return std::chrono::system_clock::from_time_t(timegm(&parts));
}

std::string textOf(const ASN1_STRING* text) {
  return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
          std::size_t(ASN1_STRING_length(text))};
}

std::string lowered(std::string_view text) {
  std::string result(text);
  std::ranges::transform(result, result.begin(), [](char c) { return text::lower(c); });
  return result;
}

std::vector<std::string> namesOf(const X509& certificate) {
  std::vector<std::string> names;
  const std::unique_ptr<GENERAL_NAMES, Free> all(static_cast<GENERAL_NAMES*>(
      X509_get_ext_d2i(&certificate, NID_subject_alt_name, nullptr, nullptr)));
  for (int i = 0; i < sk_GENERAL_NAME_num(all.get()); ++i) {
    const GENERAL_NAME* const name = sk_GENERAL_NAME_value(all.get(), i);
    if (name->type == GEN_DNS) names.push_back(lowered(textOf(name->d.dNSName)));
  }
  return names;
}

// The other contexts of a server by the names in their certificates.
class ContextsByName {
 public:
  void add(const std::string& name, SSL_CTX* context) { byName_.try_emplace(name, context); }
  void keep(SslContextPtr context) { kept_.push_back(std::move(context)); }

  SSL_CTX* find(std::string_view serverName) const {
    const std::string name = lowered(serverName);
    const auto exact = byName_.find(name);
    if (exact != byName_.end()) return exact->second;
    const std::size_t dot = name.find('.');
    const auto wild = dot == name.npos ? byName_.end() : byName_.find('*' + name.substr(dot));
    return wild == byName_.end() ? nullptr : wild->second;
  }

 private:
  std::vector<SslContextPtr> kept_;
  std::map<std::string, SSL_CTX*, std::less<>> byName_;  // null: the first one of the server
};

int namesSlot() {
  static const int slot = SSL_CTX_get_ex_new_index(
      0, nullptr, nullptr, nullptr, [](void*, void* held, CRYPTO_EX_DATA*, int, long, void*) {
        delete static_cast<ContextsByName*>(held);
      });
  return slot;
}

int onServerName(SSL* ssl, int*, void*) try {
  const char* const name = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name);
  const void* const held = SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), namesSlot());
  if (!name || !held) return SSL_TLSEXT_ERR_NOACK;
  SSL_CTX* const other = static_cast<const ContextsByName*>(held)->find(name);
  if (other) SSL_set_SSL_CTX(ssl, other);
  return SSL_TLSEXT_ERR_OK;
} catch (const std::bad_alloc&) {
  return SSL_TLSEXT_ERR_ALERT_FATAL;
}

void check(bool good, const char* what) {
  if (!good) throw std::runtime_error(std::string("TLS: ") + what + ": " + reason());
}

void useIdentity(SSL_CTX& context, const TlsIdentity& identity) {
  bool broken = false;
  auto chain = certificatesOf(identity.chain, broken);
  const KeyPtr key = keyOf(identity.key);
  check(!chain.empty() && key, "certificate and key");
  check(SSL_CTX_use_certificate(&context, chain[0].get()) == 1, "certificate");
  check(SSL_CTX_use_PrivateKey(&context, key.get()) == 1, "key");
  for (std::size_t i = 1; i < chain.size(); ++i) {
    check(SSL_CTX_add1_chain_cert(&context, chain[i].get()) == 1, "chain");
  }
}

void acceptClientsOf(SSL_CTX& context, const TlsServerOptions& options) {
  bool broken = false;
  for (const X509Ptr& authority : certificatesOf(options.clientAuthorities, broken)) {
    X509_STORE_add_cert(SSL_CTX_get_cert_store(&context), authority.get());
    SSL_CTX_add_client_CA(&context, authority.get());
  }
  const int required = options.clientCertificates == ClientCertificates::Required
                           ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT
                           : 0;
  SSL_CTX_set_verify(&context, SSL_VERIFY_PEER | required, nullptr);
  SSL_CTX_set_max_cert_list(&context, kClientChainBytes);
}

// Sessions are taken up again only where the same clients are let in.
void setSessionScope(SSL_CTX& context, const TlsServerOptions& options) {
  const std::string scope =
      std::to_string(int(options.clientCertificates)) + options.clientAuthorities;
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(scope.data()), scope.size(), digest);
  check(SSL_CTX_set_session_id_context(&context, digest, sizeof digest) == 1, "sessions");
}

std::string cipherList(const std::vector<std::string>& ciphers) {
  std::string list;
  for (const std::string& each : ciphers) list += (list.empty() ? "" : ":") + each;
  return list;
}

SslContextPtr contextFor(const TlsIdentity& identity, const TlsServerOptions& options,
                         const std::shared_ptr<TicketKeys>& keys) {
  SslContextPtr context = newTlsContext(TlsRole::Server);
  if (options.only13) SSL_CTX_set_min_proto_version(context.get(), TLS1_3_VERSION);
  const std::string ciphers = cipherList(options.ciphers);
  check(ciphers.empty() || SSL_CTX_set_cipher_list(context.get(), ciphers.c_str()) == 1, "ciphers");
  useIdentity(*context, identity);
  if (options.clientCertificates != ClientCertificates::None) acceptClientsOf(*context, options);
  setSessionScope(*context, options);
  TicketKeys::attach(keys, *context);
  return context;
}

}  // namespace

TlsIdentityFault faultOf(const TlsIdentity& identity) {
  const std::string inChain = faultOfCertificates(identity.chain);
  if (!inChain.empty()) return {inChain, {}};
  const KeyPtr key = keyOf(identity.key);
  if (!key) return {{}, "expected a private key without a passphrase (PEM): " + reason()};
  bool broken = false;
  const auto chain = certificatesOf(identity.chain, broken);
  if (X509_check_private_key(chain[0].get(), key.get()) != 1) {
    return {{}, "expected the key of the certificate: " + reason()};
  }
  try {
    useIdentity(*newTlsContext(TlsRole::Server), identity);
  } catch (const std::runtime_error& error) {  // too weak a key, for example
    return {std::string("expected a certificate that OpenSSL takes: ") + error.what(), {}};
  }
  return {};
}

TlsIdentityFacts factsOf(const TlsIdentity& identity) {
  bool broken = false;
  const auto chain = certificatesOf(identity.chain, broken);
  TlsIdentityFacts facts{namesOf(*chain.at(0)), std::chrono::system_clock::time_point::max()};
  for (const X509Ptr& each : chain) {
    facts.expires = std::min(facts.expires, timeOf(X509_get0_notAfter(each.get())));
  }
  return facts;
}

std::string faultOfAuthorities(const std::string& certificates) {
  return faultOfCertificates(certificates);
}

TlsServer::TlsServer(const TlsServerOptions& options, const std::shared_ptr<TicketKeys>& keys)
    : context_(contextFor(options.identities.at(0), options, keys)) {
  auto names = std::make_unique<ContextsByName>();
  for (const TlsIdentity& identity : options.identities) {
    const bool isFirst = &identity == &options.identities.front();
    SslContextPtr context = isFirst ? nullptr : contextFor(identity, options, keys);
    for (const std::string& name : factsOf(identity).names) names->add(name, context.get());
    if (context) names->keep(std::move(context));
  }
  check(SSL_CTX_set_ex_data(context_.get(), namesSlot(), names.get()) == 1, "names");
  static_cast<void>(names.release());  // the context has it
  SSL_CTX_set_tlsext_servername_callback(context_.get(), onServerName);
}

}  // namespace qn
