// Counters for the ways that every request goes: adding is one relaxed atomic operation, without
// lock, allocation or look-up. Held by whoever counts; read by gateway/admin when it is asked.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace qn {

// Any thread. Only grows.
class Counter {
 public:
  void add(uint64_t count = 1) { value_.fetch_add(count, std::memory_order_relaxed); }
  uint64_t value() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> value_{0};
};

// How long something took: how often at most each of `kBounds` (microseconds, ascending), and the
// sum. Any thread.
template <const auto& kBounds>
class Histogram {
 public:
  static constexpr std::size_t kBuckets = std::size(kBounds) + 1;  // the last one: longer than all

  void add(std::chrono::nanoseconds time) {
    const auto nanoseconds = static_cast<uint64_t>(std::max<int64_t>(time.count(), 0));
    std::size_t bucket = 0;
    while (bucket < std::size(kBounds) && nanoseconds > kBounds[bucket] * 1000) ++bucket;
    buckets_[bucket].add();
    nanoseconds_.add(nanoseconds);
  }
  uint64_t inBucket(std::size_t bucket) const { return buckets_[bucket].value(); }
  uint64_t nanoseconds() const { return nanoseconds_.value(); }

 private:
  std::array<Counter, kBuckets> buckets_;
  Counter nanoseconds_;
};

// Given out as threads begin to count, so the reactors have different ones.
inline std::size_t threadNumber() {
  static std::atomic<std::size_t> next{1};
  thread_local std::size_t number = 0;
  if (number == 0) number = next.fetch_add(1, std::memory_order_relaxed);
  return number;
}

// Several sets of the same counters, so that threads that count at once seldom meet in a cache
// line: a thread always uses the same one.
template <class Counts>
class Sharded {
 public:
  // The calling thread's.
  Counts& here() { return shards_[threadNumber() % kShards].counts; }
  // The sum of `value(counts)` over all of them. It misses what is being counted just now.
  template <class Value>
  uint64_t sum(Value value) const {
    uint64_t all = 0;
    for (const Shard& shard : shards_) all += value(shard.counts);
    return all;
  }
  uint64_t sum(Counter Counts::*counter) const {
    return sum([counter](const Counts& counts) { return (counts.*counter).value(); });
  }

 private:
  static constexpr std::size_t kShards = 16;
  static constexpr std::size_t kCacheLine = 64;
  struct alignas(kCacheLine) Shard {
    Counts counts;
  };

  std::array<Shard, kShards> shards_;
};

}  // namespace qn
