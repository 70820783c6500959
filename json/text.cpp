#include "json/text.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "text/ascii.h"

namespace qn::json {
namespace {

// What a value, a comment or a byte-order mark begins with.
constexpr std::string_view kStarts = "{[\"-0123456789tfn/\xEF";

// In blocks whose number fits into a byte, so that the processor adds many at a time.
template <typename Test>
std::size_t countIf(std::string_view text, Test test) {
  constexpr std::size_t kBlock = 240;
  std::size_t count = 0;
  for (; text.size() >= kBlock; text.remove_prefix(kBlock)) {
    std::uint8_t ofBlock = 0;
    for (std::size_t i = 0; i < kBlock; ++i) ofBlock += test(text[i]) ? 1 : 0;
    count += ofBlock;
  }
  return count + static_cast<std::size_t>(std::ranges::count_if(text, test));
}

// By its commas: two values beside each other have one between them.
bool hasTooManyValues(std::string_view text) {
  constexpr std::size_t kMost = 1'000'000;
  return text.size() > kMost && countIf(text, [](char c) { return c == ','; }) > kMost;
}

// Each value but the first of a list or an object stands behind a comma. The library takes up to
// 190 bytes for one.
bool hasTooManyToJudge(std::string_view text) {
  constexpr std::size_t kMostJudged = 300'000;
  const auto begins = [](char c) { return c == ',' || c == '{' || c == '['; };
  return text.size() > kMostJudged && countIf(text, begins) > kMostJudged;
}

bool needsEscape(char c) {
  return static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x80 ||
         c == '"' || c == '\\';
}

}  // namespace

bool mayBeJson(std::string_view text) {
  const std::string_view start = text::trimStart(text).substr(0, 1);
  return !start.empty() && kStarts.find(start) != kStarts.npos && !hasTooManyValues(text);
}

bool parseJson(std::string_view text, Json::Value& value) {
  if (!mayBeJson(text) || hasTooManyToJudge(text)) return false;
  try {
    // Reused: constructing a reader costs more than reading a short reply.
    thread_local Json::Reader reader;
    return reader.parse(text.data(), text.data() + text.size(), value, false);
  } catch (const Json::Exception&) {  // nested too deeply
    return false;
  }
}

std::string writeJson(const Json::Value& value) { return Json::FastWriter().write(value); }

void appendQuoted(std::string& out, std::string_view text) {
  bool escapes = false;
  for (const char c : text) escapes |= needsEscape(c);
  if (escapes) {
    out += Json::valueToQuotedString(std::string(text).c_str());
    return;
  }
  out += '"';
  out += text;
  out += '"';
}

}  // namespace qn::json
