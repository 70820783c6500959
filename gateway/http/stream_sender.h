// Has the streams of one reactor send what their queues hold: at once after a pause, once in a
// while when parts keep coming, so that one wake-up and one write carry many. One for each reactor,
// held by the service's core.
#pragma once

#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include "gateway/http/exchange.h"

namespace qn {

class StreamSender : public std::enable_shared_from_this<StreamSender> {
 public:
  explicit StreamSender(boost::asio::io_context& reactor) : reactor_(reactor), timer_(reactor) {}

  // Has the stream send soon; any thread.
  void add(std::weak_ptr<AnswerLink> stream);

 private:
  using Clock = std::chrono::steady_clock;
  using Timer = boost::asio::basic_waitable_timer<Clock, boost::asio::wait_traits<Clock>,
                                                  boost::asio::io_context::executor_type>;

  static constexpr std::chrono::milliseconds kGatherTime{1};

  void send();
  bool takeWaiting();

  boost::asio::io_context& reactor_;
  Timer timer_;
  Clock::time_point lastSent_;
  std::vector<std::weak_ptr<AnswerLink>> sending_;

  std::mutex mutex_;  // guards what follows
  std::vector<std::weak_ptr<AnswerLink>> waiting_;
  bool coming_ = false;  // send() will run
};

}  // namespace qn
