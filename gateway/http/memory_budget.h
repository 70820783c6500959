// Bounds the memory that clients make the service hold, in all and for each owner. Used by the
// connections and by the queue of requests that may block.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <unordered_map>
#include <utility>

#include "gateway/metrics/counter.h"
#include "gateway/sync/mutex.h"

namespace qn {

// Any thread. Outlives its shares.
class MemoryBudget {
 public:
  MemoryBudget(std::size_t bytes, std::size_t bytesOfOwner)
      : bytes_(bytes), bytesOfOwner_(bytesOfOwner) {}

  std::size_t held() const { return held_.load(std::memory_order_relaxed); }
  std::size_t most() const { return bytes_; }
  uint64_t refusals() const { return refusals_.value(); }
  // From now on; what is held beyond it stays until it is given back.
  void setLimits(std::size_t bytes, std::size_t bytesOfOwner) {
    bytes_ = bytes;
    bytesOfOwner_ = bytesOfOwner;
  }

  // What is held of it for one purpose; given back at the end.
  class Share {
   public:
    Share() = default;
    // What has no owner counts for all together only.
    explicit Share(MemoryBudget& budget, std::string owner)
        : budget_(&budget), owner_(std::move(owner)) {}
    ~Share() { set(0); }
    Share(Share&& other) noexcept { swap(other); }
    Share& operator=(Share&& other) noexcept {
      swap(other);
      return *this;
    }

    bool hasBudget() const { return budget_ != nullptr; }
    // Holds that much from now on, in place of what it held. False when its owner, or all together,
    // hold too much: it counts until it is set again. A share without a budget holds nothing.
    bool set(std::size_t bytes) {
      if (bytes == held_) return true;
      return budget_->change(owner_, std::exchange(held_, bytes), bytes);
    }

   private:
    void swap(Share& other) noexcept {
      std::swap(budget_, other.budget_);
      std::swap(owner_, other.owner_);
      std::swap(held_, other.held_);
    }

    MemoryBudget* budget_ = nullptr;
    std::string owner_;
    std::size_t held_ = 0;
  };

 private:
  bool change(const std::string& owner, std::size_t before, std::size_t now) {
    const bool room = fits(owner, before, now);
    if (!room && now > before) refusals_.add();
    return room;
  }
  bool fits(const std::string& owner, std::size_t before, std::size_t now) {
    const std::size_t difference = now - before;  // wraps when it shrinks, and so does the sum
    const bool room = held_.fetch_add(difference) + difference <= bytes_;
    if (owner.empty()) return room;
    const MutexLock lock(mutex_);
    const auto entry = byOwner_.try_emplace(owner, 0).first;
    entry->second += difference;
    const bool ownRoom = entry->second <= bytesOfOwner_;
    if (entry->second == 0) byOwner_.erase(entry);
    return room && ownRoom;
  }

  std::atomic<std::size_t> bytes_;
  std::atomic<std::size_t> bytesOfOwner_;
  std::atomic<std::size_t> held_{0};
  Counter refusals_;
  Mutex mutex_;
  std::unordered_map<std::string, std::size_t> byOwner_ QN_GUARDED_BY(mutex_);
};

}  // namespace qn
