// Finds lines in a block of header lines. Used on the requests' heads and the answers being made.
#pragma once

#include <cstddef>
#include <string_view>

#include "text/ascii.h"

namespace qn {

// Where a line starts, its end with the CRLF, and its value without blanks around it.
struct HeaderLine {
  std::size_t start = std::string_view::npos;
  std::size_t end = 0;
  std::string_view value;

  bool found() const { return start != std::string_view::npos; }
};

// The first line of that name at or after `from`, where a line starts.
inline HeaderLine findHeader(std::string_view block, std::string_view name, std::size_t from = 0) {
  for (std::size_t start = from; start < block.size();) {
    const std::size_t end = block.find('\n', start) + 1;
    if (end == 0) break;
    const std::string_view line = block.substr(start, end - start);
    if (line.size() > name.size() && line[name.size()] == ':' &&
        text::startsWithNoCase(line, name)) {
      const std::string_view value = line.substr(name.size() + 1, line.size() - name.size() - 3);
      return {start, end, text::trim(value)};
    }
    start = end;
  }
  return {};
}

}  // namespace qn
