// See event_pto.h. Here: from the alarm bus's callback through the delivery pool to the streams.
#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "alert/event_pto.h"
#include "document/json_member.h"
#include "document/json_text.h"
#include "document/plain_value.h"
#include "platform/alarm_bus.h"
#include "protocol/log.h"

namespace QNKAVROProtocol {
namespace {

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

bool goesAsJson(std::string_view eventType) {
  return std::find(kJsonEventTypes.begin(), kJsonEventTypes.end(), eventType) !=
         kJsonEventTypes.end();
}

// The text of an object's string member; nothing when it is absent or of another kind.
template <class Value>
std::optional<std::string_view> findText(const Value& object, std::string_view name) {
  const Value* member = jsonMember(object, name);
  if (!member || !member->isString()) return std::nullopt;
  return jsonText(*member);
}

// Whether the alarm needs nothing but what a plain value can do.
bool goesAsXml(const PlainValue& root) {
  const PlainValue* alert = jsonMember(root, kAlert);
  const auto type = alert ? findText(*alert, "eventType") : std::nullopt;
  return type && !goesAsJson(*type);
}

template <class Value>
bool makeXml(const Value& root, std::string& text) {
  QNBase::CXmlBase xml;
  xml.CreateDeclaration("1.0", "UTF-8");
  xml.CreateRoot(kAlert);
  if (CEventPto::convertAlarmData(root, xml) != 1) return false;
  text = xml.GetChildren();
  return true;
}

std::string makePart(ENUM_ALARM_TYPE type, const std::string& text) {
  const char* contentType = nullptr;
  if (type == ALARM_XML) contentType = "application/xml";
  if (type == ALARM_JSON) contentType = "application/json";
  if (!contentType) return text;
  char header[256];
  const int size = std::snprintf(header, sizeof header,
                                 "--boundary\r\nContent-Type: %s; charset=\"UTF-8\"\r\n"
                                 "Content-Length: %d\r\n\r\n",
                                 contentType, static_cast<int>(text.size()));
  std::string part;
  part.reserve(static_cast<std::size_t>(size) + text.size());
  return part.append(header, static_cast<std::size_t>(size)).append(text);
}

}  // namespace

int CEventPto::fAlarmDataCallBack(void* data, int length, void* user) {
  if (!user || !data || length <= 0) {
    QN_LOG(WLOG_ERROR, "param error");
    return -1;
  }
  try {
    return static_cast<CEventPto*>(user)->consumeAlarm(static_cast<const char*>(data), length);
  } catch (const std::exception& error) {
    QN_LOG(WLOG_ERROR, "%s", error.what());
    return -1;
  }
}

int CEventPto::consumeAlarm(const char* data, int length) {
  const std::string_view alarm(data, static_cast<std::size_t>(length));
  thread_local PlainJson reader;
  const PlainValue* plain = reader.read(alarm);
  if (plain && goesAsXml(*plain)) return consumeAlarm(*plain, length);
  Json::Value root;
  return parseJson(alarm, root) ? consumeAlarm(root, length) : -1;
}

template <class Value>
int CEventPto::consumeAlarm(const Value& root, int length) {
  const Value* alert = jsonMember(root, kAlert);
  if (!alert || !alert->isObject()) return -1;
  if (findText(*alert, "eventDescription") == "Heart Beat") return length;

  std::string text;
  auto type = ALARM_JSON;
  if (const auto eventType = findText(*alert, "eventType")) {
    if (!goesAsJson(*eventType)) {
      type = ALARM_XML;
      if (!makeXml(root, text)) return -1;
    } else if constexpr (std::is_same_v<Value, Json::Value>) {
      text = writeJson(*alert);
    }
  }
  const auto devIndex = findText(*alert, "devIndex");
  if (!devIndex) return -1;
  return queueAlarm(text, type, std::string(*devIndex)) == 0 ? length : -1;
}

bool CEventPto::needConvertToXml(const Json::Value& alarm) {
  return !goesAsJson(alarm[kAlert]["eventType"].asString());
}

int CEventPto::queueAlarm(const std::string& text, ENUM_ALARM_TYPE type,
                          const std::string& devIndex) {
  std::vector<Session> streams;
  getSessionByDev(streams, devIndex);
  for (const auto& stream : streams) {
    auto* const job = new (std::nothrow) CAlarmParam(text, stream, this, type);
    if (!job) {
      QN_LOG_IN(kCallback, WLOG_ERROR, "new CAlarmParam failed.");
      return -1;
    }
    if (!queueJob(job)) {
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
  try {
    if (param->getAlertStreamSession()) {
      push(*param);
    } else {
      QN_LOG(WLOG_ERROR, "getAlertStreamSession failed");
    }
  } catch (const std::exception& error) {
    QN_LOG(WLOG_ERROR, "%s", error.what());
  }
  return 0;
}

// No CRLF follows the body: the next part's boundary does.
void CEventPto::push(const CAlarmParam& job) {
  const auto session = job.getAlertStreamSession();
  const auto part = makePart(job.getAlarmType(), job.getAlarmXmlRsp());
  CHttpExchange exchange(session->getHandle());
  const int written = exchange.response(part.data(), static_cast<int>(part.size()));
  if (written == static_cast<int>(part.size())) {
    session->setSendAlarmTime(static_cast<int>(ZRT_GetTimeTick()));
    session->setSendFailedTimes(0);
  } else if (written != QNHttpService::HTTP_LINK_BROKEN) {
    session->setSendFailedTimes(1);
  } else {
    if (auto* const owner = static_cast<CEventPto*>(job.getUserPtr())) {
      owner->dropBrokenStream(*session);
    } else {
      QN_LOG_IN(kWorkRoutine, WLOG_ERROR, "getUserPtr failed");
    }
    QN_LOG_IN(kWorkRoutine, WLOG_ERROR, "[DevIndex=%s]link broken response fail.",
              session->getDeviceIndex().c_str());
  }
}

void CEventPto::dropBrokenStream(const CAlertStreamSession& session) {
  std::lock_guard guard(subscription_);
  deleSessionByID(session.getSessionID());
  if (hasStream(session.getDeviceIndex())) return;
  std::string reply;
  QN_AlarmBus_DeleteDevice(reply, subscribeId_, session.getDeviceIndex());
}

}  // namespace QNKAVROProtocol
