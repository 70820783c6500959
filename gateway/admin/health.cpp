// See health.h.
#include "gateway/admin/health.h"

namespace qn {

Health::Reasons Health::againstLife() const {
  Reasons reasons;
  const auto silences = pulse_.silences();
  for (std::size_t i = 0; i < silences.size(); ++i) {
    if (silences[i] <= Pulse::kStuck) continue;
    const auto time = std::chrono::duration_cast<std::chrono::milliseconds>(silences[i]);
    reasons.push_back("reactor " + std::to_string(i) + " has not run for " +
                      std::to_string(time.count()) + " ms");
  }
  return reasons;
}

Health::Reasons Health::againstReadiness() const {
  Reasons reasons = againstLife();
  if (!started_) reasons.emplace_back("starting");
  if (stopping_) reasons.emplace_back("stopping");
  return reasons;
}

Health::Reasons Health::againstStart() const { return started_ ? Reasons() : Reasons{"starting"}; }

}  // namespace qn
