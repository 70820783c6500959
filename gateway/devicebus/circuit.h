// Whether a device is worth asking: a device that did not answer several times in a row is probed
// by one request each second instead of keeping every request waiting. One for each device.
#pragma once

#include <atomic>
#include <chrono>
#include <string>

namespace qn::devicebus {

// Any thread. Only connect failures and time-outs are failures: a device that answers nonsense is
// there.
class Circuit {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr int kFailures = 3;  // consecutive ones that open it
  static constexpr std::chrono::milliseconds kProbePeriod{1000};

  explicit Circuit(std::string device) : device_(std::move(device)) {}

  // Open, and the next probe is not due: a request can only fail.
  bool blocked(Clock::time_point now) const;
  // Whether a request may be sent now; while open, true for one request in each period.
  bool admit(Clock::time_point now);

  void succeeded();
  void failed(Clock::time_point now);

 private:
  const std::string device_;  // for the log
  std::atomic<int> failures_{0};
  std::atomic<Clock::rep> nextProbe_{0};  // of Clock, since its epoch
};

}  // namespace qn::devicebus
