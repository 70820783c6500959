#include "protocol/url_numbers.h"

#include <algorithm>
#include <charconv>

#include "platform/rest_protocol.h"

namespace QNKAVROProtocol {

bool readUrlNumbers(std::string_view url, std::string_view pattern, std::span<int> numbers) {
  std::ranges::fill(numbers, 0);
  if (!QNBase::CRESTfulProtocol::cmpURLWithInt(url, pattern, static_cast<int>(numbers.size()))) {
    return false;
  }
  for (int& number : numbers) {
    const std::size_t literal = pattern.find("%d");
    pattern.remove_prefix(literal + 2);
    url.remove_prefix(literal);
    const char* end = std::from_chars(url.data(), url.data() + url.size(), number).ptr;
    url.remove_prefix(static_cast<std::size_t>(end - url.data()));
  }
  return true;
}

}  // namespace QNKAVROProtocol
