#include "gateway/config/published.h"

#include <atomic>
#include <mutex>
#include <utility>

namespace qn {
namespace {

using PublishedPtr = std::shared_ptr<const Published>;

PublishedPtr emptyPublished() {
  auto empty = std::make_shared<Published>();
  empty->configuration = std::make_shared<const Configuration>();
  return empty;
}

// The generation moves after `inForce` has: a thread that sees the new number finds the new one.
struct State {
  std::mutex publishing;  // held for the whole of a publish
  std::mutex mutex;
  PublishedPtr inForce = emptyPublished();  // guarded by mutex
  std::atomic<uint64_t> generation{1};
};

// Never destroyed: threads may still ask while the process ends.
State& state() {
  static State* const instance = new State;
  return *instance;
}

}  // namespace

const Published& published() {
  thread_local uint64_t generation = 0;
  thread_local PublishedPtr cached;
  State& shared = state();
  const uint64_t latest = shared.generation.load(std::memory_order_acquire);
  if (generation != latest) {
    const std::lock_guard lock(shared.mutex);
    cached = shared.inForce;
    generation = latest;
  }
  return *cached;
}

const std::shared_ptr<const Configuration>& configuration() { return published().configuration; }

void publishConfiguration(std::shared_ptr<const Configuration> next) {
  const auto owned = std::make_shared<Configuration>(*next);
  owned->buildIndexes();
  const auto fresh = std::make_shared<Published>();
  fresh->configuration = owned;
  buildConfigObjects(*fresh);
  buildDeviceObjects(*fresh);

  State& shared = state();
  const std::lock_guard publishing(shared.publishing);
  PublishedPtr before = fresh;
  {
    const std::lock_guard lock(shared.mutex);
    shared.inForce.swap(before);
  }
  shared.generation.fetch_add(1, std::memory_order_release);
  announceDevices(*before->configuration, *owned);
}

}  // namespace qn
