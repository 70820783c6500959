// See alert_stream_session.h.
#include "alert/alert_stream_session.h"

#include <array>
#include <utility>

#include "platform/base_library.h"
#include "platform/xml_base.h"
#include "platform/zrt.h"
#include "protocol/status_document.h"

namespace QNKAVROProtocol {
namespace {

constexpr int kHeartBeatBytes = 1024;

}  // namespace

CAlertStreamSession::CAlertStreamSession(int handle, int sessionId, std::string deviceIndex)
    : handle_(handle),
      sessionId_(sessionId),
      deviceIndex_(std::move(deviceIndex)),
      lastAlarmTime_(static_cast<uint32_t>(ZRT_TimeNow())) {}

int CAlertStreamSession::setSendAlarmTime(int time) {
  lastAlarmTime_ = static_cast<uint32_t>(time);
  return 1;
}

int CAlertStreamSession::setSendFailedTimes(int times) {
  if (times == 0) {
    sendFailed_ = 0;
  } else {
    ++sendFailed_;
  }
  return 1;
}

int CAlertStreamSession::getHeartBeat(std::string& document) {
  std::string now;
  GetCurTime8601(now, 0);
  QNBase::CXmlBase xml;
  xml.CreateDeclaration("1.0", "UTF-8");
  xml.CreateRoot("EventNotificationAlert");
  addTextElement(xml, "dataTime", now);
  addTextElement(xml, "activePostCount", std::to_string(++activePostCount_));
  addTextElement(xml, "eventType", "heartBeat");
  addTextElement(xml, "eventState", "active");
  addTextElement(xml, "eventDescription", "Heart Beat");

  char buffer[kHeartBeatBytes];
  int length = 0;
  xml.WriteToBuf(buffer, kHeartBeatBytes, length);
  document.assign(buffer, static_cast<std::size_t>(length));
  return 1;
}

void CAlertStreamSession::expect(Part part) {
  Parts one;
  one.push_back(std::move(part));  // memory is asked for without the lock
  const std::lock_guard lock(orderMutex());
  expected_.splice(expected_.end(), one);
}

void CAlertStreamSession::forget(const Part& part) {
  const std::lock_guard lock(orderMutex());
  expected_.remove(part);
}

std::mutex& CAlertStreamSession::orderMutex() const {
  static std::array<std::mutex, 32> mutexes;
  return mutexes[static_cast<unsigned>(sessionId_) % mutexes.size()];
}

}  // namespace QNKAVROProtocol
