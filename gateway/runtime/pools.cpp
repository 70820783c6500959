// Flexible thread pools of platform/zrt.h: a WorkerPool behind each handle.
#include <cerrno>
#include <chrono>
#include <memory>
#include <unordered_map>
#include <utility>

#include "gateway/net/worker_pool.h"
#include "gateway/runtime/operation.h"
#include "gateway/runtime/routine.h"
#include "gateway/sync/mutex.h"
#include "platform/zrt.h"

namespace qn {
namespace {

constexpr std::size_t kQueueLimit = 65536;
// A further thread takes jobs when one has waited for longer.
constexpr std::chrono::milliseconds kPatience{3};

struct FlexPool {
  FlexPool(const WorkerPoolOptions& options, ZRT_PoolRoutine routineIn)
      : workers(options), routine(routineIn) {}

  bool work(void* job) {
    return workers.post([this, job] { callRoutine("pool", [this, job] { return routine(job); }); });
  }

  WorkerPool workers;
  const ZRT_PoolRoutine routine;
};

// The pools by handle. Never destroyed: jobs may queue more while the process ends.
class Pools {
 public:
  static Pools& instance() {
    static auto* const pools = new Pools;
    return *pools;
  }

  int64_t add(std::shared_ptr<FlexPool> pool) {
    const MutexLock lock(mutex_);
    pools_.emplace(++lastHandle_, std::move(pool));
    return lastHandle_;
  }

  std::shared_ptr<FlexPool> find(int64_t handle) {
    const MutexLock lock(mutex_);
    const auto found = pools_.find(handle);
    return found == pools_.end() ? nullptr : found->second;
  }

  // Of several callers one gets the pool.
  bool remove(int64_t handle) {
    const MutexLock lock(mutex_);
    return pools_.erase(handle) == 1;
  }

 private:
  Mutex mutex_;
  std::unordered_map<int64_t, std::shared_ptr<FlexPool>> pools_ QN_GUARDED_BY(mutex_);
  int64_t lastHandle_ QN_GUARDED_BY(mutex_) = 0;
};

}  // namespace

}  // namespace qn

int64_t ZRT_ThreadPoolFlex_Create(int maxThreads, int idleMs, ZRT_PoolRoutine routine,
                                  int stackBytes) {
  if (maxThreads < 1 || idleMs < 0 || routine == nullptr || stackBytes < 0) return qn::fail(EINVAL);
  return qn::withoutThrowing([&]() -> int64_t {
    const qn::WorkerPoolOptions options{
        .threads = static_cast<std::size_t>(maxThreads),
        .queueLimit = qn::kQueueLimit,
        .idleTime = std::chrono::milliseconds(idleMs),
        .patience = qn::kPatience,
        .stackBytes = static_cast<std::size_t>(stackBytes),
        .name = "pool",
    };
    return qn::Pools::instance().add(std::make_shared<qn::FlexPool>(options, routine));
  });
}

int ZRT_ThreadPoolFlex_Work(int64_t pool, void* job) {
  return qn::withoutThrowing([&] {
    const auto found = qn::Pools::instance().find(pool);
    if (!found) return qn::fail(ENOENT);
    return found->work(job) ? 0 : qn::fail(EAGAIN);
  });
}

int ZRT_ThreadPoolFlex_Destroy(int64_t pool) {
  return qn::withoutThrowing([&] {
    const auto found = qn::Pools::instance().find(pool);
    if (found && found->workers.runsHere()) return qn::fail(EDEADLK);  // it would wait for itself
    if (!found || !qn::Pools::instance().remove(pool)) return qn::fail(ENOENT);
    found->workers.stop();
    return 0;
  });
}
