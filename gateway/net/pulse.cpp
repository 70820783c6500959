// See pulse.h.
#include "gateway/net/pulse.h"

#include <algorithm>
#include <boost/asio/post.hpp>

namespace qn {

Pulse::Pulse(Reactors& reactors) {
  for (std::size_t i = 0; i < reactors.size(); ++i) {
    beats_.push_back(std::make_unique<Beat>(reactors.context(i)));
  }
}

void Pulse::start() {
  for (const auto& each : beats_) {
    boost::asio::post(each->timer.get_executor(), [&beat = *each] { Pulse::beat(beat); });
  }
}

void Pulse::beat(Beat& beat) {
  beat.last = Clock::now();
  beat.timer.expires_after(kPeriod);
  beat.timer.async_wait([&beat](const boost::system::error_code& error) {
    if (!error) Pulse::beat(beat);
  });
}

std::vector<Pulse::Clock::duration> Pulse::silences() const {
  std::vector<Clock::duration> found;
  const auto now = Clock::now();
  for (const auto& beat : beats_) found.push_back(now - beat->last.load());
  return found;
}

std::chrono::milliseconds Pulse::longestSilence() const {
  const auto each = silences();
  const auto beyond = *std::ranges::max_element(each) - kPeriod;
  return std::chrono::duration_cast<std::chrono::milliseconds>(
      std::max(beyond, Clock::duration::zero()));
}

}  // namespace qn
