// One feed for each device, whichever gateways have clients for its alarms, through Redis. Made by
// the host when [cluster] redis names a server; the alarm bus opens its feeds here.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "gateway/alarmbus/device_feed.h"
#include "gateway/metrics/counts.h"
#include "gateway/redis/redis_client.h"

namespace qn {

// The gateway that first wants a device's alarms takes a lease on its feed, with a number that
// grows with each holder, and has the stream to the device. It publishes alarms while others say
// that they want them: each under that number and a count, in a bounded stream of Redis and on a
// channel. The others read the channel and fill what they miss from the stream. Whoever wants a
// device's alarms claims the lease every third of it, so one that ends finds the next holder.
//
// The client and the opener outlive it and its feeds; the client is started afterwards.
class SharedFeeds final : public FeedOpener {
 public:
  static constexpr int kStreamAlarms = 1000;              // that Redis keeps for each device, about
  static constexpr std::chrono::seconds kStreamTime{60};  // without a further one
  static constexpr std::size_t kUnsureAlarms = 1000;      // while the lease is asked for
  static constexpr std::size_t kFillAlarms = 100;         // that are asked for at once
  static constexpr std::chrono::seconds kOverlapTime{1};  // of two sources, when one takes over
  // An alarm that the device's own stream has brought so long before may come from others yet: a
  // slower way is cut (RedisLink::kSilence).
  static constexpr std::chrono::seconds kInFlightTime{2};
  static constexpr std::size_t kInFlightAlarms = 10'000;
  static constexpr std::size_t kAheadAlarms = 1000;  // of others, that wait for the own stream

  // Keys and channels begin with `prefix`; `self` is this process's own name.
  SharedFeeds(RedisClient& redis, FeedOpener& devices, std::string prefix, std::string self,
              std::chrono::milliseconds lease);

  std::shared_ptr<AlarmFeed> open(const DeviceConfig& device, AlarmSink sink) override;

  // After the client's stop: ends what is still open.
  void stop();

  const SharedFeedCounts& counts() const { return counts_; }

 private:
  class Feed;

  void wanted(std::string_view device);

  RedisClient& redis_;
  FeedOpener& devices_;
  const std::string prefix_;
  const std::string self_;
  const std::chrono::milliseconds lease_;
  SharedFeedCounts counts_;
  // The client's thread's own:
  std::map<std::string, std::shared_ptr<Feed>, std::less<>> feeds_;
};

}  // namespace qn
