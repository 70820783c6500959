// One keep-alive connection to a device: connects, sends one request at a time and reads its
// reply. Belongs to a Lane, lives on its reactor.
#pragma once

#include <array>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "gateway/devicebus/request.h"
#include "gateway/devices/dialer.h"
#include "gateway/devices/message.h"

namespace qn::devicebus {

class Lane;

// A read is outstanding whenever it is connected, so a device that closes it is noticed while it
// rests. Every handler keeps it alive and does nothing once the lane has closed it. Times are
// bounded by the lane: it closes the connection at the request's deadline.
class DeviceConnection : public std::enable_shared_from_this<DeviceConnection> {
 public:
  using Clock = std::chrono::steady_clock;

  enum class Fault {
    NotConnected,
    Closed,    // by the device, before the reply was whole
    Unusable,  // the reply cannot be understood
    NoRoom     // for a reply of unknown length that has grown
  };

  DeviceConnection(Lane& lane, boost::asio::io_context& reactor);

  // Sends the request, after connecting when it is a new one.
  void start(const DeviceRequestHead& head, RequestPtr request);

  const BusRequest* request() const { return request_.get(); }
  RequestPtr takeRequest() {
    if (request_) --device_->counts.inFlight;
    return std::move(request_);
  }
  ReplyParser& reply() { return *reply_; }
  bool isReused() const { return reused_; }
  // Of Fault::NotConnected.
  const boost::system::error_code& connectError() const { return connectError_; }
  bool gotReplyBytes() const { return gotReplyBytes_; }
  // The reply is not read on until there is room for it.
  bool isWaitingForRoom() const { return waitingForRoom_; }
  Clock::time_point restingSince() const { return restingSince_; }

  // After a whole reply: whether the device keeps it open.
  bool canBeReused() const;
  void rest();
  // Nothing is reported to the lane any more.
  void close();

 private:
  using ErrorCode = boost::system::error_code;

  template <typename Step>
  void guarded(Step step) noexcept;  // runs it unless closed; what it throws is a fault
  void onConnected(const ErrorCode& error);
  void send();
  void sendRest(std::size_t sent);
  std::array<boost::asio::const_buffer, 2> unsent(std::size_t sent) const;
  void read();
  void readBody(boost::asio::mutable_buffer room);
  void onRead(const ErrorCode& error, std::size_t count);
  void onReadEnd(const ErrorCode& error);
  void parse();
  void onReplyBytes(const ErrorCode& error);
  void readOnWhenRoom();
  bool nextAfterInterim();
  void report(Fault fault);
  void reportLater(Fault fault);

  Lane* lane_;  // null once closed
  DeviceStream stream_;
  const std::shared_ptr<Device> device_;
  Dialer dialer_;
  RequestPtr request_;  // null while resting
  std::string head_;    // and the body, when it is short
  ReadBuffer buffer_;
  std::optional<ReplyParser> reply_;
  ErrorCode connectError_;
  int interimReplies_ = 0;
  bool connected_ = false;
  bool reused_ = false;
  bool sending_ = false;  // a write is outstanding
  bool ended_ = false;    // the device has closed its side
  bool gotReplyBytes_ = false;
  bool waitingForRoom_ = false;
  Clock::time_point restingSince_;
};

}  // namespace qn::devicebus
