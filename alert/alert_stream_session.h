// One open alert stream: the connection it is written to and its send statistics. Held by the
// session table of CEventPto and by the delivery jobs under way to it.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace QNKAVROProtocol {

class CAlertStreamSession {
 public:
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

 private:
  const int handle_;
  const int sessionId_;
  const std::string deviceIndex_;
  // Written by the delivery jobs, read by the timers.
  // Seeded with the low bits of the time of day although it is compared with ticks afterwards:
  // when the first heartbeat comes depends on it.
  std::atomic<uint32_t> lastAlarmTime_;
  std::atomic<int32_t> sendFailed_{0};
  std::atomic<int32_t> activePostCount_{0};
};

}  // namespace QNKAVROProtocol
