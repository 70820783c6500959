// Characters of UTF-8 texts.
#pragma once

#include <string>
#include <string_view>

namespace qn::text {

struct Utf8Character {
  char32_t code;
  std::size_t size;  // for invalid bytes: how many of them one replacement stands for
  bool valid;
};

inline constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

// The character at the start of non-empty bytes. Overlong forms and surrogates are invalid.
Utf8Character firstCharacter(std::string_view bytes);

// `code` is a Unicode scalar value.
void appendUtf8(char32_t code, std::string& out);

}  // namespace qn::text
