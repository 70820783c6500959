#include "protocol/plain_json.h"

#include <charconv>
#include <cstdint>
#include <cstring>

namespace QNKAVROProtocol {
namespace {

constexpr int kMaxDepth = 64;   // of nesting; also bounds the recursion
constexpr int kMaxDigits = 18;  // fit 64 bits, before and after a point

constexpr std::uint64_t kEachByte = 0x0101010101010101;

// Non-zero when one of the eight bytes is `byte`.
std::uint64_t findByte(std::uint64_t bytes, char byte) {
  const std::uint64_t zeroWhereEqual = bytes ^ (kEachByte * static_cast<unsigned char>(byte));
  return (zeroWhereEqual - kEachByte) & ~zeroWhereEqual & (kEachByte * 0x80);
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isHex(char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

class PlainReader {
 public:
  explicit PlainReader(std::string_view text) : at_(text.data()), end_(at_ + text.size()) {}

  bool read() {
    const char first = next();
    return (first == '{' || first == '[') && value(0);
  }
  const DeviceCodes& codes() const { return codes_; }

 private:
  // The next character that is no blank; NUL at the end, which stands for nothing in JSON.
  char next() {
    while (at_ != end_ && (*at_ == ' ' || *at_ == '\n' || *at_ == '\r' || *at_ == '\t')) ++at_;
    return at_ == end_ ? '\0' : *at_;
  }

  bool take(char c) {
    if (next() != c) return false;
    ++at_;
    return true;
  }

  bool value(int depth) {
    switch (next()) {
      case '{':
        return depth < kMaxDepth && object(depth + 1);
      case '[':
        return depth < kMaxDepth && array(depth + 1);
      case '"':
        return string();
      case 't':
        return literal("true");
      case 'f':
        return literal("false");
      case 'n':
        return literal("null");
      default:
        return number();
    }
  }

  bool object(int depth) {
    ++at_;
    if (take('}')) return true;
    do {
      if (next() != '"') return false;
      const char* const name = at_ + 1;
      if (!string()) return false;
      const std::string_view nameText(name, static_cast<std::size_t>(at_ - name - 1));
      if (!take(':')) return false;
      next();
      const char* const begin = at_;
      if (!value(depth)) return false;
      if (depth == 1 && !note(nameText, {begin, static_cast<std::size_t>(at_ - begin)})) {
        return false;
      }
    } while (take(','));
    return take('}');
  }

  bool array(int depth) {
    ++at_;
    if (take(']')) return true;
    do {
      if (!value(depth)) return false;
    } while (take(','));
    return take(']');
  }

  // A member of the root. Of two with one name the last counts.
  bool note(std::string_view name, std::string_view text) {
    if (name.find('\\') != name.npos) return false;  // any name, in escapes
    if (name == "errorCode") return noteCode(codes_.errorCode, text);
    return name != "statusCode" || noteCode(codes_.statusCode, text);
  }

  static bool noteCode(std::optional<int>& code, std::string_view text) {
    code.reset();
    if (text[0] != '-' && !isDigit(text[0])) return true;
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (end != text.data() + text.size()) return false;  // a fraction, which may be integral
    if (error == std::errc()) code = number;
    return true;
  }

  bool string() {
    ++at_;
    for (;;) {
      skipPlain();
      if (at_ == end_) return false;
      if (*at_++ == '"') return true;
      if (!escape()) return false;
    }
  }

  // To the next quote or backslash.
  void skipPlain() {
    for (; end_ - at_ >= 8; at_ += 8) {
      std::uint64_t bytes;
      std::memcpy(&bytes, at_, sizeof bytes);
      if ((findByte(bytes, '"') | findByte(bytes, '\\')) != 0) break;
    }
    while (at_ != end_ && *at_ != '"' && *at_ != '\\') ++at_;
  }

  // Stands behind the backslash.
  bool escape() {
    if (at_ == end_) return false;
    const char c = *at_++;
    if (c == 'u') return fourHexDigits();
    return c != '\0' && std::strchr("\"\\/bfnrt", c) != nullptr;
  }

  // Half of a surrogate pair begins with a D.
  bool fourHexDigits() {
    if (end_ - at_ < 4 || *at_ == 'd' || *at_ == 'D') return false;
    for (int i = 0; i < 4; ++i) {
      if (!isHex(*at_++)) return false;
    }
    return true;
  }

  bool literal(std::string_view text) {
    if (!std::string_view(at_, static_cast<std::size_t>(end_ - at_)).starts_with(text)) {
      return false;
    }
    at_ += text.size();
    return true;
  }

  bool number() {
    if (at_ != end_ && *at_ == '-') ++at_;
    if (!digits()) return false;
    if (at_ == end_ || *at_ != '.') return true;
    ++at_;
    return digits();
  }

  bool digits() {
    const char* const begin = at_;
    while (at_ != end_ && isDigit(*at_)) ++at_;
    return at_ != begin && at_ - begin <= kMaxDigits;
  }

  const char* at_;
  const char* const end_;
  DeviceCodes codes_;
};

}  // namespace

std::optional<DeviceCodes> codesOfPlainJson(std::string_view text) {
  PlainReader reader(text);
  if (!reader.read()) return std::nullopt;
  return reader.codes();
}

}  // namespace QNKAVROProtocol
