#include "document/json_text.h"

#include <algorithm>

namespace QNKAVROProtocol {
namespace {

// A device's plain XML needs no reader to be refused: no JSON value begins with '<'.
bool beginsLikeXml(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  return first != std::string_view::npos && text[first] == '<';
}

// By its commas: two values beside each other have one between them.
bool hasTooManyValues(std::string_view text) {
  constexpr std::size_t kMost = 1'000'000;
  return text.size() > kMost && std::ranges::count(text, ',') > std::ptrdiff_t{kMost};
}

}  // namespace

bool parseJson(std::string_view text, Json::Value& value) {
  if (text.empty() || beginsLikeXml(text) || hasTooManyValues(text)) return false;
  try {
    // Reused: constructing a reader costs more than reading a short reply.
    thread_local Json::Reader reader;
    return reader.parse(text.data(), text.data() + text.size(), value, false);
  } catch (const Json::Exception&) {  // nested too deeply
    return false;
  }
}

std::string writeJson(const Json::Value& value) { return Json::FastWriter().write(value); }

}  // namespace QNKAVROProtocol
