// Bounds the memory that long replies of devices take, with what they become: read from the
// connection, parsed, translated, copied into an answer. The bus has one; requests hold shares.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <list>
#include <unordered_map>

#include "gateway/devices/device.h"
#include "gateway/sync/mutex.h"

namespace qn::devicebus {

// Any thread. Outlives its shares. The bound is `[bus] reply_memory`; one device has half of it. A
// reply that alone is over a bound is let in when there is no other. Who waits is served in the
// order of coming, but nobody waits for one who needs more than there is: that may last as long as
// another device's time-out.
class ReplyBudget {
 public:
  static constexpr std::size_t kLongReply = 64 * 1024;  // shorter ones are not counted
  // Bytes for each byte of a reply, measured: ordinary lists take 8 at the peak of their
  // translation, lists of nothing but short texts 11.
  static constexpr std::size_t kFactor = 12;

  ReplyBudget() = default;
  ReplyBudget(const ReplyBudget&) = delete;
  ReplyBudget& operator=(const ReplyBudget&) = delete;

  // What one reply holds; given back at the end, and not waited for any more.
  class Share {
   public:
    explicit Share(ReplyBudget& budget) : budget_(budget) {}
    ~Share() { giveBack(); }
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;

    // For a reply of so many bytes, of this device: true when it may be read on. When not, `ready`
    // is called once it may, on any thread; without `ready` nobody waits.
    bool hold(const Device& device, std::size_t replyBytes, std::function<void()> ready);
    void giveBack();

   private:
    friend class ReplyBudget;
    ReplyBudget& budget_;
    // Changed with the budget's mutex held; while it does not wait, by its owner only.
    const Device* device_ = nullptr;
    std::size_t held_ = 0;
  };

  std::size_t held() const { return held_; }

 private:
  struct Waiting {
    Share* share;
    std::size_t wanted;
    std::function<void()> ready;
  };

  bool take(Share& share, std::size_t wanted) QN_REQUIRES(mutex_);
  void release(Share& share) QN_REQUIRES(mutex_);
  // Those that may go on by now.
  std::list<Waiting> nextServed() QN_REQUIRES(mutex_);

  Mutex mutex_;
  std::atomic<std::size_t> held_{0};  // changed with the mutex held
  std::unordered_map<const Device*, std::size_t> ofDevices_ QN_GUARDED_BY(mutex_);
  std::list<Waiting> waiting_ QN_GUARDED_BY(mutex_);
};

}  // namespace qn::devicebus
