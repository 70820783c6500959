// See part_pusher.h. Here: StreamSender.
#include "gateway/http/part_pusher.h"

#include <boost/asio/post.hpp>
#include <utility>

namespace qn {

void StreamSender::add(std::weak_ptr<AnswerLink> stream) {
  {
    const MutexLock lock(mutex_);
    waiting_.push_back(std::move(stream));
    if (waiting_.size() > 1) return;
  }
  boost::asio::post(reactor_, [self = shared_from_this()] { self->send(); });
}

void StreamSender::send() {
  {
    const MutexLock lock(mutex_);
    sending_.swap(waiting_);
  }
  const bool timerRuns = !storms_.empty();
  for (auto& waiting : sending_) {
    const auto stream = waiting.lock();
    if (stream && !stream->sendParts(Sending::NowOrLater)) storms_.push_back(std::move(waiting));
  }
  sending_.clear();
  if (timerRuns || storms_.empty()) return;
  timer_.expires_after(kGatherTime);
  timer_.async_wait([self = shared_from_this()](const boost::system::error_code& ec) {
    if (!ec) self->sendStorms();
  });
}

void StreamSender::sendStorms() {
  for (const auto& waiting : storms_) {
    if (const auto stream = waiting.lock()) stream->sendParts(Sending::Now);
  }
  storms_.clear();
}

}  // namespace qn
