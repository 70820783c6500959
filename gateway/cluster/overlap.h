// Whether an alarm that came by one of two ways has come by the other already. Used by
// shared_feeds.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <unordered_map>

namespace qn {

// Two sources of the same alarms: each is let through once, whichever brings it first.
class Overlap {
 public:
  enum Source { Device, Others };

  bool isFirst(Source source, const std::string& alarm) {
    return isFirst(source, std::hash<std::string>()(alarm));
  }
  // Whether isFirst() would be false.
  bool wasBrought(Source source, const std::string& alarm) const {
    const auto found = seen_.find(std::hash<std::string>()(alarm));
    return found != seen_.end() && found->second.times[source] < found->second.delivered;
  }
  bool isFirst(Source source, std::size_t alarm) {
    Seen& seen = seen_[alarm];
    if (++seen.times[source] <= seen.delivered) return false;
    ++seen.delivered;
    return true;
  }

 private:
  struct Seen {
    unsigned times[2] = {0, 0};
    unsigned delivered = 0;
  };
  std::unordered_map<std::size_t, Seen> seen_;  // of a second or two
};

}  // namespace qn
