#include "text/xml.h"

#include <array>
#include <cstdint>

#include "text/bytes.h"
#include "text/number.h"
#include "text/utf8.h"

namespace qn::text {
namespace {

constexpr bool isXmlCharacter(char32_t code) {
  return code == '\t' || code == '\n' || code == '\r' || (code >= 0x20 && code <= 0xD7FF) ||
         (code >= 0xE000 && code <= 0xFFFD) || (code >= 0x10000 && code <= 0x10FFFF);
}

// Bytes that are copied without a further look, one table for each use.
using ByteSet = std::array<bool, 256>;

constexpr ByteSet plainBytesWithout(std::string_view special) {
  ByteSet plain{};
  for (unsigned char byte = 0; byte < 0x80; ++byte) {
    plain[byte] = isXmlCharacter(byte) && special.find(static_cast<char>(byte)) == special.npos;
  }
  return plain;
}
constexpr ByteSet kPlain = plainBytesWithout("");
constexpr ByteSet kPlainInText = plainBytesWithout("&<>\r");
constexpr ByteSet kPlainInAttribute = plainBytesWithout("&<>\"\r\n\t");

std::size_t plainPrefix(const ByteSet& plain, std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && plain[static_cast<unsigned char>(text[i])]) ++i;
  return i;
}

constexpr bool isOther(unsigned char byte) {
  const bool blank = byte == '\t' || byte == '\n' || byte == '\r';
  return byte >= 0x80 || (byte < 0x20 && !blank);
}

// How much at the start is in blocks of XML's ASCII characters. The processor looks at the bytes of
// a block together.
std::size_t plainBlocks(std::string_view text) {
  constexpr std::size_t kBlock = 32;
  std::size_t i = 0;
  for (; i + kBlock <= text.size(); i += kBlock) {
    std::uint8_t other = 0;
    for (std::size_t k = 0; k < kBlock; ++k) {
      other |= std::uint8_t{isOther(static_cast<unsigned char>(text[i + k]))};
    }
    if (other != 0) break;
  }
  return i;
}

struct Entity {
  std::string_view name;
  char character;
};
constexpr std::array<Entity, 5> kEntities = {
    {{"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}}};

// `digits`: what stands between "&#" and ";".
bool appendNumbered(std::string_view digits, std::string& out) {
  const bool hex = digits.starts_with('x');
  if (hex) digits.remove_prefix(1);
  const auto code = wholeNumber<std::uint32_t>(digits, hex ? 16 : 10);
  if (!code || !isXmlCharacter(*code)) return false;
  appendUtf8(*code, out);
  return true;
}

// `body`: what stands between "&" and ";".
bool appendReferenced(std::string_view body, std::string& out) {
  if (body.starts_with('#')) return appendNumbered(body.substr(1), out);
  for (const Entity& entity : kEntities) {
    if (body != entity.name) continue;
    out += entity.character;
    return true;
  }
  return false;
}

// A character of one byte as a reference, others as they are.
void appendCharacter(std::string_view character, std::string& out) {
  if (character.size() > 1) {
    out += character;
    return;
  }
  for (const Entity& entity : kEntities) {
    if (entity.character != character[0]) continue;
    out.append("&").append(entity.name).append(";");
    return;
  }
  out.append("&#").append(Decimal(+character[0]).view()).append(";");
}

}  // namespace

bool isXmlText(std::string_view text) {
  for (;;) {
    text.remove_prefix(plainBlocks(text));
    text.remove_prefix(plainPrefix(kPlain, text));
    if (text.empty()) return true;
    const Utf8Character first = firstCharacter(text);
    if (!first.valid || !isXmlCharacter(first.code)) return false;
    text.remove_prefix(first.size);
  }
}

void appendEscapedXml(std::string_view text, XmlPlace place, std::string& out) {
  const ByteSet& plain = place == XmlPlace::Text ? kPlainInText : kPlainInAttribute;
  for (;;) {
    const std::size_t size = plainPrefix(plain, text);
    out.append(text.substr(0, size));
    text.remove_prefix(size);
    if (text.empty()) return;
    const Utf8Character first = firstCharacter(text);
    if (!first.valid) {
      out += kReplacement;
    } else if (isXmlCharacter(first.code)) {
      appendCharacter(text.substr(0, first.size), out);
    }
    text.remove_prefix(first.size);
  }
}

bool isPlainXml(std::string_view text) {
  return !anyByte(text, [](auto byte) {  // those from 0x80 on are below 0 here
    return (byte < 0x20) | (byte == '&') | (byte == '<') | (byte == '>');
  });
}

bool appendDecodedXml(std::string_view raw, std::string& out) {
  for (;;) {
    const std::size_t mark = raw.find('&');
    out.append(raw.substr(0, mark));
    if (mark == raw.npos) return true;
    const std::size_t end = raw.find(';', mark);
    if (end == raw.npos) return false;
    if (!appendReferenced(raw.substr(mark + 1, end - mark - 1), out)) return false;
    raw.remove_prefix(end + 1);
  }
}

}  // namespace qn::text
