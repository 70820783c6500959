// See log.h and platform/wlog.h.
#include "gateway/log/log.h"

#include <spdlog/sinks/stdout_sinks.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>

#include "gateway/log/line.h"
#include "gateway/log/secrets.h"
#include "platform/wlog.h"

namespace qn {
namespace {

constexpr std::array<std::pair<std::string_view, LogLevel>, 4> kLevelNames{{
    {"debug", LogLevel::Debug},
    {"info", LogLevel::Info},
    {"warn", LogLevel::Warn},
    {"error", LogLevel::Error},
}};

// Never destroyed: threads and destructors may log while the process ends.
spdlog::sinks::sink& standardError() {
  static auto* const sink = [] {
    auto* made = new spdlog::sinks::stderr_sink_mt;
    made->set_pattern("%Y-%m-%dT%H:%M:%S.%e%z %l [%n] %v");
    return made;
  }();
  return *sink;
}

spdlog::level::level_enum spdlogLevel(LogLevel level) {
  constexpr spdlog::level::level_enum kLevels[] = {spdlog::level::debug, spdlog::level::info,
                                                   spdlog::level::warn, spdlog::level::err};
  return kLevels[static_cast<std::size_t>(level)];
}

void writeLine(LogLevel level, std::string_view tag, std::string_view text) {
  std::string safe = withoutSecrets(text);
  if (level > LogLevel::Debug) safe = withShortDocument(std::move(safe));
  const std::string line = logLine(safe);
  standardError().log({tag, spdlogLevel(level), line});
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
  for (const auto& [known, level] : kLevelNames) {
    if (name != known) continue;
    log_detail::threshold.store(level, std::memory_order_relaxed);
    return;
  }
  throw std::invalid_argument("unknown log level \"" + std::string(name) + "\"");
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
