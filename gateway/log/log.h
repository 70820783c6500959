// The gateway's log: the host's side of platform/wlog.h and the gateway's own lines. A line is:
// local time with milliseconds and offset, level, [tag], text, and the id of the request that it is
// about; or the same as a JSON object. Where lines go, output.h decides.
#pragma once

#include <fmt/core.h>

#include <atomic>
#include <string>
#include <string_view>
#include <utility>

namespace qn {

enum class LogLevel : int { Debug, Info, Warn, Error };

struct LogOptions {
  std::string level = "info";   // debug, info, warn, error
  std::string format = "text";  // text, json
  std::string access = "none";  // none, errors, all
  std::string file;             // none: standard error

  bool operator==(const LogOptions&) const = default;
};

// Level, format and access; the defaults are in force at the start. Throws std::invalid_argument
// for any other value. Any thread, at any time.
void setLogOptions(const LogOptions& options);
void setLogLevel(std::string_view name);

namespace log_detail {
inline std::atomic<LogLevel> threshold{LogLevel::Info};
void write(LogLevel level, fmt::string_view format, fmt::format_args args) noexcept;
}  // namespace log_detail

inline bool isLogged(LogLevel level) {
  return level >= log_detail::threshold.load(std::memory_order_relaxed);
}

// One line of the gateway's own, under the tag "gateway", formatted as {fmt} does. Any thread; any
// text is safe, see line.h. Never throws: a line that cannot be formatted or written is lost.
template <class... Args>
void logAt(LogLevel level, fmt::format_string<Args...> format, Args&&... args) {
  if (isLogged(level)) log_detail::write(level, format, fmt::make_format_args(args...));
}
template <class... Args>
void logDebug(fmt::format_string<Args...> format, Args&&... args) {
  logAt(LogLevel::Debug, format, std::forward<Args>(args)...);
}
template <class... Args>
void logInfo(fmt::format_string<Args...> format, Args&&... args) {
  logAt(LogLevel::Info, format, std::forward<Args>(args)...);
}
template <class... Args>
void logWarn(fmt::format_string<Args...> format, Args&&... args) {
  logAt(LogLevel::Warn, format, std::forward<Args>(args)...);
}
template <class... Args>
void logError(fmt::format_string<Args...> format, Args&&... args) {
  logAt(LogLevel::Error, format, std::forward<Args>(args)...);
}

}  // namespace qn
