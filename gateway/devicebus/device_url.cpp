#include "gateway/devicebus/device_url.h"

#include <algorithm>
#include <cstdint>

#include "text/bytes.h"
#include "text/number.h"

namespace qn::devicebus {
namespace {

// A "%" that no two hexadecimal digits follow stands for itself.
std::string decoded(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = text[i] == '%' && i + 2 < text.size()
                          ? text::wholeNumber<uint8_t>(text.substr(i + 1, 2), 16)
                          : std::nullopt;
    if (byte) i += 2;
    result += byte ? static_cast<char>(*byte) : text[i] == '+' ? ' ' : text[i];
  }
  return result;
}

bool isDevIndex(std::string_view name) {
  constexpr std::string_view kName = "devIndex";
  return name == kName || (name.find('%') != name.npos && decoded(name) == kName);
}

// Whether a server may take a segment of the path for the folder above. Servers differ in what they
// decode first, in what ends a segment and in what a segment's parameters are.
bool climbs(std::string_view path) {
  if (path.find('.') == path.npos && path.find('%') == path.npos) return false;
  const std::string plain = decoded(path);
  for (std::size_t at = plain.find(".."); at != plain.npos; at = plain.find("..", at + 1)) {
    constexpr std::string_view kBefore = "/\\";
    constexpr std::string_view kAfter("/\\;\0", 4);
    const bool begins = at > 0 && kBefore.find(plain[at - 1]) != kBefore.npos;
    const bool ends = at + 2 == plain.size() || kAfter.find(plain[at + 2]) != kAfter.npos;
    if (begins && ends) return true;
  }
  return false;
}

}  // namespace

std::string namedDevice(std::string_view url) {
  const std::size_t question = url.find('?');
  if (question == url.npos) return {};
  std::string_view query = url.substr(question + 1);
  while (!query.empty()) {
    const std::size_t separator = query.rfind('&');
    const std::size_t start = separator == query.npos ? 0 : separator + 1;
    const std::string_view parameter = query.substr(start);
    const std::size_t equals = parameter.find('=');
    if (equals != parameter.npos && isDevIndex(parameter.substr(0, equals))) {
      return decoded(parameter.substr(equals + 1));
    }
    query = query.substr(0, separator == query.npos ? 0 : separator);
  }
  return {};
}

bool isRequestTarget(std::string_view url) {
  const auto unsendable = [](auto c) { return ((c >= 0) & (c <= ' ')) | (c == 0x7F) | (c == '#'); };
  return url.starts_with('/') && !text::anyByte(url, unsendable) &&
         !climbs(url.substr(0, url.find('?')));
}

}  // namespace qn::devicebus
