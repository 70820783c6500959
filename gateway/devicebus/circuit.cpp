// See circuit.h.
#include "gateway/devicebus/circuit.h"

#include "platform/wlog.h"

namespace qn::devicebus {
namespace {
Circuit::Clock::rep probeAfter(Circuit::Clock::time_point now) {
  return (now + Circuit::kProbePeriod).time_since_epoch().count();
}
}  // namespace

bool Circuit::blocked(Clock::time_point now) const {
  return failures_ >= kFailures && now.time_since_epoch().count() < nextProbe_;
}

bool Circuit::admit(Clock::time_point now) {
  if (failures_ < kFailures) return true;
  Clock::rep due = nextProbe_;
  return now.time_since_epoch().count() >= due &&
         nextProbe_.compare_exchange_strong(due, probeAfter(now));
}

void Circuit::succeeded() {
  if (failures_ == 0) return;
  if (failures_.exchange(0) >= kFailures) {
    wlog_format(WLOG_INFO, "QNW", "device %s answers again", device_.c_str());
  }
}

void Circuit::failed(Clock::time_point now) {
  if (failures_ < kFailures) nextProbe_ = probeAfter(now);
  if (++failures_ == kFailures) {
    wlog_format(WLOG_WARN, "QNW", "device %s does not answer: probing it from now on",
                device_.c_str());
  }
}

}  // namespace qn::devicebus
