// Bounds the memory that all clients together make the service hold. Used by the connections and by
// the queue of requests that may block.
#pragma once

#include <atomic>
#include <cstddef>
#include <utility>

namespace qn {

// Any thread.
class MemoryBudget {
 public:
  explicit MemoryBudget(std::size_t bytes) : bytes_(bytes) {}

  // What one user holds of it; given back at the end.
  class Share {
   public:
    explicit Share(MemoryBudget& budget) : budget_(budget) {}
    ~Share() { set(0); }
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;

    // Holds that much from now on, in place of what it held. False when all together hold too much:
    // it counts until it is set again.
    bool set(std::size_t bytes) {
      if (bytes == held_) return true;
      // Wraps when it shrinks, and so does the sum.
      const std::size_t change = bytes - std::exchange(held_, bytes);
      return budget_.held_.fetch_add(change) + change <= budget_.bytes_;
    }

   private:
    MemoryBudget& budget_;
    std::size_t held_ = 0;
  };

 private:
  const std::size_t bytes_;
  std::atomic<std::size_t> held_{0};
};

}  // namespace qn
