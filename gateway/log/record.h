// One line of the log: a text and named values, written as text or as a JSON object, whichever is
// in force. Used by log.cpp and access_log.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "gateway/log/log.h"

namespace qn {

class LogRecord {
 public:
  // The text is in order, as line.h and secrets.h leave it; empty: values only.
  LogRecord(std::string_view tag, std::string_view text);

  // Any text; names are plain words.
  void add(std::string_view name, std::string_view value);
  void add(std::string_view name, uint64_t value);

  void write(LogLevel level);

  static void useJson(bool json);

 private:
  std::string& begin(std::string_view name);

  const bool json_;
  const std::string_view tag_;
  std::string line_;
};

}  // namespace qn
