// See part_pusher.h. Here: StreamSender.
#include "gateway/http/part_pusher.h"

#include <boost/asio/post.hpp>
#include <utility>

namespace qn {

void StreamSender::add(std::weak_ptr<AnswerLink> stream) {
  {
    const MutexLock lock(mutex_);
    waiting_.push_back(std::move(stream));
    if (std::exchange(coming_, true)) return;
  }
  boost::asio::post(reactor_, [self = shared_from_this()] { self->send(); });
}

void StreamSender::send() {
  const bool again = takeWaiting();
  for (const auto& waiting : sending_) {
    if (const auto stream = waiting.lock()) stream->sendParts();
  }
  sending_.clear();
  if (!again) return;
  timer_.expires_after(kGatherTime);
  timer_.async_wait([self = shared_from_this()](const boost::system::error_code& ec) {
    if (!ec) self->send();
  });
}

// Whether to look again without being called: parts follow each other closely.
bool StreamSender::takeWaiting() {
  const auto now = Clock::now();
  const bool close = now - std::exchange(lastSent_, now) < 2 * kGatherTime;
  const MutexLock lock(mutex_);
  sending_.swap(waiting_);
  coming_ = close && !sending_.empty();
  return coming_;
}

}  // namespace qn
