// The computations of HTTP Digest authentication, and the comparison that goes with them. Used by
// the login, the configuration (HA1 of plain passwords) and the client side in
// devices/device_login.
#pragma once

#include <nettle/md5.h>
#include <nettle/sha2.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>

namespace qn {

enum class DigestAlgorithm { MD5, SHA256 };

// As it stands in challenges: "MD5", "SHA-256".
std::string_view algorithmName(DigestAlgorithm algorithm);
// The length of a digest in hexadecimal.
std::size_t hexLength(DigestAlgorithm algorithm);

// A digest in lower-case hexadecimal.
class HexDigest {
 public:
  HexDigest() = default;                               // empty
  explicit HexDigest(std::span<const uint8_t> bytes);  // at most 32
  std::string_view text() const { return {text_.data(), length_}; }

 private:
  std::array<char, 64> text_;
  uint8_t length_ = 0;
};

// The digest of the fields joined by ":".
HexDigest hexDigest(DigestAlgorithm algorithm, std::initializer_list<std::string_view> fields);

// A hash that is being computed. Copied freely, to go on from one place in two ways.
class Hash {
 public:
  explicit Hash(DigestAlgorithm algorithm);
  DigestAlgorithm algorithm() const { return algorithm_; }
  Hash& add(std::string_view piece);
  // One after the other: faster than one by one for short pieces.
  Hash& addAll(std::initializer_list<std::string_view> pieces);
  // What was added is forgotten.
  HexDigest finish();

 private:
  union State {
    md5_ctx md5;
    sha256_ctx sha256;
  };

  DigestAlgorithm algorithm_;
  State state_;
};

// What is sent of the use of a nonce; qop is auth.
struct NonceUse {
  std::string_view nonce;
  std::string_view count;  // as sent
  std::string_view clientNonce;
};

// The responses for one use of a nonce: the client's, and, with an empty method, the server's proof
// that it knows the password. Both begin with the same bytes, which are hashed once.
class DigestResponses {
 public:
  // `ha1` is the hexadecimal digest of name:realm:password.
  DigestResponses(DigestAlgorithm algorithm, std::string_view ha1, const NonceUse& use);
  HexDigest of(std::string_view method, std::string_view uri) const;

 private:
  Hash start_;
};

// Takes the same time wherever the texts differ.
bool equalInConstantTime(std::string_view a, std::string_view b);

// At most 256, from the system's generator. False when it failed; the bytes are then not to be
// used.
bool fillRandom(uint8_t* bytes, std::size_t count);

// The first bytes (at most 32) of SHA-256 over key and message; both of fixed length, so this is a
// keyed hash.
void keyedHash(std::string_view key, std::string_view message, std::span<uint8_t> bytes);

}  // namespace qn
