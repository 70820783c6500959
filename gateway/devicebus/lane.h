// The requests of one device on one reactor: a bounded number of keep-alive connections and the
// queue before them. Made and driven by Shard.
#pragma once

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "gateway/devicebus/device_connection.h"
#include "gateway/devicebus/request.h"

namespace qn::devicebus {

// On the reactor's thread only. Nothing here calls a recipient except onReply(), which connections
// call from the bottom of a read handler.
class Lane {
 public:
  using Clock = std::chrono::steady_clock;
  // Below what devices allow, so that they seldom close first.
  static constexpr std::chrono::seconds kRestTime{30};

  struct Limits {
    std::size_t connections = 1;
    std::size_t replyBytes = 0;

    bool operator==(const Limits&) const = default;
  };

  Lane(boost::asio::io_context& reactor, const Answers& answers, std::shared_ptr<Device> device,
       Limits limits);
  ~Lane();
  Lane(const Lane&) = delete;
  Lane& operator=(const Lane&) = delete;

  Device& device() { return *device_; }
  const std::shared_ptr<Device>& sharedDevice() const { return device_; }
  const Limits& limits() const { return limits_; }
  std::size_t replyLimit() const { return limits_.replyBytes; }
  bool isPending() const { return !queue_.empty() || !busy_.empty(); }
  bool isEmpty() const { return !isPending() && resting_.empty(); }

  void submit(RequestPtr request);
  // Ends what has lasted too long, and sends what may be sent by now.
  void sweep(Clock::time_point now);
  // The configuration has changed: requests in flight end on their connections, the rest is closed;
  // returns those that were waiting.
  std::deque<RequestPtr> retire();
  void endAll(unsigned int code);

  // From the connections, whose handlers keep them meanwhile:
  void onReply(DeviceConnection& connection);
  void onFault(DeviceConnection& connection, DeviceConnection::Fault fault);

 private:
  using Connections = std::vector<std::shared_ptr<DeviceConnection>>;

  void pump();
  void launch(const DeviceRequestHead& head, RequestPtr request);
  std::shared_ptr<DeviceConnection> takeConnection(const BusRequest& request);
  RequestPtr takeFirst();
  void fail(RequestPtr request, unsigned int code);
  bool isToBeSentAgain(BusRequest& request, DeviceConnection& connection);
  void release(DeviceConnection& connection);
  void drop(DeviceConnection& connection);
  void endOverdue(Clock::time_point now);
  void closeRested(Clock::time_point now);

  boost::asio::io_context& reactor_;
  const Answers& answers_;
  const std::shared_ptr<Device> device_;
  const Limits limits_;
  bool retired_ = false;
  std::deque<RequestPtr> queue_;
  Connections busy_;
  Connections resting_;  // the one used last is at the end, and is used next
};

}  // namespace qn::devicebus
