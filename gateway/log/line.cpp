// See line.h.
#include "gateway/log/line.h"

#include <algorithm>
#include <cstdint>

namespace qn {
namespace {

struct Character {
  std::size_t bytes;
  bool printable;
};

bool isControl(uint32_t code) {
  return code < 0x20 || (code >= 0x7f && code < 0xa0) || code == 0x2028 || code == 0x2029;
}

bool isUnicode(uint32_t code, std::size_t bytes) {
  constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};  // shorter forms are forbidden
  return code >= kSmallest[bytes] && code <= 0x10ffff && (code < 0xd800 || code > 0xdfff);
}

// The character at the start of a text that is not empty; a bad byte counts as one on its own.
Character firstCharacter(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return {1, !isControl(lead)};
  const std::size_t bytes = lead >= 0xf8 ? 0 : lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
  if (bytes == 0 || lead < 0xc0 || text.size() < bytes) return {1, false};
  uint32_t code = lead & (0x7fu >> bytes);
  for (std::size_t i = 1; i < bytes; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return {1, false};
    code = code << 6 | (byte(i) & 0x3fu);
  }
  if (!isUnicode(code, bytes)) return {1, false};
  return {bytes, !isControl(code)};
}

void appendEscaped(std::string& line, std::string_view bytes) {
  constexpr char kHex[] = "0123456789abcdef";
  for (const char c : bytes) {
    if (c == '\n' || c == '\r' || c == '\t') {
      line += c == '\n' ? "\\n" : c == '\r' ? "\\r" : "\\t";
      continue;
    }
    line += "\\x";
    line += kHex[static_cast<unsigned char>(c) >> 4];
    line += kHex[static_cast<unsigned char>(c) & 0xf];
  }
}

}  // namespace

std::string logLine(std::string_view text) {
  std::string line;
  line.reserve(std::min(text.size(), kLogLineBytes) + kLogLineCut.size());
  std::size_t cut = 0;  // where the line ends if it has to make room for the mark
  while (!text.empty()) {
    const Character next = firstCharacter(text);
    if (next.printable) {
      line.append(text, 0, next.bytes);
    } else {
      appendEscaped(line, text.substr(0, next.bytes));
    }
    if (line.size() > kLogLineBytes) return line.replace(cut, std::string::npos, kLogLineCut);
    if (line.size() <= kLogLineBytes - kLogLineCut.size()) cut = line.size();
    text.remove_prefix(next.bytes);
  }
  return line;
}

}  // namespace qn
