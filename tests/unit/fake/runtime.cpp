// platform/zrt.h: clocks, timers and pool (its text helpers and UUIDs are the real ones); platform/
// wlog.h; memory that runs out when a test says so; and the reset of all fakes.
#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <new>

#include "platform/wlog.h"
#include "platform/zrt.h"
#include "tests/unit/fake/fake_platform.h"

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

std::mutex mutex;
std::vector<LogLine> lines;  // guarded by mutex
bool quiet = false;

constexpr int kNever = -1;

thread_local int allocationsLeft = kNever;  // before the one that fails
thread_local bool failed = false;
thread_local bool nothrowFails = false;

bool failsNow() {
  if (allocationsLeft == kNever) return false;
  if (allocationsLeft-- > 0) return false;
  failed = true;
  return true;
}

void* allocate(std::size_t size) { return std::malloc(size == 0 ? 1 : size); }

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
  const std::lock_guard lock(mutex);
  lines.clear();
}

std::vector<LogLine> logLines() {
  const std::lock_guard lock(mutex);
  return lines;
}

bool logged(int level, std::string_view text) {
  const auto all = logLines();
  return std::ranges::any_of(all, [&](const LogLine& line) {
    return line.level == level && line.text.find(text) != std::string::npos;
  });
}

bool loggedIn(std::string_view function, int level, std::string_view text) {
  const std::string head = "[" + std::string(function) + "(";
  const auto all = logLines();
  return std::ranges::any_of(all, [&](const LogLine& line) {
    const std::size_t message = line.text.find(")] ");
    return line.level == level && line.text.starts_with(head) && message != std::string::npos &&
           std::string_view(line.text).substr(message + 3) == text;
  });
}

void beQuiet() { quiet = true; }
bool isQuiet() { return quiet; }

void reset() {
  resetBuses();
  resetHttp();
  resetGateway();
  resetRuntime();
}

FailAllocation::FailAllocation(int n) {
  failed = false;
  allocationsLeft = n;
}
FailAllocation::~FailAllocation() { allocationsLeft = kNever; }
bool FailAllocation::happened() const { return failed; }

FailNothrowAllocations::FailNothrowAllocations() { nothrowFails = true; }
FailNothrowAllocations::~FailNothrowAllocations() { nothrowFails = false; }

AllocationShelter::AllocationShelter() : saved_(allocationsLeft) { allocationsLeft = kNever; }
AllocationShelter::~AllocationShelter() { allocationsLeft = saved_; }

}  // namespace fake

uint64_t ZRT_TimeNow() { return fake::runtime().nowUs; }
uint64_t ZRT_GetTimeTick() { return fake::runtime().tickMs; }
int32_t ZRT_AtomicInc(int32_t* value) { return std::atomic_ref(*value).fetch_add(1) + 1; }

int ZRT_SetTimer(ZRT_TimerRoutine routine, void* user, int periodMs, int& timerId, int /*option*/) {
  if (fake::runtime().refuseTimers || periodMs < 1 || routine == nullptr) return -1;
  const auto period = static_cast<uint64_t>(periodMs);
  timerId = ++fake::lastTimer;
  fake::timerTable[timerId] = {routine, user, period, fake::runtime().tickMs + period};
  return 0;
}

int ZRT_KillTimer(int timerId) { return fake::timerTable.erase(timerId) == 1 ? 0 : -1; }

int64_t ZRT_ThreadPoolFlex_Create(int maxThreads, int idleMs, ZRT_PoolRoutine routine,
                                  int /*stackBytes*/) {
  if (fake::runtime().refusePools || maxThreads < 1 || idleMs < 0 || !routine) return -1;
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

void wlog_format(int level, const char* /*tag*/, const char* format, ...) {
  if (fake::isQuiet()) return;
  const fake::AllocationShelter shelter;
  char text[4096];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  const std::lock_guard lock(fake::mutex);
  fake::lines.push_back({level, text});
}

void* operator new(std::size_t size) {
  void* memory = fake::failsNow() ? nullptr : fake::allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return fake::nothrowFails || fake::failsNow() ? nullptr : fake::allocate(size);
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept { std::free(memory); }
