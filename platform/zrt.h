// The portable runtime: mutexes, atomics, timers, the flexible thread pool, clocks, UUIDs, C-string
// helpers, errors. The reference implementation is gateway/runtime.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

// A mutex, not recursive, and its scope guard.
class ZRT_Mutex {
 public:
  void Lock() { mutex_.lock(); }
  void Unlock() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

class ZRT_Guard {
 public:
  explicit ZRT_Guard(ZRT_Mutex& mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~ZRT_Guard() { mutex_.Unlock(); }
  ZRT_Guard(const ZRT_Guard&) = delete;
  ZRT_Guard& operator=(const ZRT_Guard&) = delete;

 private:
  ZRT_Mutex& mutex_;
};

// Adds one and returns the new value, as one atomic step.
int32_t ZRT_AtomicInc(int32_t* value);

// Microseconds since the epoch; monotonic milliseconds.
uint64_t ZRT_TimeNow();
uint64_t ZRT_GetTimeTick();

// Runs on the runtime's timer thread; must not throw. The result is ignored.
using ZRT_TimerRoutine = int (*)(int timerId, void* user);
// Starts a periodic timer (first run after one period; `option` is 0). A timer never overlaps
// itself: a run that takes longer than the period skips the missed ones. Returns 0 with the id
// (not negative) in timerId, which is set before the first run; -1 on failure (see
// ZRT_GetLastError): period below 1, no resources.
int ZRT_SetTimer(ZRT_TimerRoutine routine, void* user, int periodMs, int& timerId, int option);
// Stops a timer and waits for a running routine; called from that routine it only stops it.
// Returns 0, or -1 for an unknown id.
int ZRT_KillTimer(int timerId);

// The flexible pool: at most maxThreads threads, started when work waits, ended after idleMs
// without work. Short jobs share a thread, also that of an alarm callback which queued them, when
// it has returned; one that has waited for some milliseconds gets another. -1 on failure.
using ZRT_PoolRoutine = int (*)(void* job);  // must not throw; the result is ignored
int64_t ZRT_ThreadPoolFlex_Create(int maxThreads, int idleMs, ZRT_PoolRoutine routine,
                                  int stackBytes);
// Queues a job for the pool's routine; never blocks. 0, or -1 when the pool is unknown or destroyed
// or its queue (65536 jobs) is full; the job stays the caller's then.
int ZRT_ThreadPoolFlex_Work(int64_t pool, void* job);
// Takes no more work, runs every job already queued, and returns when the last has ended. 0, or -1
// for an unknown pool.
int ZRT_ThreadPoolFlex_Destroy(int64_t pool);

struct ZRT_UUID {
  uint8_t bytes[16];
};
// A random UUID (version 4); 0 on success.
int ZRT_GetUUID(ZRT_UUID& uuid);
// Its 36 lower-case characters and a NUL into text[size]; -1 when size is below 37.
int ZRT_StringFromUUID(const ZRT_UUID& uuid, char* text, int size);

// Leading blanks, a sign and decimal digits as a number; 0 without digits, and the nearest limit
// when out of range. A null text is 0.
int32_t ZRT_Atoi32(const char* text);
// The number in base 2 to 36 into text[size]; returns text, or null when it does not fit.
char* ZRT_Itoa(int32_t value, char* text, int size, int base);
// As the C functions of the same names. ZRT_Strncpy copies at most `count` characters and always
// adds a NUL, so `to` holds count + 1. Null counts as empty.
int ZRT_Strcmp(const char* a, const char* b);
int ZRT_Strncmp(const char* a, const char* b, int count);
char* ZRT_Strncpy(char* to, const char* from, int count);
const char* ZRT_Strstr(const char* text, const char* part);

// The calling thread's last error of the runtime, and of the system (errno).
int ZRT_GetLastError();
int ZRT_GetSystemLastError();
