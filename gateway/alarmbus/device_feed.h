// One device's alert stream, kept open: connects, logs in, reads, and begins again when it breaks.
// Made by the alarm bus for each subscribed device.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>

#include "gateway/alarmbus/multipart_reader.h"
#include "gateway/alarmbus/stream_response.h"
#include "gateway/auth/client_login.h"
#include "gateway/config/configuration.h"

namespace qn {

// When a feed gives up waiting; others only in tests.
struct FeedTimes {
  std::chrono::milliseconds silence = std::chrono::seconds(60);  // devices send heartbeats
  // After wrong credentials: repeated tries would lock the account.
  std::chrono::milliseconds refused = std::chrono::seconds(60);
};

// Everything runs on the reactor that the feed was given; only start and stop come from others.
class DeviceFeed : public std::enable_shared_from_this<DeviceFeed> {
 public:
  // The alarm's text, with "devIndex" set; valid during the call.
  using AlarmSink = std::function<void(const std::string& alarm)>;

  DeviceFeed(boost::asio::io_context& reactor, DeviceConfig device, FeedTimes times,
             AlarmSink sink);

  void start();
  // An alarm that is being delivered may still arrive after it returned.
  void stop();

 private:
  using Error = boost::system::error_code;
  using Clock = std::chrono::steady_clock;
  using Tcp = boost::asio::ip::tcp;

  void connect();
  void connectTo(const Tcp::resolver::results_type& addresses);
  void connected(Error error);
  std::string request();
  void sendRequest();
  void waitForBytes();
  void readBytes();
  void gather();
  bool parse(std::string_view bytes);
  bool beginStream();
  bool takeRefusal();
  void takePart(std::string_view contentType, std::string_view body);

  void watch(std::chrono::milliseconds limit);
  void armWatch(std::chrono::milliseconds limit);
  void retry();
  std::chrono::milliseconds nextDelay();

  // Constant after construction.
  boost::asio::io_context& reactor_;
  const DeviceConfig device_;
  const FeedTimes times_;
  const std::string quotedIndex_;
  const AlarmSink sink_;

  Tcp::socket socket_;
  Tcp::resolver resolver_;
  boost::asio::steady_timer timer_;
  boost::asio::steady_timer pause_;
  ClientLogin login_;
  bool credentialsSent_ = false;
  std::optional<StreamResponse> response_;
  std::optional<MultipartReader> parts_;
  std::string rest_;  // bytes of the answer that the parser could not use yet
  std::string request_;
  Clock::time_point lastBytes_;
  unsigned failures_ = 0;                                  // since the last part
  unsigned challenges_ = 0;                                // since the last stream
  std::optional<std::chrono::milliseconds> refusedDelay_;  // what a refusal asks for
  bool stopped_ = false;
  std::minstd_rand random_;
};

}  // namespace qn
