// Tells the service manager how the gateway is: datagrams of "NAME=value" lines to the socket that
// NOTIFY_SOCKET names, as sd_notify(3) documents them. Used by main.cpp, on its one thread.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace qn {

// Without a NOTIFY_SOCKET nothing is said. A manager that does not read for a second misses a
// message; nothing else comes of it.
class ServiceManager {
 public:
  using Clock = std::chrono::steady_clock;

  // Takes what it needs out of the environment, so that no child would speak for the gateway.
  ServiceManager();
  ~ServiceManager();
  ServiceManager(const ServiceManager&) = delete;
  ServiceManager& operator=(const ServiceManager&) = delete;

  // The status is one line for the operator (systemctl status).
  void ready(std::string_view status);
  void reloading();
  void stopping(std::string_view status);

  // How long the watchdog waits for a sign of life; zero when there is none.
  std::chrono::microseconds watchdog() const { return watchdog_; }
  // Gives a sign of life when half of that time has passed since the last one.
  void feed(Clock::time_point now);

 private:
  void say(const std::string& text) const;

  int socket_ = -1;
  std::chrono::microseconds watchdog_{0};
  Clock::time_point fed_;
};

}  // namespace qn
