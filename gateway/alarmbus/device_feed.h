// One device's alert stream, kept open: connects, logs in, reads, and begins again when it breaks.
// Made by the alarm bus for each subscribed device.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
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
#include "gateway/net/worker_pool.h"

namespace qn {

// When a feed gives up waiting; others only in tests.
struct FeedTimes {
  std::chrono::milliseconds silence = std::chrono::seconds(60);  // devices send heartbeats
};

// Everything but the sink runs on the reactor that the feed was given; only start and stop come
// from others.
class DeviceFeed : public std::enable_shared_from_this<DeviceFeed> {
 public:
  // The alarm's text, with "devIndex" set; valid during the call. On the reactor or, from a large
  // alarm on until all that came with it is delivered, on a worker.
  using AlarmSink = std::function<void(const std::string& alarm)>;

  DeviceFeed(boost::asio::io_context& reactor, WorkerPool& workers, std::shared_ptr<Device> device,
             FeedTimes times, AlarmSink sink);

  void start();
  // An alarm that is being delivered may still arrive after it returned.
  void stop();

 private:
  using Error = boost::system::error_code;
  using Clock = std::chrono::steady_clock;

  void connect();
  void connected();
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
  const std::string target_;
  const FeedTimes times_;
  const std::string quotedIndex_;
  const AlarmSink sink_;

  DeviceStream stream_;
  Dialer dialer_;
  boost::asio::steady_timer timer_;
  boost::asio::steady_timer pause_;
  std::optional<DeviceLogin::Ticket> login_;  // of the attempts until a stream opens
  std::string authorization_;
  std::string head_;  // while it is sent
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

}  // namespace qn
