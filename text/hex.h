// Bytes as lower-case hexadecimal digits.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "text/ascii.h"

namespace qn::text {

inline constexpr std::string_view kHexDigits = "0123456789abcdef";

// Two digits for each byte; `text` has room for them. No zero at the end. Returns the place behind.
constexpr char* writeHex(std::span<const uint8_t> bytes, char* text) {
  for (const uint8_t byte : bytes) {
    *text++ = kHexDigits[byte >> 4];
    *text++ = kHexDigits[byte & 15];
  }
  return text;
}

inline std::string hexOf(std::span<const uint8_t> bytes) {
  std::string text(2 * bytes.size(), '0');
  writeHex(bytes, text.data());
  return text;
}

constexpr bool isHexDigit(char c) { return isDigit(c) || (lower(c) >= 'a' && lower(c) <= 'f'); }

// Digits of either case only; an empty text counts.
constexpr bool isHex(std::string_view text) { return std::ranges::all_of(text, isHexDigit); }

}  // namespace qn::text
