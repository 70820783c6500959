// See event_pto.h. Here: the request, the subscription and the table of open streams.
#include "alert/event_pto.h"

#include <algorithm>
#include <exception>

#include "json/text.h"
#include "platform/alarm_bus.h"
#include "platform/base_library.h"
#include "protocol/error_code.h"
#include "protocol/log.h"

namespace QNKAVROProtocol {
namespace {

constexpr const char* kAlertStreamUrl = "/KAVRO/Event/notification/alertStream";

}  // namespace

int CEventPto::checkUrlAndMethod(const std::string& url, unsigned int method) {
  return url == kAlertStreamUrl && method == QNHttpService::HTTP_GET ? 0 : -1;
}

int CEventPto::procProtocol(int&, std::string& body, int& asyncReply, const stHttpRes& request,
                            const std::string& devIndex) {
  const auto& url = request.exchange->getUrl();
  if (checkUrlAndMethod(url, request.exchange->getMethod() & 0xFF) != 0) {
    return answerError(body, ERROR_INTERNAL, url);
  }
  return procAlertStream(body, asyncReply, request, devIndex);
}

int CEventPto::procAlertStream(std::string& body, int& asyncReply, const stHttpRes& request,
                               const std::string& devIndex) {
  const int id = nextSessionId();
  SessionTable session;
  try {
    session = SessionTable(
        std::make_shared<CAlertStreamSession>(request.exchange->getHttpHandle(), id, devIndex));
  } catch (const std::exception&) {
    QN_LOG(WLOG_ERROR, "[sysErr=%d]make_shared session error", ZRT_GetSystemLastError());
    return answerError(body, getPtoErrorCode(BUS_NO_RESOURCES), request.exchange->getUrl());
  }
  return openStream(body, asyncReply, request, devIndex, session);
}

int CEventPto::nextSessionId() {
  ZRT_Guard guard(sessionMutex_);
  return ZRT_AtomicInc(&sessionIdCounter_);
}

// `session` is the new stream's table entry, made beforehand: once the client has the head, nothing
// can fail any more.
int CEventPto::openStream(std::string& body, int& asyncReply, const stHttpRes& request,
                          const std::string& devIndex, SessionTable& session) {
  const auto& url = request.exchange->getUrl();
  std::lock_guard guard(subscription_);
  if (subscribeId_ == -1) {
    if (!subscribeFirst(asyncReply, request, devIndex)) {
      return answerError(body, ERROR_RESOURCE_NOT_FOUND, url);
    }
  } else {
    switch (admit(devIndex)) {
      case Admission::BusRefused: {
        // The body handed back stays empty on this path.
        std::string unsent;
        return answerError(unsent, ERROR_RESOURCE_NOT_FOUND, url);
      }
      case Admission::TooMany:
        QN_LOG_IN("procAlertStream", WLOG_ERROR,
                  "[devIndx=%s]This device alertstream number is over max value.",
                  devIndex.c_str());
        return answerError(body, getPtoErrorCode(BUS_TOO_MANY_STREAMS), url);
      case Admission::Admitted:
        answerStream(asyncReply, request);
    }
  }
  QNBase::CRWLock::WriteGuard write(sessionLock_);
  sessions_.merge(session);
  return 200;
}

// The device is part of the subscription request, so it is not added once more.
bool CEventPto::subscribeFirst(int& asyncReply, const stHttpRes& request,
                               const std::string& devIndex) {
  std::string reply;
  int id = -1;
  if (QN_AlarmBus_Subscribe(reply, getSubscribeReq(devIndex), fAlarmDataCallBack, this, 1, id) !=
      0) {
    QN_LOG_IN("procAlertStream", WLOG_ERROR, "QN_AlarmBus_Subscribe failed.");
    return false;
  }
  try {
    answerStream(asyncReply, request);
  } catch (...) {  // no memory: a subscription without a stream would never be started
    QN_AlarmBus_UnSubscribe(reply, id, 1);
    throw;
  }
  QN_AlarmBus_StartUploadData(id);
  subscribeId_ = id;
  QN_LOG_IN("procAlertStream", WLOG_INFO, "[subscibeId=%d]QN_AlarmBus_Subscribe success.", id);
  return true;
}

CEventPto::Admission CEventPto::admit(const std::string& devIndex) {
  std::vector<Session> open;
  getSessionByDev(open, devIndex);
  // A client that has gone holds no place, although only the next push to it removes its session.
  const auto isOpen = [](const Session& session) {
    return !CHttpExchange(session->getHandle()).getUrl().empty();
  };
  const auto streams = static_cast<std::size_t>(std::ranges::count_if(open, isOpen));
  if (streams >= kMaxStreamsPerDevice) return Admission::TooMany;
  if (!open.empty()) return Admission::Admitted;
  std::string reply;
  if (QN_AlarmBus_AddDevice(reply, subscribeId_, devIndex, getSubscribeDeviceReq(devIndex)) != 0) {
    QN_LOG_IN("procAlertStream", WLOG_ERROR, "QN_AlarmBus_AddDevice failed.");
    return Admission::BusRefused;
  }
  return Admission::Admitted;
}

// Sends the head; the body stays open.
void CEventPto::answerStream(int& asyncReply, const stHttpRes& request) {
  asyncReply = 1;
  request.exchange->setMIME();
  request.exchange->setStatus(200);
  request.exchange->response(nullptr, 0);
}

std::string CEventPto::getSubscribeReq(const std::string& devIndex) {
  Json::Value device;
  device["Dev"]["devIndex"] = devIndex;
  device["Dev"]["uploadMode"] = "all";
  Json::Value request;
  request["SubscribeDeviceMgmt"]["eventMode"] = "device";
  request["SubscribeDeviceMgmt"]["DevEventList"].append(device);
  return qn::json::writeJson(request);
}

std::string CEventPto::getSubscribeDeviceReq(const std::string& devIndex) {
  Json::Value request;
  request["SubscribeDevEvent"]["devIndex"] = devIndex;
  request["SubscribeDevEvent"]["uploadMode"] = "all";
  return qn::json::writeJson(request);
}

int CEventPto::getSessionByDev(std::vector<Session>& out, const std::string& devIndex) {
  QNBase::CRWLock::ReadGuard guard(sessionLock_);
  sessions_.visitDevice(devIndex, [&](const Session& session) { out.push_back(session); });
  return 1;
}

bool CEventPto::hasStream(const std::string& devIndex) {
  std::vector<Session> open;
  getSessionByDev(open, devIndex);
  return !open.empty();
}

int CEventPto::deleSessionByID(int id) {
  QNBase::CRWLock::WriteGuard guard(sessionLock_);
  sessions_.erase(id);
  return 0;
}

}  // namespace QNKAVROProtocol
