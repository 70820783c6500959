#include "json/text.h"

#include <algorithm>

#include "text/ascii.h"

namespace qn::json {
namespace {

// By its commas: two values beside each other have one between them.
bool hasTooManyValues(std::string_view text) {
  constexpr std::size_t kMost = 1'000'000;
  return text.size() > kMost && std::ranges::count(text, ',') > std::ptrdiff_t{kMost};
}

// Each value but the first of a list or an object stands behind a comma. The library takes up to
// 190 bytes for one.
bool hasTooManyToJudge(std::string_view text) {
  constexpr std::size_t kMostJudged = 300'000;
  const auto begins = [](char c) { return c == ',' || c == '{' || c == '['; };
  return text.size() > kMostJudged &&
         std::ranges::count_if(text, begins) > std::ptrdiff_t{kMostJudged};
}

bool needsEscape(char c) {
  return static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x80 ||
         c == '"' || c == '\\';
}

}  // namespace

bool mayBeJson(std::string_view text) {
  return !text.empty() && !text::trimStart(text).starts_with('<') && !hasTooManyValues(text);
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
  if (std::ranges::any_of(text, needsEscape)) {
    out += Json::valueToQuotedString(std::string(text).c_str());
  } else {
    out.append(1, '"').append(text).append(1, '"');
  }
}

}  // namespace qn::json
