// One open alert stream: the connection it is written to and its send statistics. Held by the
// session table of CEventPto and by the delivery jobs under way to it.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace QNKAVROProtocol {

class AlarmPart;

class CAlertStreamSession {
 public:
  using Part = std::shared_ptr<const AlarmPart>;

  // A stream whose failed sends exceed this count is given up. A count, not a time.
  static constexpr int32_t kMaxFailedSends = 0x32000;

  CAlertStreamSession(int handle, int sessionId, std::string deviceIndex);

  int getHandle() const { return handle_; }
  int getSessionID() const { return sessionId_; }
  const std::string& getDeviceIndex() const { return deviceIndex_; }
  uint32_t getLastAlarmTime() const { return lastAlarmTime_; }
  int setSendAlarmTime(int time);
  // Zero resets the count of failed sends, anything else adds one to it.
  int setSendFailedTimes(int times);
  bool isTimeOut() const { return sendFailed_ > kMaxFailedSends; }
  // Writes the next heartbeat document. Returns 1.
  int getHeartBeat(std::string& document);

  // A part for which a job is queued next. Parts are pushed in the order of these calls, whichever
  // job runs first and on whatever thread; there are no more than the pool holds jobs.
  void expect(Part part);
  // No job was queued for it.
  void forget(const Part& part);
  // For each job: pushes the oldest part that is expected. Never waits: a thread that is already at
  // it does it. `push` must not throw.
  template <class Push>
  void pushExpected(Push push) {
    std::unique_lock lock(orderMutex());
    ++due_;
    if (isPushing_) return;
    isPushing_ = true;
    for (; due_ > 0 && !expected_.empty(); --due_) {
      const Part part = std::move(expected_.front());
      expected_.pop_front();
      lock.unlock();
      push(*part);
      lock.lock();
    }
    due_ = 0;
    isPushing_ = false;
  }

 private:
  using Parts = std::list<Part>;

  // Held for a few instructions; shared by many sessions, so that a quiet one is small.
  std::mutex& orderMutex() const;

  const int handle_;
  const int sessionId_;
  const std::string deviceIndex_;
  // Written by the delivery jobs, read by the timers.
  // Seeded with the low bits of the time of day although it is compared with ticks afterwards:
  // when the first heartbeat comes depends on it.
  std::atomic<uint32_t> lastAlarmTime_;
  std::atomic<int32_t> sendFailed_{0};
  std::atomic<int32_t> activePostCount_{0};

  // Guarded by orderMutex():
  bool isPushing_ = false;
  int due_ = 0;     // parts whose jobs have run
  Parts expected_;  // oldest first
};

}  // namespace QNKAVROProtocol
