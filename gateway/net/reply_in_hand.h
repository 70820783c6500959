// The device's reply that the calling thread hands to who asked for it. Set by the device bus
// around the callback of a long reply; the HTTP service shares the bytes instead of copying them
// when the module answers with what it was handed.
#pragma once

#include <boost/container/vector.hpp>
#include <memory>
#include <string_view>
#include <utility>

namespace qn {

// Grows without being filled first: what it grows by is read into it.
using ReplyBytes = boost::container::vector<char>;
using SharedBytes = std::shared_ptr<const ReplyBytes>;

// On the thread that makes it, until it is destroyed.
class ReplyInHand {
 public:
  explicit ReplyInHand(SharedBytes reply) : former_(std::exchange(current(), std::move(reply))) {}
  ~ReplyInHand() { current() = std::move(former_); }
  ReplyInHand(const ReplyInHand&) = delete;
  ReplyInHand& operator=(const ReplyInHand&) = delete;

  // The reply in hand when `bytes` lie inside it, else null.
  static SharedBytes holding(std::string_view bytes) {
    const SharedBytes& reply = current();
    const bool inside = reply && !bytes.empty() && bytes.data() >= reply->data() &&
                        bytes.data() + bytes.size() <= reply->data() + reply->size();
    return inside ? reply : nullptr;
  }

 private:
  static SharedBytes& current() {
    thread_local SharedBytes reply;
    return reply;
  }

  SharedBytes former_;
};

}  // namespace qn
