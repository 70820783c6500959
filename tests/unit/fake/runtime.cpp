// platform/zrt.h: clocks, timers and pool. Its text helpers and UUIDs are the real ones.
#include <algorithm>
#include <atomic>
#include <deque>

#include "platform/zrt.h"
#include "tests/unit/fake/fake_platform.h"
#include "tests/unit/fake/resettable.h"

namespace fake {
namespace {

struct Timer {
  ZRT_TimerRoutine routine;
  void* user;
  uint64_t periodMs;
  uint64_t dueMs;
};

struct Pool {
  ZRT_PoolRoutine routine;
  std::deque<void*> jobs;
};

std::map<int, Timer> timerTable;
std::map<int64_t, Pool> poolTable;
int lastTimer = -1;
int64_t lastPool = 0;

int runAll(Pool& pool) {
  int count = 0;
  for (; !pool.jobs.empty(); ++count) {
    void* job = pool.jobs.front();
    pool.jobs.pop_front();
    pool.routine(job);
  }
  return count;
}

// The timer that is due first, at or before a tick.
std::map<int, Timer>::iterator nextDue(uint64_t tickMs) {
  const auto first = std::ranges::min_element(timerTable, {},
                                              [](const auto& entry) { return entry.second.dueMs; });
  return first != timerTable.end() && first->second.dueMs <= tickMs ? first : timerTable.end();
}

}  // namespace

Runtime& runtime() {
  static Runtime values;
  return values;
}

void Runtime::advance(uint64_t milliseconds) {
  const uint64_t end = tickMs + milliseconds;
  const uint64_t endUs = nowUs + milliseconds * 1000;
  for (auto due = nextDue(end); due != timerTable.end(); due = nextDue(end)) {
    const Timer timer = due->second;
    const int id = due->first;
    due->second.dueMs += timer.periodMs;
    tickMs = timer.dueMs;
    nowUs = endUs - (end - tickMs) * 1000;
    timer.routine(id, timer.user);
  }
  tickMs = end;
  nowUs = endUs;
}

int Runtime::runJobs() {
  int count = 0;
  for (auto& [id, pool] : poolTable) count += runAll(pool);
  return count;
}

int Runtime::queuedJobs() const {
  std::size_t count = 0;
  for (const auto& [id, pool] : poolTable) count += pool.jobs.size();
  return static_cast<int>(count);
}

int Runtime::timers() const { return static_cast<int>(timerTable.size()); }

void resetRuntime() {
  runtime() = {};
  timerTable.clear();
  poolTable.clear();
}

}  // namespace fake

uint64_t ZRT_TimeNow() { return fake::runtime().nowUs; }
uint64_t ZRT_GetTimeTick() { return fake::runtime().tickMs; }
int32_t ZRT_AtomicInc(int32_t* value) { return std::atomic_ref(*value).fetch_add(1) + 1; }

int ZRT_SetTimer(ZRT_TimerRoutine routine, void* user, int periodMs, int& timerId, int /*option*/) {
  if (fake::runtime().refuseTimers || periodMs < 1) return -1;
  const auto period = static_cast<uint64_t>(periodMs);
  timerId = ++fake::lastTimer;
  fake::timerTable[timerId] = {routine, user, period, fake::runtime().tickMs + period};
  return 0;
}

int ZRT_KillTimer(int timerId) { return fake::timerTable.erase(timerId) == 1 ? 0 : -1; }

int64_t ZRT_ThreadPoolFlex_Create(int /*maxThreads*/, int /*idleMs*/, ZRT_PoolRoutine routine,
                                  int /*stackBytes*/) {
  if (fake::runtime().refusePools) return -1;
  fake::poolTable[++fake::lastPool] = {routine, {}};
  return fake::lastPool;
}

int ZRT_ThreadPoolFlex_Work(int64_t pool, void* job) {
  const auto found = fake::poolTable.find(pool);
  if (found == fake::poolTable.end() || fake::runtime().refuseJobs) return -1;
  found->second.jobs.push_back(job);
  return 0;
}

int ZRT_ThreadPoolFlex_Destroy(int64_t pool) {
  const auto found = fake::poolTable.find(pool);
  if (found == fake::poolTable.end()) return -1;
  fake::runAll(found->second);
  fake::poolTable.erase(found);
  return 0;
}
