// Tells whether the reactors run: each renews a time of its own every kPeriod, and one that is
// stuck in a handler does not. Read by gateway/admin
// and by the host for the service manager's watchdog.
#pragma once

#include <atomic>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <memory>
#include <vector>

#include "gateway/net/reactors.h"

namespace qn {

class Pulse {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kPeriod{250};
  static constexpr std::chrono::milliseconds kStuck{1500};  // a longer silence is one

  // The reactors outlive it, and have stopped before it goes.
  explicit Pulse(Reactors& reactors);
  Pulse(const Pulse&) = delete;
  Pulse& operator=(const Pulse&) = delete;

  // With the reactors.
  void start();
  // How long each reactor has been silent. Any thread; takes no lock.
  std::vector<Clock::duration> silences() const;
  // Of the slowest one, beyond the time between two beats.
  std::chrono::milliseconds longestSilence() const;

 private:
  struct Beat {
    explicit Beat(boost::asio::io_context& reactor) : timer(reactor) {}
    boost::asio::steady_timer timer;
    std::atomic<Clock::time_point> last{Clock::now()};
  };

  static void beat(Beat& beat);

  std::vector<std::unique_ptr<Beat>> beats_;  // one for each reactor
};

}  // namespace qn
