// Whether the I/O threads turn. Used by the host for the service manager's watchdog, and by whoever
// has to say that the gateway is alive.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <vector>

#include "gateway/net/reactors.h"

namespace qn {

// The reactors outlive it, or are destroyed with what is queued on them before it is asked again.
class Pulse {
 public:
  explicit Pulse(Reactors& reactors);

  // Asks each reactor that owes no answer for one. One thread; call it at least every second.
  void beat();
  // How long the slowest reactor has owed the answer to a beat: a few milliseconds while all of
  // them turn. Any thread.
  std::chrono::milliseconds silence() const;

 private:
  using Clock = std::chrono::steady_clock;
  using Asked = std::atomic<Clock::rep>;  // when; kAnswered: nothing is owed
  static constexpr Clock::rep kAnswered = 0;

  Reactors& reactors_;
  std::vector<std::shared_ptr<Asked>> asked_;  // one for each reactor
};

}  // namespace qn
