// platform/wlog.h, and the reset of all fakes.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "platform/wlog.h"
#include "tests/unit/fake/fake_platform.h"
#include "tests/unit/fake/resettable.h"

namespace fake {
namespace {

std::mutex mutex;
std::vector<LogLine> lines;  // guarded by mutex
bool quiet = false;

}  // namespace

std::vector<LogLine> logLines() {
  const std::lock_guard lock(mutex);
  return lines;
}

bool logged(int level, std::string_view text) {
  const auto all = logLines();
  return std::ranges::any_of(all, [&](const LogLine& line) {
    return line.level == level && line.text.find(text) != std::string::npos;
  });
}

bool loggedIn(std::string_view function, int level, std::string_view text) {
  const std::string head = "[" + std::string(function) + "(";
  const auto all = logLines();
  return std::ranges::any_of(all, [&](const LogLine& line) {
    const std::size_t message = line.text.find(")] ");
    return line.level == level && line.text.starts_with(head) && message != std::string::npos &&
           std::string_view(line.text).substr(message + 3) == text;
  });
}

void resetLog() {
  const std::lock_guard lock(mutex);
  lines.clear();
}

void beQuiet() { quiet = true; }
bool isQuiet() { return quiet; }

void reset() {
  resetDeviceBus();
  resetHttp();
  resetGateway();
  resetRuntime();
  resetAlarmBus();
  resetLog();
}

}  // namespace fake

void wlog_format(int level, const char* /*tag*/, const char* format, ...) {
  if (fake::isQuiet()) return;
  const fake::AllocationShelter shelter;
  char text[4096];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  const std::lock_guard lock(fake::mutex);
  fake::lines.push_back({level, text});
}
