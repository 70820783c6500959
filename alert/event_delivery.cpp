// See event_pto.h. Here: from the alarm bus's callback through the delivery pool to the streams.
#include <algorithm>
#include <array>
#include <exception>
#include <memory>
#include <new>
#include <string_view>

#include "alert/event_pto.h"
#include "json/reader.h"
#include "json/text.h"
#include "platform/alarm_bus.h"
#include "protocol/log.h"
#include "text/number.h"

namespace QNKAVROProtocol {
namespace {

using qn::json::Value;

constexpr const char* kAlert = "EventNotificationAlert";

// The operations that the log names.
constexpr const char* kCallback = "fAlarmDataCallBack";
constexpr const char* kWorkRoutine = "fAlarmProcessThread";

// These reach the clients as the JSON that the device sent; all others as XML.
constexpr std::array<std::string_view, 8> kJsonEventTypes = {
    "batteryStatus",         "devStatusChanged",
    "AccessControllerEvent", "FaceTemperatureMeasurementEvent",
    "LocalUserChange",       "IDCardInfoEvent",
    "QRCodeEvent",           "devXmlEvent"};

// What decides about an alarm, found in one walk. Of two members with one name the last counts.
struct AlarmFacts {
  Value description, type, device;

  explicit AlarmFacts(const Value& alert) {
    Value::Members members(alert);
    std::string_view name;
    for (Value value; members.next(name, value);) {
      if (name == "eventDescription") description = value;
      if (name == "eventType") type = value;
      if (name == "devIndex") device = value;
    }
  }
};

bool isXmlType(std::string_view eventType) {
  return std::ranges::find(kJsonEventTypes, eventType) == kJsonEventTypes.end();
}

// As far as the body's length, which follows.
std::string_view partHeader(ENUM_ALARM_TYPE type) {
  switch (type) {
    case ALARM_XML:
      return "--boundary\r\nContent-Type: application/xml; charset=\"UTF-8\"\r\nContent-Length: ";
    case ALARM_JSON:
      return "--boundary\r\nContent-Type: application/json; charset=\"UTF-8\"\r\nContent-Length: ";
  }
  return {};
}

}  // namespace

AlarmPart::AlarmPart(std::string_view body, ENUM_ALARM_TYPE type) : type_(type) {
  constexpr std::string_view kHeaderEnd = "\r\n\r\n";
  if (const std::string_view header = partHeader(type); !header.empty()) {
    const qn::text::Decimal length(body.size());
    bytes_.reserve(header.size() + length.view().size() + kHeaderEnd.size() + body.size());
    bytes_.append(header).append(length.view()).append(kHeaderEnd);
  }
  headerSize_ = bytes_.size();
  bytes_ += body;
}

int CEventPto::fAlarmDataCallBack(void* data, int length, void* user) {
  if (!user || !data || length <= 0) {
    QN_LOG(WLOG_ERROR, "param error");
    return -1;
  }
  try {
    const qn::json::Reading alarm({static_cast<const char*>(data), static_cast<size_t>(length)});
    return static_cast<CEventPto*>(user)->consumeAlarm(alarm.root()) == 0 ? length : -1;
  } catch (const std::exception& error) {
    QN_LOG(WLOG_ERROR, "%s", error.what());
    return -1;
  }
}

// 0 when the alarm was consumed.
int CEventPto::consumeAlarm(const Value& alarm) {
  const Value alert = alarm.member(kAlert);
  if (!alert.isObject()) return -1;
  const AlarmFacts facts(alert);
  if (facts.description.text() == "Heart Beat") return 0;
  std::string text;
  auto type = ALARM_JSON;
  if (facts.type.isString()) {
    if (isXmlType(facts.type.text())) {
      type = ALARM_XML;
      if (!alarmDocument(text, alarm)) return -1;
    } else {
      text = qn::json::writeJson(alert.copy());
    }
  }
  if (!facts.device.isString()) return -1;
  return queueAlarm(text, type, std::string(facts.device.text()));
}

bool CEventPto::needConvertToXml(const Value& alarm) {
  return isXmlType(alarm.member(kAlert).member("eventType").text());
}

int CEventPto::queueAlarm(const std::string& text, ENUM_ALARM_TYPE type,
                          const std::string& devIndex) {
  std::vector<Session> streams;
  streams.reserve(kMaxStreamsPerDevice);
  getSessionByDev(streams, devIndex);
  if (streams.empty()) return 0;
  const auto part = std::make_shared<const AlarmPart>(text, type);
  for (const auto& stream : streams) {
    std::unique_ptr<CAlarmParam> job(new (std::nothrow) CAlarmParam(part, stream, this));
    if (!job) {
      QN_LOG_IN(kCallback, WLOG_ERROR, "new CAlarmParam failed.");
      return -1;
    }
    stream->expect(part);
    if (!queueJob(job.release())) {
      stream->forget(part);
      QN_LOG_IN(kCallback, WLOG_ERROR,
                "[devIndex=%s,sessionId=%s, alarm=%s]ZRT_ThreadPoolFlex_Work failed.",
                devIndex.c_str(), std::to_string(stream->getSessionID()).c_str(), text.c_str());
    }
  }
  return 0;
}

// Takes the job over; one that the pool does not take is freed here.
bool CEventPto::queueJob(CAlarmParam* job) {
  if (ZRT_ThreadPoolFlex_Work(pool_, job) == 0) return true;
  delete job;
  return false;
}

int CEventPto::fAlarmProcessThread(void* job) {
  const std::unique_ptr<CAlarmParam> param(static_cast<CAlarmParam*>(job));
  if (!param) {
    QN_LOG(WLOG_ERROR, "pCAlarmParam is NULL");
    return 0;
  }
  const auto& session = param->getAlertStreamSession();
  const auto send = [&](const AlarmPart& part) { push(part, *session, param->getUserPtr()); };
  if (!session) {
    QN_LOG(WLOG_ERROR, "getAlertStreamSession failed");
  } else if (param->isExpected()) {
    session->pushExpected(send);
  } else {
    send(*param->part());
  }
  return 0;
}

// No CRLF follows the body: the next part's boundary does.
void CEventPto::push(const AlarmPart& part, CAlertStreamSession& session, void* user) try {
  const std::string& bytes = part.bytes();
  CHttpExchange exchange(session.getHandle());
  const int written = exchange.response(bytes.data(), static_cast<int>(bytes.size()));
  if (written == static_cast<int>(bytes.size())) {
    session.setSendAlarmTime(static_cast<int>(ZRT_GetTimeTick()));
    session.setSendFailedTimes(0);
  } else if (written != QNHttpService::HTTP_LINK_BROKEN) {
    session.setSendFailedTimes(1);
  } else {
    if (auto* const owner = static_cast<CEventPto*>(user)) {
      owner->dropBrokenStream(session);
    } else {
      QN_LOG_IN(kWorkRoutine, WLOG_ERROR, "getUserPtr failed");
    }
    QN_LOG_IN(kWorkRoutine, WLOG_ERROR, "[DevIndex=%s]link broken response fail.",
              session.getDeviceIndex().c_str());
  }
} catch (const std::exception& error) {
  QN_LOG_IN(kWorkRoutine, WLOG_ERROR, "%s", error.what());
}

void CEventPto::dropBrokenStream(const CAlertStreamSession& session) {
  std::lock_guard guard(subscription_);
  deleSessionByID(session.getSessionID());
  if (hasStream(session.getDeviceIndex())) return;
  std::string reply;
  QN_AlarmBus_DeleteDevice(reply, subscribeId_, session.getDeviceIndex());
}

}  // namespace QNKAVROProtocol
