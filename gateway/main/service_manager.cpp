// See service_manager.h.
#include "gateway/main/service_manager.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "text/number.h"

namespace qn {
namespace {

constexpr timeval kMostWait{1, 0};  // for room in the manager's socket

// The value of a variable, which is gone then.
std::string taken(const char* name) {
  const char* const value = std::getenv(name);
  std::string text = value ? value : "";
  unsetenv(name);
  return text;
}

// Of a path, or of an abstract name behind "@". Not connected for any other.
int connectedTo(const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const bool known = name.starts_with('/') || name.starts_with('@');
  if (!known || name.size() < 2 || name.size() >= sizeof address.sun_path) return -1;
  std::memcpy(address.sun_path, name.data(), name.size());
  if (name[0] == '@') address.sun_path[0] = '\0';
  const int file = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (file < 0) return -1;
  ::setsockopt(file, SOL_SOCKET, SO_SNDTIMEO, &kMostWait, sizeof kMostWait);
  const auto size = socklen_t(offsetof(sockaddr_un, sun_path) + name.size());
  if (::connect(file, reinterpret_cast<const sockaddr*>(&address), size) == 0) return file;
  ::close(file);
  return -1;
}

// One line of it.
std::string statusLine(std::string_view status) {
  std::string text(status);
  std::ranges::replace(text, '\n', ' ');
  return "STATUS=" + text;
}

}  // namespace

ServiceManager::ServiceManager() : socket_(connectedTo(taken("NOTIFY_SOCKET"))) {
  const auto period = text::wholeNumber<int64_t>(taken("WATCHDOG_USEC"));
  const std::string process = taken("WATCHDOG_PID");
  const bool ours = process.empty() || process == std::to_string(getpid());
  if (period && *period > 0 && ours) watchdog_ = std::chrono::microseconds(*period);
}

ServiceManager::~ServiceManager() {
  if (socket_ >= 0) ::close(socket_);
}

void ServiceManager::ready(std::string_view status) { say("READY=1\n" + statusLine(status)); }

void ServiceManager::reloading() {
  const auto now = std::chrono::duration_cast<std::chrono::microseconds>(
      Clock::now().time_since_epoch());  // CLOCK_MONOTONIC
  say("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(now.count()) +
      "\nSTATUS=reading the "
      "configuration again");
}

void ServiceManager::stopping(std::string_view status) { say("STOPPING=1\n" + statusLine(status)); }

void ServiceManager::feed(Clock::time_point now) {
  if (watchdog_.count() == 0 || now - fed_ < watchdog_ / 2) return;
  fed_ = now;
  say("WATCHDOG=1");
}

void ServiceManager::say(const std::string& text) const {
  if (socket_ < 0) return;
  [[maybe_unused]] const auto sent = ::send(socket_, text.data(), text.size(), MSG_NOSIGNAL);
}

}  // namespace qn
