// See client_log.h.
#include "gateway/log/client_log.h"

namespace qn {

// Never destroyed: threads may log while the process ends.
ClientLog& ClientLog::instance() {
  static auto* const log = new ClientLog;
  return *log;
}

void ClientLog::write(LogLevel level, std::string_view address, std::string line, Time now) {
  const MutexLock lock(mutex_);
  endSecond(now);
  const auto known = addresses_.find(std::string(address));
  if (known != addresses_.end()) {
    ++known->second.lines;
    if (level < known->second.level) return;
    known->second.last = std::move(line);
    known->second.level = level;
  } else if (addresses_.size() < kAddresses) {
    addresses_.emplace(address, Held());
    logAt(level, "{}", line);
  } else {
    ++others_;
  }
}

void ClientLog::writeHeldBack(Time now) {
  const MutexLock lock(mutex_);
  endSecond(now);
}

// A line for what was held back counts as the one of the second that begins.
void ClientLog::endSecond(Time now) {
  if (now < secondEnds_) return;
  secondEnds_ = now + std::chrono::seconds(1);
  std::erase_if(addresses_, [](const auto& entry) { return entry.second.lines == 0; });
  for (auto& [address, held] : addresses_) {
    logAt(held.level, "{} ({} lines like this in the last second)", held.last, held.lines);
    held = Held();
  }
  if (others_ != 0) logWarn("{} lines about other clients held back", std::exchange(others_, 0));
}

}  // namespace qn
