#include "gateway/config/published.h"

#include <atomic>
#include <utility>

#include "gateway/sync/mutex.h"

namespace qn {
namespace {

PublishedPtr emptyPublished() {
  auto empty = std::make_shared<Published>();
  empty->configuration = std::make_shared<const Configuration>();
  return empty;
}

// The generation moves after `inForce` has: a thread that sees the new number finds the new one.
struct Publication {
  Mutex publishing;  // held for the whole of a publish
  Mutex mutex;
  PublishedPtr inForce QN_GUARDED_BY(mutex) = emptyPublished();
};

constinit std::atomic<uint64_t> publishedGeneration{1};

// Never destroyed: threads may still ask while the process ends.
Publication& state() {
  static auto* const instance = new Publication;
  return *instance;
}

// What a thread has last seen.
struct Seen {
  uint64_t generation = 0;
  PublishedPtr published;
  std::shared_ptr<const Configuration> configuration;  // counted with it
};

// Asked several times for each request, so the ordinary way is one look at the thread's own.
thread_local constinit const Seen* seenHere = nullptr;

const Seen& seenNow() {
  thread_local Seen seen;
  Publication& shared = state();
  const uint64_t latest = publishedGeneration.load(std::memory_order_acquire);
  const MutexLock lock(shared.mutex);
  seen.published = {shared.inForce.get(), [held = shared.inForce](const Published*) {}};
  seen.configuration = {seen.published, seen.published->configuration.get()};
  seen.generation = latest;
  seenHere = &seen;
  return seen;
}

const Seen& seenByThread() {
  const Seen* const seen = seenHere;
  const uint64_t latest = publishedGeneration.load(std::memory_order_acquire);
  return seen != nullptr && seen->generation == latest ? *seen : seenNow();
}

}  // namespace

const PublishedPtr& published() { return seenByThread().published; }

const std::shared_ptr<const Configuration>& configuration() { return seenByThread().configuration; }

void publishConfiguration(const std::shared_ptr<const Configuration>& next) {
  const auto fresh = std::make_shared<Published>();
  fresh->configuration = next;
  buildConfigObjects(*fresh);
  buildDeviceObjects(*fresh);

  Publication& shared = state();
  const MutexLock publishing(shared.publishing);
  PublishedPtr before = fresh;
  {
    const MutexLock lock(shared.mutex);
    shared.inForce.swap(before);
  }
  publishedGeneration.fetch_add(1, std::memory_order_release);
  announceDevices(*before->configuration, *next);
}

}  // namespace qn
