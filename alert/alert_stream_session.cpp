// See alert_stream_session.h.
#include "alert/alert_stream_session.h"

#include <array>
#include <utility>

#include "document/write_xml.h"
#include "platform/base_library.h"
#include "platform/zrt.h"
#include "text/number.h"
#include "text/xml.h"

namespace QNKAVROProtocol {

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
  document.assign(table::kDeclaration).append("<EventNotificationAlert><dataTime>");
  qn::text::appendEscapedXml(now, qn::text::XmlPlace::Text, document);
  document.append("</dataTime><activePostCount>");
  qn::text::appendDecimal(document, ++activePostCount_);
  document.append(
      "</activePostCount><eventType>heartBeat</eventType><eventState>active</eventState>"
      "<eventDescription>Heart Beat</eventDescription></EventNotificationAlert>");
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
