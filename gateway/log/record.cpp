// See record.h.
#include "gateway/log/record.h"

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "gateway/log/line.h"
#include "gateway/log/output.h"
#include "text/number.h"

namespace qn {
namespace {

std::atomic<bool> jsonInForce{false};

constexpr std::size_t kUsualBytes = 256;  // of a line

spdlog::level::level_enum spdlogLevel(LogLevel level) {
  constexpr spdlog::level::level_enum kLevels[] = {spdlog::level::debug, spdlog::level::info,
                                                   spdlog::level::warn, spdlog::level::err};
  return kLevels[static_cast<std::size_t>(level)];
}

// Systemd's journal takes a line's priority from its start.
class JournalPriority final : public spdlog::custom_flag_formatter {
 public:
  void format(const spdlog::details::log_msg& line, const std::tm&,
              spdlog::memory_buf_t& out) override {
    const std::string_view priority = line.level >= spdlog::level::err    ? "<3>"
                                      : line.level == spdlog::level::warn ? "<4>"
                                      : line.level == spdlog::level::info ? "<6>"
                                                                          : "<7>";
    out.append(priority.data(), priority.data() + priority.size());
  }
  std::unique_ptr<custom_flag_formatter> clone() const override {
    return std::make_unique<JournalPriority>();
  }
};

// JOURNAL_STREAM names what systemd made standard error, which somebody may have replaced since.
bool isJournal() {
  const char* const stream = std::getenv("JOURNAL_STREAM");
  struct stat own {};
  return stream != nullptr && fstat(STDERR_FILENO, &own) == 0 &&
         fmt::format("{}:{}", own.st_dev, own.st_ino) == stream;
}

class OutputSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit OutputSink(const std::string& pattern) {
    auto formatter = std::make_unique<spdlog::pattern_formatter>();
    formatter->add_flag<JournalPriority>('J').set_pattern((isJournal() ? "%J" : "") + pattern);
    set_formatter(std::move(formatter));
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& line) override {
    spdlog::memory_buf_t formatted;
    formatter_->format(line, formatted);
    LogOutput::instance().write({formatted.data(), formatted.size()});
  }
  void flush_() override {}
};

// Never destroyed: threads and destructors may log while the process ends.
spdlog::sinks::sink& sinkFor(bool json) {
  static auto* const text = new OutputSink("%Y-%m-%dT%H:%M:%S.%e%z %l [%n] %v");
  static auto* const object = new OutputSink(R"({"time":"%Y-%m-%dT%H:%M:%S.%e%z","level":"%l"%v})");
  return json ? *object : *text;
}

// Of a text that is in order: it has no control characters and is UTF-8.
void appendQuoted(std::string& out, std::string_view text) {
  out += '"';
  for (const char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  out += '"';
}

// Of ASCII, and neither quoted nor escaped.
bool isWord(std::string_view text) {
  return !text.empty() && std::ranges::all_of(text, [](char c) {
    return c > ' ' && c < '\x7f' && c != '"' && c != '\\' && c != '=';
  });
}

}  // namespace

LogRecord::LogRecord(std::string_view tag, std::string_view text)
    : json_(jsonInForce.load(std::memory_order_relaxed)), tag_(tag) {
  line_.reserve(kUsualBytes);
  if (json_) {
    add("tag", tag);
    if (!text.empty()) appendQuoted(begin("message"), text);
  } else {
    line_ = text;
  }
}

std::string& LogRecord::begin(std::string_view name) {
  if (json_) {
    return line_.append(",\"").append(name).append("\":");
  }
  if (!line_.empty()) line_ += ' ';
  return line_.append(name) += '=';
}

void LogRecord::add(std::string_view name, std::string_view value) {
  std::string& line = begin(name);
  if (!isWord(value)) return appendQuoted(line, logLine(value));
  if (json_) line += '"';
  line += value;
  if (json_) line += '"';
}

void LogRecord::add(std::string_view name, uint64_t value) {
  text::appendDecimal(begin(name), value);
}

void LogRecord::write(LogLevel level) { sinkFor(json_).log({tag_, spdlogLevel(level), line_}); }

void LogRecord::useJson(bool json) { jsonInForce = json; }

}  // namespace qn
