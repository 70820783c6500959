// See access_log.h.
#include "gateway/log/access_log.h"

#include <atomic>
#include <string>

#include "gateway/log/record.h"

namespace qn {
namespace {

std::atomic<AccessLog> accessInForce{AccessLog::None};

// "/a?b=1&c=2" as "/a?b=&c=".
std::string withoutValues(std::string_view url) {
  std::string shown(url.substr(0, url.find('?')));
  url.remove_prefix(shown.size());
  while (!url.empty()) {
    const std::size_t value = std::min(url.find('='), url.find('&', 1));
    shown += url.substr(0, value);
    if (value == url.npos) break;
    if (url[value] == '=') shown += '=';
    const std::size_t next = url.find('&', value);
    url.remove_prefix(std::min(next, url.size()));
  }
  return shown;
}

}  // namespace

void setAccessLog(AccessLog access) { accessInForce = access; }

bool isAccessLogged(int status) {
  const AccessLog access = accessInForce.load(std::memory_order_relaxed);
  return access == AccessLog::All || (access == AccessLog::Errors && status >= 400);
}

void logAccess(const AnsweredRequest& request) noexcept try {
  LogRecord record("access", {});
  record.add("request", request.id);
  record.add("client", request.client);
  record.add("user", request.user);
  record.add("device", request.device);
  record.add("method", request.method);
  record.add("url", withoutValues(request.url));
  record.add("status", static_cast<uint64_t>(request.status));
  record.add("bytes", request.bytes);
  record.add("us", static_cast<uint64_t>(request.took.count()));
  record.add("device_us", static_cast<uint64_t>(request.waited.count()));
  record.write(LogLevel::Info);
} catch (...) {
  // Out of memory.
}

}  // namespace qn
