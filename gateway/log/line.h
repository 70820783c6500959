// Makes any bytes one bounded line of valid UTF-8. Called by log.cpp for every line written.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qn {

inline constexpr std::size_t kLogLineBytes = 8 * 1024;
inline constexpr std::string_view kLogLineCut = "...[cut]";

// Newline, carriage return and tab become \n, \r and \t; other control characters, U+2028, U+2029
// and bytes that are not UTF-8 become \xNN for each byte. The result has at most kLogLineBytes
// bytes; a longer one is cut between characters and ends with kLogLineCut.
std::string logLine(std::string_view text);

}  // namespace qn
