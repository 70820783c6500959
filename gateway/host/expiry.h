// Reminds the operator of certificates that expire soon. Called by the gateway, on its first
// reactor.
#pragma once

#include <chrono>

#include "gateway/config/configuration.h"

namespace qn {

class ExpiryReminder {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::days kAhead{14};
  static constexpr std::chrono::days kPeriod{1};

  // Writes a warning for each certificate that expires within kAhead: at once when the
  // configuration has changed, and again every kPeriod.
  void remind(const Configuration& inForce, Clock::time_point now);

 private:
  const Configuration* reminded_ = nullptr;  // only compared
  Clock::time_point next_;
};

}  // namespace qn
