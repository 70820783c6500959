#include "gateway/auth/digest.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "text/hex.h"

namespace qn {
namespace {

struct FreeContext {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// Fetched once and kept for the life of the process: a fetch costs more than a digest.
const EVP_MD* fetched(DigestAlgorithm algorithm) {
  static const EVP_MD* const md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
  static const EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  return algorithm == DigestAlgorithm::MD5 ? md5 : sha256;
}

// One context for each thread and algorithm, since changing a context's algorithm reallocates it.
EVP_MD_CTX* threadContext(DigestAlgorithm algorithm) {
  thread_local const std::unique_ptr<EVP_MD_CTX, FreeContext> md5(EVP_MD_CTX_new());
  thread_local const std::unique_ptr<EVP_MD_CTX, FreeContext> sha256(EVP_MD_CTX_new());
  return algorithm == DigestAlgorithm::MD5 ? md5.get() : sha256.get();
}

// One digest at a time for each thread and algorithm. Short pieces are gathered, because a call
// into the library costs as much as hashing them.
class Hasher {
 public:
  explicit Hasher(DigestAlgorithm algorithm) : context_(threadContext(algorithm)) {
    const EVP_MD* const digest = fetched(algorithm);
    good_ = context_ && digest && EVP_DigestInit_ex2(context_, digest, nullptr) == 1;
  }

  void add(std::string_view piece) {
    if (piece.size() > gathered_.size() - used_) flush();
    if (piece.size() > gathered_.size()) return update(piece.data(), piece.size());
    std::copy(piece.begin(), piece.end(), gathered_.begin() + used_);
    used_ += piece.size();
  }

  // The number of bytes written; 0 on failure.
  std::size_t finish(std::array<uint8_t, EVP_MAX_MD_SIZE>& bytes) {
    flush();
    unsigned int length = 0;
    good_ = good_ && EVP_DigestFinal_ex(context_, bytes.data(), &length) == 1;
    return good_ ? length : 0;
  }

 private:
  void flush() {
    update(gathered_.data(), used_);
    used_ = 0;
  }
  void update(const char* data, std::size_t length) {
    good_ = good_ && EVP_DigestUpdate(context_, data, length) == 1;
  }

  EVP_MD_CTX* const context_;
  bool good_ = false;
  std::size_t used_ = 0;
  std::array<char, 512> gathered_;
};

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
  Hasher hasher(algorithm);
  bool first = true;
  for (const std::string_view field : fields) {
    if (!first) hasher.add(":");
    first = false;
    hasher.add(field);
  }
  std::array<uint8_t, EVP_MAX_MD_SIZE> bytes;
  return HexDigest(bytes.data(), hasher.finish(bytes));
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

bool fillRandom(uint8_t* bytes, std::size_t count) { return RAND_bytes(bytes, int(count)) == 1; }

bool keyedHash(std::string_view key, std::string_view message, uint8_t* bytes, std::size_t count) {
  Hasher hasher(DigestAlgorithm::SHA256);
  hasher.add(key);
  hasher.add(message);
  std::array<uint8_t, EVP_MAX_MD_SIZE> whole;
  if (hasher.finish(whole) < count) return false;
  std::memcpy(bytes, whole.data(), count);
  return true;
}

}  // namespace qn
