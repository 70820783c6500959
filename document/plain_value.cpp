#include "document/plain_value.h"

#include <charconv>
#include <climits>
#include <cmath>

namespace QNKAVROProtocol {
namespace {

constexpr std::size_t kMaxValues = 1024;
constexpr int kMaxDepth = 32;    // of nesting; also bounds the recursion
constexpr int kMaxInteger = 9;   // digits: always an int
constexpr int kMaxFraction = 9;  // digits: with the integer's, few enough for a double

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

const PlainValue& PlainValue::nullSingleton() {
  static const PlainValue null;
  return null;
}

bool PlainValue::isInt() const {
  return type_ == Json::intValue || (type_ == Json::realValue && std::trunc(number_) == number_);
}

// Rare: a text that is given as something else.
std::string PlainValue::asString() const {
  switch (type_) {
    case Json::stringValue:
      return std::string(text_);
    case Json::intValue:
      return Json::Value(asInt()).asString();
    case Json::realValue:
      return Json::Value(number_).asString();
    case Json::booleanValue:
      return Json::Value(asBool()).asString();
    default:
      return {};
  }
}

// Of two members with one name the last counts.
const PlainValue* PlainValue::find(const char* begin, const char* end) const {
  const std::string_view name(begin, static_cast<std::size_t>(end - begin));
  const PlainValue* found = nullptr;
  for (const PlainValue* member = first_; member != nullptr; member = member->next_) {
    if (member->name_ == name) found = member;
  }
  return found;
}

PlainJson::PlainJson() { values_.reserve(kMaxValues); }

const PlainValue* PlainJson::read(std::string_view text) {
  values_.clear();
  at_ = text.data();
  end_ = at_ + text.size();
  if (next() != '{') return nullptr;
  PlainValue* const root = add();
  return value(*root, 0) && next() == '\0' && at_ == end_ ? root : nullptr;
}

// The next character that is no blank; NUL at the end, which stands for nothing in JSON.
char PlainJson::next() {
  while (at_ != end_ && (*at_ == ' ' || *at_ == '\n' || *at_ == '\r' || *at_ == '\t')) ++at_;
  return at_ == end_ ? '\0' : *at_;
}

bool PlainJson::take(char c) {
  if (next() != c) return false;
  ++at_;
  return true;
}

PlainValue* PlainJson::add() {
  return values_.size() < kMaxValues ? &values_.emplace_back() : nullptr;
}

bool PlainJson::value(PlainValue& out, int depth) {
  switch (next()) {
    case '{':
      return depth < kMaxDepth && members(out, depth + 1);
    case '[':
      return depth < kMaxDepth && elements(out, depth + 1);
    case '"':
      out.type_ = Json::stringValue;
      return string(out.text_);
    case 't':
      return literal(out, "true", Json::booleanValue, 1);
    case 'f':
      return literal(out, "false", Json::booleanValue, 0);
    case 'n':
      return literal(out, "null", Json::nullValue, 0);
    default:
      return number(out);
  }
}

bool PlainJson::members(PlainValue& out, int depth) {
  ++at_;
  out.type_ = Json::objectValue;
  if (take('}')) return true;
  const PlainValue** link = &out.first_;
  do {
    PlainValue* const member = add();
    if (member == nullptr || next() != '"' || !string(member->name_)) return false;
    if (!take(':') || !value(*member, depth)) return false;
    *link = member;
    link = &member->next_;
    ++out.size_;
  } while (take(','));
  return take('}');
}

bool PlainJson::elements(PlainValue& out, int depth) {
  ++at_;
  out.type_ = Json::arrayValue;
  if (take(']')) return true;
  const PlainValue** link = &out.first_;
  do {
    PlainValue* const element = add();
    if (element == nullptr || !value(*element, depth)) return false;
    *link = element;
    link = &element->next_;
    ++out.size_;
  } while (take(','));
  return take(']');
}

bool PlainJson::string(std::string_view& out) {
  const char* const begin = ++at_;
  while (at_ != end_ && *at_ != '"' && *at_ != '\\') ++at_;
  if (at_ == end_ || *at_ == '\\') return false;
  out = {begin, static_cast<std::size_t>(at_++ - begin)};
  return true;
}

bool PlainJson::literal(PlainValue& out, std::string_view word, Json::ValueType type,
                        double number) {
  if (!std::string_view(at_, static_cast<std::size_t>(end_ - at_)).starts_with(word)) return false;
  at_ += word.size();
  out.type_ = type;
  out.number_ = number;
  return true;
}

bool PlainJson::number(PlainValue& out) {
  const char* const begin = at_;
  if (at_ != end_ && *at_ == '-') ++at_;
  if (!digits(kMaxInteger)) return false;
  out.type_ = Json::intValue;
  if (at_ != end_ && *at_ == '.') {
    ++at_;
    if (!digits(kMaxFraction)) return false;
    out.type_ = Json::realValue;
  }
  // An exponent, or what is no number: anything that goes on is left to the library.
  if (at_ == end_ || (*at_ != ',' && *at_ != '}' && *at_ != ']' && *at_ > ' ')) return false;
  if (std::from_chars(begin, at_, out.number_).ec != std::errc()) return false;
  if (out.type_ == Json::intValue) out.number_ += 0.0;  // integers know no negative zero
  return true;
}

bool PlainJson::digits(int most) {
  const char* const begin = at_;
  while (at_ != end_ && isDigit(*at_)) ++at_;
  return at_ != begin && at_ - begin <= most;
}

}  // namespace QNKAVROProtocol
