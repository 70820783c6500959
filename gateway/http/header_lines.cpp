// See header_lines.h.
#include "gateway/http/header_lines.h"

#include <boost/beast/core/string.hpp>

namespace qn {

bool equalNoCase(std::string_view a, std::string_view b) {
  return boost::beast::iequals({a.data(), a.size()}, {b.data(), b.size()});
}

std::string_view trimBlanks(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

HeaderLine findHeader(std::string_view block, std::string_view name, std::size_t from) {
  for (std::size_t start = from; start < block.size();) {
    const std::size_t end = block.find('\n', start) + 1;
    if (end == 0) break;
    const std::string_view line = block.substr(start, end - start);
    if (line.size() > name.size() && line[name.size()] == ':' &&
        equalNoCase(line.substr(0, name.size()), name)) {
      const std::string_view value = line.substr(name.size() + 1, line.size() - name.size() - 3);
      return {start, end, trimBlanks(value)};
    }
    start = end;
  }
  return {};
}

}  // namespace qn
