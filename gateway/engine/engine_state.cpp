// See engine_state.h.
#include "gateway/engine/engine_state.h"

#include <utility>

#include "gateway/log/log.h"

namespace qn {

void EngineState::up() {
  State before;
  {
    const MutexLock lock(mutex_);
    before = std::exchange(state_, State::Up);
    reason_.clear();
  }
  if (before == State::Down) logWarn("{}: can be used again", name_);
  if (before == State::Untried) logInfo("{}: connected", name_);
}

void EngineState::down(std::string_view reason) {
  reason = reason.substr(0, reason.find('\n'));
  {
    const MutexLock lock(mutex_);
    if (std::exchange(state_, State::Down) == State::Down) return;
    reason_ = reason;
  }
  outages_.add();
  logWarn("{}: cannot be used: {}; {}", name_, reason, without_);
}

bool EngineState::isUp() const {
  const MutexLock lock(mutex_);
  return state_ == State::Up;
}

std::optional<std::string> EngineState::trouble() const {
  const MutexLock lock(mutex_);
  if (state_ != State::Down) return std::nullopt;
  return name_ + ": cannot be used: " + reason_ + "; " + without_;
}

}  // namespace qn
