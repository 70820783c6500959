// Lines about what clients do: logins, failed ones, locks, refused connections. An attack must be
// seen and must not fill the disk, so an address has one line in a second; what is held back is
// counted, and its last line is written when the second is over. Used by the login and the HTTP
// service; the host calls writeHeldBack() once a second.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "gateway/log/log.h"
#include "gateway/sync/mutex.h"

namespace qn {

// Any thread. Time is a monotonic clock's.
class ClientLog {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr std::size_t kAddresses =
      64;  // in one second; lines about others are only counted

  static ClientLog& instance();

  // Now or held back.
  void write(LogLevel level, std::string_view address, std::string line, Time now);
  // Those of a second that is over.
  void writeHeldBack(Time now);

 private:
  struct Held {
    uint64_t lines = 0;
    std::string last;  // of the highest level
    LogLevel level = LogLevel::Info;
  };

  void endSecond(Time now) QN_REQUIRES(mutex_);

  Mutex mutex_;
  std::unordered_map<std::string, Held> addresses_ QN_GUARDED_BY(mutex_);  // that had a line
  uint64_t others_ QN_GUARDED_BY(mutex_) = 0;
  Time secondEnds_ QN_GUARDED_BY(mutex_){};
};

template <class... Args>
void logClient(LogLevel level, std::string_view address, fmt::format_string<Args...> format,
               Args&&... args) {
  if (!isLogged(level)) return;
  ClientLog::instance().write(level, address, fmt::format(format, std::forward<Args>(args)...),
                              std::chrono::steady_clock::now());
}

}  // namespace qn
