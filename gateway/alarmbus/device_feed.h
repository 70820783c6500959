// One device's alert stream, kept open: connects, logs in, reads, and begins again when it breaks.
// Made by the alarm bus for each subscribed device.
#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "gateway/alarmbus/multipart_reader.h"
#include "gateway/devices/device.h"
#include "gateway/devices/dialer.h"
#include "gateway/devices/message.h"
#include "gateway/net/reactors.h"
#include "gateway/net/worker_pool.h"

namespace qn {

// When a feed gives up waiting; others only in tests.
struct FeedTimes {
  std::chrono::milliseconds silence = std::chrono::seconds(60);  // devices send heartbeats
};

// The alarm's text, with "devIndex" set; valid during the call. For one device one call at a time.
// Deliveries to streams may run in it, and with the last stream they stop the feed: stop() must not
// wait for what the caller holds.
using AlarmSink = std::function<void(const std::string& alarm)>;

// A device's alarms, while they are wanted.
class AlarmFeed {
 public:
  virtual ~AlarmFeed() = default;
  // An alarm that is being delivered may still arrive after it returned. Also from the sink.
  virtual void stop() = 0;
};

// Where the alarm bus has feeds from: the device itself, or whichever gateway has its feed.
class FeedOpener {
 public:
  virtual ~FeedOpener() = default;
  // Any thread, one at a time.
  virtual std::shared_ptr<AlarmFeed> open(const DeviceConfig& device, AlarmSink sink) = 0;
};

// Everything but the sink runs on the reactor that the feed was given; only start and stop come
// from others.
class DeviceFeed : public AlarmFeed, public std::enable_shared_from_this<DeviceFeed> {
 public:
  // The sink is called on the reactor or, from a large alarm on until all that came with it is
  // delivered, on a worker.
  DeviceFeed(boost::asio::io_context& reactor, WorkerPool& workers, std::shared_ptr<Device> device,
             FeedTimes times, AlarmSink sink);

  void start();
  void stop() override;

 private:
  using Error = boost::system::error_code;
  using Clock = std::chrono::steady_clock;

  // What the attempts need until a stream opens.
  struct Opening {
    explicit Opening(DeviceFeed& feed);

    const std::string target;
    Dialer dialer;
    std::optional<DeviceLogin::Ticket> login{std::in_place};
    std::string authorization;
    std::string head;
  };

  void connect();
  void connected();
  void closeStream();
  void sendHead(std::size_t sent);
  void waitForBytes();
  void readBytes();
  void gather();
  bool parse();
  bool beginStream();
  void takeLoginRefusal();
  void takePart(std::string_view contentType, std::string_view body);
  void deliver(std::string_view body) const;
  void deliverOnWorker(const std::string& fault);

  void watch(std::chrono::milliseconds limit);
  void armWatch(std::chrono::milliseconds limit);
  void retry(std::string_view error);
  void connectAfter(Clock::duration delay);
  Clock::duration nextDelay();

  // Constant after construction.
  boost::asio::io_context& reactor_;
  WorkerPool& workers_;
  const std::shared_ptr<Device> device_;
  const FeedTimes times_;
  const std::string quotedIndex_;
  const AlarmSink sink_;

  DeviceStream stream_;
  DeviceStream::Timer timer_;
  std::unique_ptr<DeviceStream::Timer> pause_;  // of a device that has stormed
  std::shared_ptr<Opening> opening_;            // null while a stream is open
  ReadBuffer buffer_;
  std::optional<ReplyParser> reply_;
  std::optional<MultipartReader> parts_;
  std::vector<std::string> forWorker_;  // alarms, the first of them large
  Clock::time_point lastBytes_;
  unsigned failures_ = 0;  // since the last part
  bool broken_ = false;    // and operators have been told
  std::string fault_;      // what broke it, when that is not the error that ends the attempt
  std::optional<Clock::duration> loginDelay_;  // before the next attempt, as the login asks for
  bool stopped_ = false;
  std::minstd_rand random_;
};

// Each feed is a stream of this gateway's own to the device: on the reactor that asks for it, where
// the client's stream is that gets its alarms, else on the next one.
class DeviceFeeds final : public FeedOpener {
 public:
  // All outlive it; reactors and workers also what is left of its feeds.
  DeviceFeeds(Reactors& reactors, WorkerPool& workers, DeviceDirectory& directory,
              FeedTimes times = {})
      : reactors_(reactors), workers_(workers), directory_(directory), times_(times) {}

  std::shared_ptr<AlarmFeed> open(const DeviceConfig& device, AlarmSink sink) override;

 private:
  std::size_t reactorForNext();

  Reactors& reactors_;
  WorkerPool& workers_;
  DeviceDirectory& directory_;
  const FeedTimes times_;
  std::atomic<std::size_t> nextReactor_{0};
};

}  // namespace qn
