// See ticket_keys.h.
#include "gateway/tls/ticket_keys.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <algorithm>
#include <new>

namespace qn {
namespace {

// The library's own memory of an object of ours: it goes with the context.
int contextSlot() {
  static const int slot = SSL_CTX_get_ex_new_index(
      0, nullptr, nullptr, nullptr, [](void*, void* held, CRYPTO_EX_DATA*, int, long, void*) {
        delete static_cast<std::shared_ptr<TicketKeys>*>(held);
      });
  return slot;
}

const EVP_CIPHER* ticketCipher() {
  static const EVP_CIPHER* const cipher = EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr);
  return cipher;
}

TicketKeys::Key randomKey() {
  TicketKeys::Key key;
  for (std::span<unsigned char> part :
       {std::span<unsigned char>(key.name), {key.cipher}, {key.digest}}) {
    if (RAND_bytes(part.data(), int(part.size())) != 1) throw std::bad_alloc();
  }
  return key;
}

bool useDigest(EVP_MAC_CTX* mac, TicketKeys::Key& key) {
  char sha256[] = "SHA256";
  const OSSL_PARAM params[] = {
      OSSL_PARAM_construct_octet_string(OSSL_MAC_PARAM_KEY, key.digest.data(), key.digest.size()),
      OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, sha256, 0),
      OSSL_PARAM_construct_end()};
  return EVP_MAC_CTX_set_params(mac, params) == 1;
}

// What OpenSSL's callback returns.
enum : int { kFailed = -1, kNoTicket = 0, kTicket = 1, kTicketToRenew = 2 };

int seal(TicketKeys& keys, unsigned char* name, unsigned char* iv, EVP_CIPHER_CTX* cipher,
         EVP_MAC_CTX* mac) {
  TicketKeys::Key key = keys.current(TicketKeys::Clock::now());
  std::ranges::copy(key.name, name);
  const bool sealed =
      RAND_bytes(iv, EVP_CIPHER_get_iv_length(ticketCipher())) == 1 &&
      EVP_EncryptInit_ex2(cipher, ticketCipher(), key.cipher.data(), iv, nullptr) == 1 &&
      useDigest(mac, key);
  return sealed ? kTicket : kFailed;
}

// A ticket of TLS 1.3 should be used once, so the client gets another.
int open(SSL* ssl, TicketKeys& keys, const unsigned char* name, const unsigned char* iv,
         EVP_CIPHER_CTX* cipher, EVP_MAC_CTX* mac) {
  auto found = keys.find({name, std::tuple_size_v<decltype(TicketKeys::Key::name)>},
                         TicketKeys::Clock::now());
  if (!found) return kNoTicket;
  const bool opened =
      EVP_DecryptInit_ex2(cipher, ticketCipher(), found->key.cipher.data(), iv, nullptr) == 1 &&
      useDigest(mac, found->key);
  if (!opened) return kFailed;
  return found->isCurrent && SSL_version(ssl) < TLS1_3_VERSION ? kTicket : kTicketToRenew;
}

int onTicket(SSL* ssl, unsigned char* name, unsigned char* iv, EVP_CIPHER_CTX* cipher,
             EVP_MAC_CTX* mac, int sealing) try {
  const void* const held = SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), contextSlot());
  TicketKeys& keys = **static_cast<const std::shared_ptr<TicketKeys>*>(held);
  return sealing != 0 ? seal(keys, name, iv, cipher, mac) : open(ssl, keys, name, iv, cipher, mac);
} catch (const std::bad_alloc&) {
  return kFailed;
}

}  // namespace

void TicketKeys::attach(const std::shared_ptr<TicketKeys>& keys, SSL_CTX& context) {
  auto held = std::make_unique<std::shared_ptr<TicketKeys>>(keys);
  if (SSL_CTX_set_ex_data(&context, contextSlot(), held.get()) != 1) throw std::bad_alloc();
  static_cast<void>(held.release());  // the context has it
  SSL_CTX_set_session_cache_mode(&context, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_timeout(&context, std::chrono::seconds(kInterval).count());
  SSL_CTX_set_tlsext_ticket_key_evp_cb(&context, onTicket);
}

TicketKeys::Key TicketKeys::current(Clock::time_point now) {
  const MutexLock lock(mutex_);
  rotate(now);
  return *current_;
}

std::optional<TicketKeys::Found> TicketKeys::find(std::span<const unsigned char> name,
                                                  Clock::time_point now) {
  const MutexLock lock(mutex_);
  rotate(now);
  for (const auto* key : {&current_, &former_}) {
    if (*key && std::ranges::equal((*key)->name, name)) return Found{**key, key == &current_};
  }
  return std::nullopt;
}

void TicketKeys::rotate(Clock::time_point now) {
  const auto age = now - since_;
  if (current_ && age < kInterval) return;
  former_ = age < 2 * kInterval ? current_ : std::nullopt;
  current_ = randomKey();
  since_ = now;
}

}  // namespace qn
