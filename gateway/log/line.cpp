// See line.h.
#include "gateway/log/line.h"

#include <algorithm>
#include <cstdint>

#include "text/hex.h"
#include "text/utf8.h"

namespace qn {
namespace {

struct Character {
  std::size_t bytes;
  bool printable;
};

bool isControl(uint32_t code) {
  return code < 0x20 || (code >= 0x7f && code < 0xa0) || code == 0x2028 || code == 0x2029;
}

// The character at the start of a text that is not empty; a bad byte counts as one on its own.
Character firstCharacter(std::string_view bytes) {
  const text::Utf8Character first = text::firstCharacter(bytes);
  return first.valid ? Character{first.size, !isControl(first.code)} : Character{1, false};
}

void appendEscaped(std::string& line, std::string_view bytes) {
  for (const char c : bytes) {
    if (c == '\n' || c == '\r' || c == '\t') {
      line += c == '\n' ? "\\n" : c == '\r' ? "\\r" : "\\t";
      continue;
    }
    line += "\\x";
    line += text::hexOf({reinterpret_cast<const uint8_t*>(&c), 1});
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
