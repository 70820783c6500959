// See pulse.h.
#include "gateway/net/pulse.h"

#include <algorithm>
#include <boost/asio/post.hpp>

namespace qn {

Pulse::Pulse(Reactors& reactors) : reactors_(reactors) {
  for (std::size_t i = 0; i < reactors.size(); ++i) asked_.push_back(std::make_shared<Asked>(0));
}

void Pulse::beat() {
  for (std::size_t i = 0; i < asked_.size(); ++i) {
    if (*asked_[i] != kAnswered) continue;
    *asked_[i] = Clock::now().time_since_epoch().count();
    boost::asio::post(reactors_.context(i), [asked = asked_[i]] { *asked = kAnswered; });
  }
}

std::chrono::milliseconds Pulse::silence() const {
  Clock::duration longest{0};
  const Clock::duration now = Clock::now().time_since_epoch();
  for (const auto& asked : asked_) {
    const Clock::rep since = *asked;
    if (since != kAnswered) longest = std::max(longest, now - Clock::duration(since));
  }
  return std::chrono::duration_cast<std::chrono::milliseconds>(longest);
}

}  // namespace qn
