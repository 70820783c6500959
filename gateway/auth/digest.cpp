#include "gateway/auth/digest.h"

#include <nettle/memops.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "text/hex.h"

namespace qn {
namespace {

const uint8_t* bytesOf(std::string_view text) {
  return reinterpret_cast<const uint8_t*>(text.data());
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
  return algorithm == DigestAlgorithm::MD5 ? 2 * MD5_DIGEST_SIZE : 2 * SHA256_DIGEST_SIZE;
}

HexDigest::HexDigest(std::span<const uint8_t> bytes) : length_(uint8_t(2 * bytes.size())) {
  text::writeHex(bytes, text_.data());
}

Hash::Hash(DigestAlgorithm algorithm) : algorithm_(algorithm) {
  if (algorithm_ == DigestAlgorithm::MD5) {
    md5_init(&state_.md5);
  } else {
    sha256_init(&state_.sha256);
  }
}

Hash& Hash::add(std::string_view piece) {
  if (algorithm_ == DigestAlgorithm::MD5) {
    md5_update(&state_.md5, piece.size(), bytesOf(piece));
  } else {
    sha256_update(&state_.sha256, piece.size(), bytesOf(piece));
  }
  return *this;
}

Hash& Hash::addAll(std::initializer_list<std::string_view> pieces) {
  std::array<char, 256> gathered;
  std::size_t used = 0;
  for (const std::string_view piece : pieces) {
    if (piece.size() > gathered.size() - used) {
      add({gathered.data(), std::exchange(used, 0)});
      if (piece.size() > gathered.size()) {
        add(piece);
        continue;
      }
    }
    used += piece.copy(gathered.data() + used, piece.size());
  }
  return add({gathered.data(), used});
}

HexDigest Hash::finish() {
  std::array<uint8_t, SHA256_DIGEST_SIZE> bytes;
  const std::size_t size = hexLength(algorithm_) / 2;
  if (algorithm_ == DigestAlgorithm::MD5) {
    md5_digest(&state_.md5, size, bytes.data());
  } else {
    sha256_digest(&state_.sha256, size, bytes.data());
  }
  return HexDigest({bytes.data(), size});
}

HexDigest hexDigest(DigestAlgorithm algorithm, std::initializer_list<std::string_view> fields) {
  Hash hash(algorithm);
  bool first = true;
  for (const std::string_view field : fields) {
    if (!first) hash.add(":");
    first = false;
    hash.add(field);
  }
  return hash.finish();
}

DigestResponses::DigestResponses(DigestAlgorithm algorithm, std::string_view ha1,
                                 const NonceUse& use)
    : start_(algorithm) {
  start_.addAll({ha1, ":", use.nonce, ":", use.count, ":", use.clientNonce, ":auth:"});
}

HexDigest DigestResponses::of(std::string_view method, std::string_view uri) const {
  thread_local const auto requests = std::make_unique<RequestDigests>();
  Hash hash = start_;
  return hash.add(requests->of(hash.algorithm(), method, uri).text()).finish();
}

bool equalInConstantTime(std::string_view a, std::string_view b) {
  return a.size() == b.size() && memeql_sec(a.data(), b.data(), a.size()) == 1;
}

bool fillRandom(uint8_t* bytes, std::size_t count) { return getentropy(bytes, count) == 0; }

void keyedHash(std::string_view key, std::string_view message, std::span<uint8_t> bytes) {
  sha256_ctx hash;
  sha256_init(&hash);
  sha256_update(&hash, key.size(), bytesOf(key));
  sha256_update(&hash, message.size(), bytesOf(message));
  sha256_digest(&hash, bytes.size(), bytes.data());
}

}  // namespace qn
