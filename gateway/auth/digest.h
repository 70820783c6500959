// The computations of HTTP Digest authentication, and the comparison that goes with them. Used by
// the login, the configuration (HA1 of plain passwords) and the client side in
// devices/device_login.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>

namespace qn {

enum class DigestAlgorithm { MD5, SHA256 };

// As it stands in challenges: "MD5", "SHA-256".
std::string_view algorithmName(DigestAlgorithm algorithm);
// The length of a digest in hexadecimal.
std::size_t hexLength(DigestAlgorithm algorithm);

// A digest in lower-case hexadecimal; one of nothing yet is empty.
class HexDigest {
 public:
  HexDigest() = default;
  HexDigest(const uint8_t* bytes, std::size_t count);  // at most 32
  std::string_view text() const { return {text_.data(), length_}; }

 private:
  std::array<char, 64> text_;
  uint8_t length_ = 0;
};

// The digest of the fields joined by ":".
HexDigest hexDigest(DigestAlgorithm algorithm, std::initializer_list<std::string_view> fields);

// What the request part of a response is computed from; qop is auth.
struct DigestFields {
  std::string_view method;
  std::string_view uri;
  std::string_view nonce;
  std::string_view nonceCount;  // as sent
  std::string_view clientNonce;
};

// `ha1` is the hexadecimal digest of name:realm:password.
HexDigest digestResponse(DigestAlgorithm algorithm, std::string_view ha1,
                         const DigestFields& fields);

// Takes the same time wherever the texts differ.
bool equalInConstantTime(std::string_view a, std::string_view b);

// At most 256, from the system's generator. False when it failed; the bytes are then not to be
// used.
bool fillRandom(uint8_t* bytes, std::size_t count);

// The first bytes (at most 32) of SHA-256 over key and message; both of fixed length, so this is a
// keyed hash.
void keyedHash(std::string_view key, std::string_view message, uint8_t* bytes, std::size_t count);

}  // namespace qn
