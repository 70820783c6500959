// See log.h and platform/wlog.h.
#include "gateway/log/log.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>

#include "gateway/log/access_log.h"
#include "gateway/log/line.h"
#include "gateway/log/record.h"
#include "gateway/log/request_id.h"
#include "gateway/log/secrets.h"
#include "platform/wlog.h"

namespace qn {
namespace {

template <class Value, std::size_t N>
using Names = std::array<std::pair<std::string_view, Value>, N>;

constexpr Names<LogLevel, 4> kLevelNames{{{"debug", LogLevel::Debug},
                                          {"info", LogLevel::Info},
                                          {"warn", LogLevel::Warn},
                                          {"error", LogLevel::Error}}};
constexpr Names<bool, 2> kFormatNames{{{"text", false}, {"json", true}}};
constexpr Names<AccessLog, 3> kAccessNames{
    {{"none", AccessLog::None}, {"errors", AccessLog::Errors}, {"all", AccessLog::All}}};

template <class Value, std::size_t N>
Value valueOf(const Names<Value, N>& names, std::string_view name, const char* what) {
  for (const auto& [known, value] : names) {
    if (name == known) return value;
  }
  throw std::invalid_argument(fmt::format("unknown {} \"{}\"", what, name));
}

void writeLine(LogLevel level, std::string_view tag, std::string_view text) {
  std::string safe = withoutSecrets(text);
  if (level > LogLevel::Debug) safe = withShortDocument(std::move(safe));
  LogRecord record(tag, logLine(safe));
  const std::string_view request = RequestIdScope::current();
  if (!request.empty()) record.add("request", request);
  record.write(level);
}

// Callers log between a failure and reading its errno.
class KeepErrno {
 public:
  ~KeepErrno() { errno = saved_; }

 private:
  const int saved_ = errno;
};

// The module's dumps and traces are the gateway's debug level.
LogLevel levelOfModule(int wlogLevel) {
  if (wlogLevel >= WLOG_ERROR) return LogLevel::Error;
  return wlogLevel == WLOG_WARN ? LogLevel::Warn : LogLevel::Debug;
}

}  // namespace

void setLogLevel(std::string_view name) {
  log_detail::threshold.store(valueOf(kLevelNames, name, "log level"), std::memory_order_relaxed);
}

void setLogOptions(const LogOptions& options) {
  const LogLevel level = valueOf(kLevelNames, options.level, "log level");
  const bool json = valueOf(kFormatNames, options.format, "log format");
  setAccessLog(valueOf(kAccessNames, options.access, "access log"));
  LogRecord::useJson(json);
  log_detail::threshold.store(level, std::memory_order_relaxed);
}

void log_detail::write(LogLevel level, fmt::string_view format, fmt::format_args args) noexcept {
  const KeepErrno keepErrno;
  try {
    writeLine(level, "gateway", fmt::vformat(format, args));
  } catch (...) {
    // Out of memory, or an argument's formatter threw: the line is lost.
  }
}

}  // namespace qn

void wlog_format(int level, const char* tag, const char* format, ...) {
  const qn::LogLevel own = qn::levelOfModule(level);
  if (!qn::isLogged(own)) return;
  const qn::KeepErrno keepErrno;
  char text[qn::kLogLineBytes + 2];  // one more than a line, so that logLine sees that it is cut
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  try {
    qn::writeLine(own, tag, length < 0 ? format : text);
  } catch (...) {
    // Out of memory: the line is lost.
  }
}
