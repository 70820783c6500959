// Text and time functions of the base library.
#include <ctime>
#include <string_view>

#include "platform/base_library.h"

namespace {

bool isXssInvalid(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7F || c == '<' || c == '>' || c == '"' || c == '\'';
}

// ISO 8601 local time with its offset from UTC.
std::string localTimeText(std::time_t time) {
  std::tm local{};
  localtime_r(&time, &local);
  char text[40];
  std::size_t length = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S%z", &local);
  std::string result(text, length);
  result.insert(length - 2, 1, ':');  // the offset comes as +hhmm
  return result;
}

}  // namespace

std::string StringEraseXssInvalidChar(const std::string& text) {
  std::string kept(text);
  std::erase_if(kept, isXssInvalid);
  return kept;
}

std::string getISO8601Time() { return localTimeText(std::time(nullptr)); }

std::string GetCurTime8601(std::string& text, int offsetSeconds) {
  text = localTimeText(std::time(nullptr) + offsetSeconds);
  return text;
}
