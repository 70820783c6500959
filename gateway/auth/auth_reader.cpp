#include "gateway/auth/auth_reader.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "text/bytes.h"

namespace qn {
namespace {

constexpr uint8_t kTokenChar = 1;
constexpr uint8_t kBlank = 2;
constexpr uint8_t kForbidden = 4;  // anywhere, quoted strings included
constexpr uint8_t kQuoting = 8;    // what ends or escapes in a quoted string

// '/' belongs to no token but to the single values that stand in a token's place.
constexpr std::array<uint8_t, 256> characterClasses() {
  std::array<uint8_t, 256> classes{};
  for (int c = 0; c < 256; ++c) {
    if (c < 0x20 || c == 0x7f) classes[c] = kForbidden;
    if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')) {
      classes[c] = kTokenChar;
    }
  }
  for (const char c : std::string_view("!#$%&'*+-.^_`|~/")) classes[uint8_t(c)] = kTokenChar;
  classes[' '] = classes['\t'] = kBlank;
  classes['"'] = classes['\\'] = kQuoting;
  return classes;
}

constexpr std::array<uint8_t, 256> kClasses = characterClasses();

bool is(uint8_t kind, char c) { return kClasses[uint8_t(c)] == kind; }
bool isAny(uint8_t kinds, char c) { return kClasses[uint8_t(c)] & kinds; }

}  // namespace

AuthReader::Item AuthReader::next() {
  if (malformed_) return Item::Malformed;
  while (!rest_.empty() && (rest_[0] == ',' || is(kBlank, rest_[0]))) rest_.remove_prefix(1);
  if (rest_.empty()) return Item::End;
  name_ = takeToken();
  value_ = {};
  if (name_.empty()) return malformed();
  const bool ended = rest_.empty() || rest_[0] == ',' || is(kBlank, rest_[0]);
  skipBlanks();
  if (!rest_.empty() && rest_[0] == '=') {
    rest_.remove_prefix(1);
    return readValue();
  }
  return ended ? Item::Scheme : malformed();
}

AuthReader::Item AuthReader::readValue() {
  skipBlanks();
  if (!rest_.empty() && rest_[0] == '"') return readQuoted();
  value_ = takeToken();
  if (!value_.empty()) return Item::Parameter;
  while (!rest_.empty() && rest_[0] == '=') rest_.remove_prefix(1);
  return Item::Token68;
}

AuthReader::Item AuthReader::readQuoted() {
  // Nearly every string: nothing in it is escaped or forbidden.
  const std::string_view plain = rest_.substr(1, rest_.find('"', 1) - 1);
  if (plain.size() + 2 <= rest_.size() && !text::anyByte(plain, [](auto c) {
        return ((c >= 0) & (c < ' ') & (c != '\t')) | (c == 0x7f) | (c == '\\');
      })) {
    value_ = plain;
    rest_.remove_prefix(plain.size() + 2);
    return Item::Parameter;
  }
  const char* const end = rest_.data() + rest_.size();
  for (const char* c = rest_.data() + 1; c < end; ++c) {
    while (c < end && !isAny(kForbidden | kQuoting, *c)) ++c;
    if (c == end || is(kForbidden, *c)) break;
    if (*c == '"') {
      value_ = {rest_.data() + 1, c};
      rest_ = {c + 1, end};
      return Item::Parameter;
    }
    if (++c == end || is(kForbidden, *c)) break;  // what a backslash stands before
  }
  return malformed();
}

AuthReader::Item AuthReader::malformed() {
  malformed_ = true;
  return Item::Malformed;
}

std::string_view AuthReader::takeToken() {
  const char* const end = rest_.data() + rest_.size();
  const char* c = rest_.data();
  while (c < end && is(kTokenChar, *c)) ++c;
  const std::string_view token(rest_.data(), c);
  rest_ = {c, end};
  return token;
}

void AuthReader::skipBlanks() {
  while (!rest_.empty() && is(kBlank, rest_[0])) rest_.remove_prefix(1);
}

std::string unescapeQuoted(std::string_view value) {
  if (value.find('\\') == value.npos) return std::string(value);
  std::string text;
  text.reserve(value.size());
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] == '\\' && i + 1 < value.size()) ++i;
    text += value[i];
  }
  return text;
}

std::string escapeQuoted(std::string_view text) {
  std::string value;
  value.reserve(text.size());
  for (const char c : text) {
    if (c == '"' || c == '\\') value += '\\';
    value += c;
  }
  return value;
}

}  // namespace qn
