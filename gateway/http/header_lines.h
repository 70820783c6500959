// Finds lines in a block of header lines. Used on the requests' heads and the answers being made.
#pragma once

#include <cstddef>
#include <string_view>

namespace qn {

bool equalNoCase(std::string_view a, std::string_view b);
// Without the blanks and tabs around it.
std::string_view trimBlanks(std::string_view text);

// Where a line starts, its end with the CRLF, and its value without blanks around it.
struct HeaderLine {
  std::size_t start = std::string_view::npos;
  std::size_t end = 0;
  std::string_view value;

  bool found() const { return start != std::string_view::npos; }
};

// The first line of that name at or after `from`, where a line starts.
HeaderLine findHeader(std::string_view block, std::string_view name, std::size_t from = 0);

}  // namespace qn
