// Letters and blanks of protocol texts: ASCII only, whatever the locale. Used by everything above.
#pragma once

#include <algorithm>
#include <string_view>

namespace qn::text {

constexpr char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }

constexpr bool equalNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i] && lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

constexpr bool startsWithNoCase(std::string_view text, std::string_view start) {
  return text.size() >= start.size() && equalNoCase(text.substr(0, start.size()), start);
}

constexpr bool containsNoCase(std::string_view text, std::string_view part) {
  const auto same = [](char a, char b) { return lower(a) == lower(b); };
  return part.empty() ||
         std::search(text.begin(), text.end(), part.begin(), part.end(), same) != text.end();
}

// Blanks inside a header line, and between the tokens of JSON and XML.
inline constexpr std::string_view kLineBlanks = " \t";
inline constexpr std::string_view kBlanks = " \t\r\n";

constexpr std::string_view trimStart(std::string_view text, std::string_view blanks = kBlanks) {
  return text.substr(std::min(text.find_first_not_of(blanks), text.size()));
}

constexpr std::string_view trim(std::string_view text, std::string_view blanks = kLineBlanks) {
  text = trimStart(text, blanks);
  return text.substr(0, text.find_last_not_of(blanks) + 1);
}

}  // namespace qn::text
