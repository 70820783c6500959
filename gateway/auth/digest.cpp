// See digest.h.
#include "gateway/auth/digest.h"

// The library's older functions: its newer ones load its providers, whose start alone takes 2 MiB
// of a gateway without TLS, and are slower for texts as short as these.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/crypto.h>
#include <openssl/md5.h>
#include <openssl/sha.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>

#include "text/hex.h"

namespace qn {
namespace {

// One digest. Short pieces are gathered, because a call into the library costs as much as hashing
// them.
template <class Context, auto init, auto update, auto final, std::size_t size>
class Hasher {
 public:
  using Bytes = std::array<uint8_t, size>;

  Hasher() { init(&context_); }

  void add(std::string_view piece) {
    if (piece.size() > gathered_.size() - used_) flush();
    if (piece.size() > gathered_.size()) {
      update(&context_, piece.data(), piece.size());
      return;
    }
    std::copy(piece.begin(), piece.end(), gathered_.begin() + used_);
    used_ += piece.size();
  }

  Bytes finish() {
    flush();
    Bytes bytes;
    final(bytes.data(), &context_);
    return bytes;
  }

 private:
  void flush() {
    update(&context_, gathered_.data(), used_);
    used_ = 0;
  }

  Context context_;
  std::size_t used_ = 0;
  std::array<char, 512> gathered_;
};

using Md5 = Hasher<MD5_CTX, MD5_Init, MD5_Update, MD5_Final, MD5_DIGEST_LENGTH>;
using Sha256 = Hasher<SHA256_CTX, SHA256_Init, SHA256_Update, SHA256_Final, SHA256_DIGEST_LENGTH>;

template <class Algorithm>
HexDigest digestOf(std::initializer_list<std::string_view> fields) {
  Algorithm hasher;
  bool first = true;
  for (const std::string_view field : fields) {
    if (!first) hasher.add(":");
    first = false;
    hasher.add(field);
  }
  const auto bytes = hasher.finish();
  return {bytes.data(), bytes.size()};
}

// The digest of a request's method and URL. Clients ask for the same few URLs again and again, so
// each thread keeps those it saw last: 64 of at most 256 bytes.
class RequestDigests {
 public:
  const HexDigest& of(DigestAlgorithm algorithm, std::string_view method, std::string_view uri) {
    if (method.size() + uri.size() > kLongest) return long_ = hexDigest(algorithm, {method, uri});
    Entry& entry = entries_[(std::hash<std::string_view>()(uri) + method.size()) % entries_.size()];
    if (entry.digest.text().empty() || entry.algorithm != algorithm || entry.method != method ||
        entry.uri != uri) {
      entry.digest = hexDigest(algorithm, {method, uri});
      entry.algorithm = algorithm;
      entry.method = method;
      entry.uri = uri;
    }
    return entry.digest;
  }

 private:
  static constexpr std::size_t kLongest = 256;
  struct Entry {
    DigestAlgorithm algorithm = DigestAlgorithm::MD5;
    std::string method;
    std::string uri;
    HexDigest digest;
  };
  std::array<Entry, 64> entries_;
  HexDigest long_;  // of the last longer one
};

}  // namespace

std::string_view algorithmName(DigestAlgorithm algorithm) {
  return algorithm == DigestAlgorithm::MD5 ? "MD5" : "SHA-256";
}

std::size_t hexLength(DigestAlgorithm algorithm) {
  return algorithm == DigestAlgorithm::MD5 ? 32 : 64;
}

HexDigest::HexDigest(const uint8_t* bytes, std::size_t count) : length_(uint8_t(2 * count)) {
  text::writeHex({bytes, count}, text_.data());
}

HexDigest hexDigest(DigestAlgorithm algorithm, std::initializer_list<std::string_view> fields) {
  return algorithm == DigestAlgorithm::MD5 ? digestOf<Md5>(fields) : digestOf<Sha256>(fields);
}

HexDigest digestResponse(DigestAlgorithm algorithm, std::string_view ha1,
                         const DigestFields& fields) {
  thread_local RequestDigests requests;
  const HexDigest& request = requests.of(algorithm, fields.method, fields.uri);
  return hexDigest(algorithm, {ha1, fields.nonce, fields.nonceCount, fields.clientNonce, "auth",
                               request.text()});
}

bool equalInConstantTime(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

bool fillRandom(uint8_t* bytes, std::size_t count) { return getentropy(bytes, count) == 0; }

void keyedHash(std::string_view key, std::string_view message, uint8_t* bytes, std::size_t count) {
  Sha256 hasher;
  hasher.add(key);
  hasher.add(message);
  std::memcpy(bytes, hasher.finish().data(), count);
}

}  // namespace qn
