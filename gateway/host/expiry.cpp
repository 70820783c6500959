// See expiry.h.
#include "gateway/host/expiry.h"

#include "gateway/log/log.h"

namespace qn {

void ExpiryReminder::remind(const Configuration& inForce, Clock::time_point now) {
  if (reminded_ == &inForce && now < next_) return;
  reminded_ = &inForce;
  next_ = now + kPeriod;
  const auto today = std::chrono::system_clock::now();
  for (const CertificateConfig& each : inForce.https.inUse()) {
    if (each.expires > today + kAhead) continue;
    const auto left = std::chrono::floor<std::chrono::days>(each.expires - today).count();
    if (each.expires <= today) {
      logWarn("https: the certificate {} has expired: no client will trust it", each.certificate);
    } else {
      logWarn("https: the certificate {} expires in {} day(s): renew it and reload",
              each.certificate, left);
    }
  }
}

}  // namespace qn
