#include "gateway/base/xml_text.h"

#include <array>
#include <charconv>
#include <cstdint>

namespace qn {
namespace {

struct Utf8Character {
  char32_t code;
  std::size_t size;  // for invalid bytes: how many of them one replacement stands for
  bool valid;
};

// The character at the start of non-empty bytes. Overlong forms and surrogates are invalid.
Utf8Character FirstCharacter(std::string_view bytes) {
  const auto lead = static_cast<unsigned char>(bytes[0]);
  if (lead < 0x80) return {lead, 1, true};
  if (lead < 0xC2 || lead > 0xF4) return {0, 1, false};
  const std::size_t size = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  unsigned char low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  unsigned char high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  char32_t code = lead & (0x7Fu >> size);
  for (std::size_t i = 1; i < size; ++i) {
    if (i == bytes.size()) return {0, i, false};
    const auto next = static_cast<unsigned char>(bytes[i]);
    if (next < low || next > high) return {0, i, false};
    code = code << 6 | (next & 0x3Fu);
    low = 0x80;
    high = 0xBF;
  }
  return {code, size, true};
}

constexpr bool IsXmlCharacter(char32_t code) {
  return code == '\t' || code == '\n' || code == '\r' || (code >= 0x20 && code <= 0xD7FF) ||
         (code >= 0xE000 && code <= 0xFFFD) || (code >= 0x10000 && code <= 0x10FFFF);
}

// Bytes that are copied without a further look, one table for each use.
using ByteSet = std::array<bool, 256>;

constexpr ByteSet PlainBytesWithout(std::string_view special) {
  ByteSet plain{};
  for (unsigned char byte = 0; byte < 0x80; ++byte) {
    plain[byte] = IsXmlCharacter(byte) && special.find(static_cast<char>(byte)) == special.npos;
  }
  return plain;
}
constexpr ByteSet kPlain = PlainBytesWithout("");
constexpr ByteSet kPlainInText = PlainBytesWithout("&<>\r");
constexpr ByteSet kPlainInAttribute = PlainBytesWithout("&<>\"\r\n\t");

std::size_t PrefixOf(const ByteSet& plain, std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && plain[static_cast<unsigned char>(text[i])]) ++i;
  return i;
}

void AppendUtf8(char32_t code, std::string& out) {
  const auto tail = [&](int shift) { out += static_cast<char>(0x80 | ((code >> shift) & 0x3F)); };
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | (code >> 6));
    tail(0);
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0 | (code >> 12));
    tail(6);
    tail(0);
  } else {
    out += static_cast<char>(0xF0 | (code >> 18));
    tail(12);
    tail(6);
    tail(0);
  }
}

struct Entity {
  std::string_view name;
  char character;
};
constexpr std::array<Entity, 5> kEntities = {
    {{"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}}};

// `digits`: what stands between "&#" and ";".
bool AppendNumbered(std::string_view digits, std::string& out) {
  const bool hex = digits.starts_with('x');
  if (hex) digits.remove_prefix(1);
  std::uint32_t code = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, code, hex ? 16 : 10);
  if (error != std::errc() || stop != end || !IsXmlCharacter(code)) return false;
  AppendUtf8(code, out);
  return true;
}

// `body`: what stands between "&" and ";".
bool AppendReferenced(std::string_view body, std::string& out) {
  if (body.starts_with('#')) return AppendNumbered(body.substr(1), out);
  for (const Entity& entity : kEntities) {
    if (body != entity.name) continue;
    out += entity.character;
    return true;
  }
  return false;
}

// A character of one byte as a reference, others as they are.
void AppendCharacter(std::string_view character, std::string& out) {
  if (character.size() > 1) {
    out += character;
    return;
  }
  for (const Entity& entity : kEntities) {
    if (entity.character != character[0]) continue;
    out.append("&").append(entity.name).append(";");
    return;
  }
  out.append("&#").append(std::to_string(character[0])).append(";");
}

}  // namespace

bool IsXmlText(std::string_view text) {
  for (;;) {
    text.remove_prefix(PrefixOf(kPlain, text));
    if (text.empty()) return true;
    const Utf8Character first = FirstCharacter(text);
    if (!first.valid || !IsXmlCharacter(first.code)) return false;
    text.remove_prefix(first.size);
  }
}

void AppendEscaped(std::string_view text, XmlPlace place, std::string& out) {
  const ByteSet& plain = place == XmlPlace::kText ? kPlainInText : kPlainInAttribute;
  for (;;) {
    const std::size_t size = PrefixOf(plain, text);
    out.append(text.substr(0, size));
    text.remove_prefix(size);
    if (text.empty()) return;
    const Utf8Character first = FirstCharacter(text);
    if (!first.valid) {
      out += "\xEF\xBF\xBD";
    } else if (IsXmlCharacter(first.code)) {
      AppendCharacter(text.substr(0, first.size), out);
    }
    text.remove_prefix(first.size);
  }
}

bool AppendDecoded(std::string_view raw, std::string& out) {
  for (;;) {
    const std::size_t mark = raw.find('&');
    out.append(raw.substr(0, mark));
    if (mark == raw.npos) return true;
    const std::size_t end = raw.find(';', mark);
    if (end == raw.npos) return false;
    if (!AppendReferenced(raw.substr(mark + 1, end - mark - 1), out)) return false;
    raw.remove_prefix(end + 1);
  }
}

}  // namespace qn
