// Reloads of the configuration as the admin listener asks for them: the main thread does them, as
// on SIGHUP, and says here what came of each.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "gateway/sync/mutex.h"

namespace qn {

// Any thread, except that one thread does the reloads.
class Reloads {
 public:
  static constexpr std::chrono::seconds kWait{10};

  // `ring` has the main thread reload soon; without it nobody does.
  explicit Reloads(std::function<void()> ring) : ring_(std::move(ring)), closed_(!ring_) {}

  // Around each reload. An empty refusal: the file was taken.
  void begin();
  void end(const std::string& refusal);

  // Asks for one and waits: its refusal, nothing when none has ended within kWait or none will.
  std::optional<std::string> ask();
  // There will be no more.
  void close();

  struct State {
    uint64_t ended = 0;
    std::string refusal;                         // of the last one
    std::chrono::system_clock::time_point time;  // of the last one that was taken, or of the start
  };
  State state() const;

 private:
  const std::function<void()> ring_;
  mutable Mutex mutex_;
  Condition changed_;
  uint64_t begun_ QN_GUARDED_BY(mutex_) = 0;
  bool closed_ QN_GUARDED_BY(mutex_);
  State state_ QN_GUARDED_BY(mutex_){0, {}, std::chrono::system_clock::now()};
};

}  // namespace qn
