// See event_pto.h. Here: from the alarm bus's callback through the delivery pool to the streams.
#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "alert/event_pto.h"
#include "document/json_text.h"
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

// The string member of an object; null when it is absent or of another kind.
const Json::Value* findString(const Json::Value& object, const char* name) {
  const Json::Value& member = object[name];
  return member.isString() ? &member : nullptr;
}

std::string partHeader(ENUM_ALARM_TYPE type, std::size_t length) {
  const char* contentType = nullptr;
  if (type == ALARM_XML) contentType = "application/xml";
  if (type == ALARM_JSON) contentType = "application/json";
  if (!contentType) return {};
  char header[256];
  const int size = std::snprintf(header, sizeof header,
                                 "--boundary\r\nContent-Type: %s; charset=\"UTF-8\"\r\n"
                                 "Content-Length: %d\r\n\r\n",
                                 contentType, static_cast<int>(length));
  return std::string(header, static_cast<std::size_t>(size));
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
  Json::Value root;
  if (!parseJson({data, static_cast<std::size_t>(length)}, root) || !root.isObject()) return -1;
  const Json::Value& alert = std::as_const(root)[kAlert];
  if (!alert.isObject()) return -1;
  const auto* description = findString(alert, "eventDescription");
  if (description && *description == "Heart Beat") return length;

  std::string text;
  auto type = ALARM_JSON;
  if (findString(alert, "eventType")) {
    if (needConvertToXml(root)) {
      type = ALARM_XML;
      QNBase::CXmlBase xml;
      xml.CreateDeclaration("1.0", "UTF-8");
      xml.CreateRoot(kAlert);
      if (convertAlarmData(root, xml) != 1) return -1;
      text = xml.GetChildren();
    } else {
      text = writeJson(alert);
    }
  }
  const auto* devIndex = findString(alert, "devIndex");
  if (!devIndex) return -1;
  return queueAlarm(text, type, devIndex->asString()) == 0 ? length : -1;
}

bool CEventPto::needConvertToXml(const Json::Value& alarm) {
  const auto type = alarm[kAlert]["eventType"].asString();
  return std::find(kJsonEventTypes.begin(), kJsonEventTypes.end(), type) == kJsonEventTypes.end();
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
  const auto& text = job.getAlarmXmlRsp();
  const auto part = partHeader(job.getAlarmType(), text.size()) + text;
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
