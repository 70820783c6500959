// Whether an engine outside the gateway can be used, and since when not: one log line for the
// beginning and one for the end of each outage. Told by whoever talks to the engine; shown by
// gateway/admin.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "gateway/metrics/counter.h"
#include "gateway/sync/mutex.h"

namespace qn {

// Any thread.
class EngineState {
 public:
  // `name` stands in log lines, metrics and /readyz; `without` says what holds during an outage.
  EngineState(std::string name, std::string without)
      : name_(std::move(name)), without_(std::move(without)) {}
  EngineState(const EngineState&) = delete;
  EngineState& operator=(const EngineState&) = delete;

  const std::string& name() const { return name_; }
  void up();
  // Again during an outage: nothing, whatever the reason.
  void down(std::string_view reason);

  bool isUp() const;
  uint64_t outages() const { return outages_.value(); }
  // One line while it cannot be used; nothing while it can, or before it was tried.
  std::optional<std::string> trouble() const;

 private:
  enum class State { Untried, Up, Down };

  const std::string name_;
  const std::string without_;
  Counter outages_;
  mutable Mutex mutex_;
  State state_ QN_GUARDED_BY(mutex_) = State::Untried;
  std::string reason_ QN_GUARDED_BY(mutex_);
};

}  // namespace qn
