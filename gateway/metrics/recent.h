// The last few of something, for the operator's page. Who adds never waits: what comes while the
// page is being read, or at the very moment of another, is left out. Nothing relies on it.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "gateway/sync/mutex.h"

namespace qn {

// Any thread.
template <class Entry, std::size_t kSize>
class Recent {
 public:
  // `fill(entry)` overwrites the oldest one; reusing its memory saves allocations.
  template <class Fill>
  void add(Fill fill) {
    if (!mutex_.tryLock()) return;
    fill(entries_[count_ % kSize]);
    ++count_;
    mutex_.unlock();
  }
  std::vector<Entry> newestFirst() const {
    std::vector<Entry> found;
    const MutexLock lock(mutex_);
    for (uint64_t i = 1; i <= std::min<uint64_t>(count_, kSize); ++i) {
      found.push_back(entries_[(count_ - i) % kSize]);
    }
    return found;
  }

 private:
  mutable Mutex mutex_;
  std::array<Entry, kSize> entries_ QN_GUARDED_BY(mutex_){};
  uint64_t count_ QN_GUARDED_BY(mutex_) = 0;  // ever added
};

}  // namespace qn
