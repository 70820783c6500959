#include "gateway/alarmbus/alarm_text.h"

#include <array>

namespace qn {
namespace {

using Marks = std::array<bool, 256>;

constexpr Marks marks(std::string_view characters) {
  Marks marks{};
  for (const char c : characters) marks[static_cast<unsigned char>(c)] = true;
  return marks;
}

constexpr Marks kInString = marks("\"\\");
constexpr Marks kOutside = marks("\"{}[]/");

}  // namespace

std::size_t JsonScanner::skip(std::string_view text, std::size_t from) const {
  if (escaped_) return from;
  const Marks& stops = inString_ ? kInString : kOutside;
  while (from < text.size() && !stops[static_cast<unsigned char>(text[from])]) ++from;
  return from;
}

JsonScanner::Event JsonScanner::step(char c) {
  if (inString_) {
    if (escaped_) {
      escaped_ = false;
    } else if (c == '\\') {
      escaped_ = true;
    } else if (c == '"') {
      inString_ = false;
    }
    return Event::Inside;
  }
  switch (c) {
    case '"':
      inString_ = true;
      return Event::Inside;
    case '{':
    case '[':
      ++depth_;
      return Event::Inside;
    case '}':
    case ']':
      return close();
    case '/':  // readers that accept comments would see another nesting than this one
      return Event::NotJson;
    default:
      return Event::Inside;
  }
}

JsonScanner::Event JsonScanner::close() {
  switch (--depth_) {
    case 0:
      return Event::RootEnd;
    case 1:
      return Event::MemberObjectEnd;
    default:
      return depth_ < 0 ? Event::NotJson : Event::Inside;
  }
}

bool setDeviceIndex(std::string_view alarm, std::string_view quotedIndex, std::string& out) {
  const auto begin = alarm.find_first_not_of(" \t\r\n");
  if (begin == std::string_view::npos || alarm[begin] != '{') return false;
  out.clear();
  out.reserve(alarm.size() + quotedIndex.size() + 16);
  JsonScanner scanner;
  std::size_t copied = begin;
  for (auto i = begin; (i = scanner.skip(alarm, i)) < alarm.size(); ++i) {
    switch (scanner.step(alarm[i])) {
      case JsonScanner::Event::Inside:
        break;
      case JsonScanner::Event::MemberObjectEnd:
        if (alarm[i] != '}') break;  // an array
        out.append(alarm, copied, i - copied);
        copied = i;
        if (out[out.find_last_not_of(" \t\r\n")] != '{') out += ',';
        out.append("\"devIndex\":").append(quotedIndex);
        break;
      case JsonScanner::Event::RootEnd:
        out.append(alarm, copied, i + 1 - copied);
        return true;
      case JsonScanner::Event::NotJson:
        return false;
    }
  }
  return false;
}

}  // namespace qn
