// The alarms of one device: those it raises by itself, those the control resource orders, and the
// heartbeats of its alert stream. Every alarm goes to every open stream.
#pragma once

#include <json/json.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "subdevice/alert_stream.h"

namespace subdevice {

// That orders may name.
std::vector<std::string_view> alarmTypes();

class AlarmFeed {
 public:
  static constexpr std::size_t kStreams = 16;
  static constexpr std::size_t kOrders = 16;  // that run at the same time
  static constexpr uint64_t kMostAlarms = 10'000'000;
  static constexpr unsigned kMostPerSecond = 100'000;
  static constexpr std::chrono::seconds kHeartbeat{10};

  struct Counters {
    uint64_t raised = 0;
    uint64_t sent = 0;  // once for each stream
    uint64_t dropped = 0;
  };

  // An interval of 0: no alarms of its own.
  AlarmFeed(boost::asio::io_context& io, std::chrono::milliseconds interval);

  void start();
  // Ends every order and closes every stream.
  void stop();
  void closeStreams();

  // False when there are too many streams already.
  bool attach(ClientStream&& stream);

  // Both have been checked (orders.h). "raw" is sent as it stands instead of a document. False for
  // an order that is one too many.
  bool order(const Json::Value& order);
  // For streams opened from now on.
  void setFraming(const Json::Value& framing);
  // For all streams.
  void setLink(std::size_t bytesPerSecond);

  const Counters& counters() const { return counters_; }
  std::size_t streams() const { return streams_.size(); }

 private:
  struct Order;
  using Orders = std::list<Order>;

  struct Order {
    explicit Order(boost::asio::io_context& io) : timer(io) {}

    boost::asio::steady_timer timer;
    std::chrono::steady_clock::time_point begin;
    Json::Value alert;
    std::string raw;
    uint64_t count = 1;
    uint64_t sent = 0;
    unsigned perSecond = 1;
  };

  void run(Orders::iterator order);
  void scheduleOwn();
  void scheduleHeartbeat();
  Json::Value alertDocument(const Json::Value& members);
  void raise(std::string_view text);
  void send(std::string_view text);

  boost::asio::io_context& io_;
  const std::chrono::milliseconds interval_;
  boost::asio::steady_timer ownTimer_;
  boost::asio::steady_timer heartbeatTimer_;  // runs while there are streams
  Orders orders_;
  std::vector<std::shared_ptr<AlertStream>> streams_;
  StreamFraming framing_;
  std::size_t bytesPerSecond_ = 0;
  Counters counters_;
  int postCount_ = 0;
  unsigned ownAlarms_ = 0;
};

}  // namespace subdevice
