#include "devcfg/dev_cfg_base.h"

#include <memory>
#include <new>
#include <string_view>

#include "devcfg/device_answer.h"
#include "protocol/device_reply.h"
#include "protocol/error_code.h"
#include "protocol/log.h"

namespace QNKAVROProtocol {
namespace {

constexpr int kDeviceTimeoutMs = 10000;

unsigned char methodCode(const CHttpExchange& exchange) {
  return static_cast<unsigned char>(exchange.getMethod());
}

// The way out when memory is short: needs none. After an answer it does nothing.
void sendEmptyFailure(int httpHandle) noexcept {
  try {
    CHttpExchange exchange(httpHandle);
    exchange.setStatus(500);
    exchange.response("", 0);
  } catch (...) {  // the service answers for us when its time is over
  }
}

void answerExchange(int httpHandle, std::string_view reply) noexcept {
  try {
    CHttpExchange exchange(httpHandle);
    const DeviceAnswer answer =
        answerOfReply(reply, {exchange.getUrl(), methodCode(exchange), exchange});
    logReply("deviceCfgCallBack", reply);
    sendReply(exchange, answer.status, answer.isXml, answer.body);
  } catch (...) {
    sendEmptyFailure(httpHandle);
  }
}

}  // namespace

int CDevCfgBase::checkUrlAndMethod(const std::string& /*url*/, unsigned int /*method*/) {
  return kDeclined;
}

int CDevCfgBase::createUserData(tagDEVCFG_USERDATA& /*userData*/, std::string& /*jsonBody*/,
                                int& /*timeoutMs*/, const CHttpExchange& /*exchange*/) {
  return 1;
}

int CDevCfgBase::procProtocol(int& /*bodyIsXml*/, std::string& body, int& asyncReply,
                              const stHttpRes& request, const std::string& devIndex) {
  const CHttpExchange& exchange = *request.exchange;
  const std::string& url = exchange.getUrl();
  std::string jsonUrl;
  std::string jsonBody;
  if (covertUrlandBody(jsonUrl, jsonBody, request, devIndex) != 0) {
    return answerError(body, ERROR_BAD_REQUEST, url);
  }
  std::unique_ptr<tagDEVCFG_USERDATA> userData(new (std::nothrow) tagDEVCFG_USERDATA);
  if (!userData) {
    QN_LOG(WLOG_ERROR, "no resouce.");
    return answerError(body, getPtoErrorCode(BUS_NO_RESOURCES), url);
  }
  userData->httpHandle = exchange.getHttpHandle();
  userData->owner = this;
  int timeoutMs = kDeviceTimeoutMs;
  if (createUserData(*userData, jsonBody, timeoutMs, exchange) == 0) {
    QN_LOG(WLOG_ERROR, "no resouce.");
    return answerError(body, getPtoErrorCode(BUS_NO_RESOURCES), url);
  }
  QN_LOG(WLOG_INFO, "[url=%s,handle=%d]QN_DeviceCfgBus_ProcessAsyn start", jsonUrl.c_str(),
         userData->httpHandle);
  const int refusal =
      QN_DeviceCfgBus_ProcessAsyn(methodCode(exchange), std::move(jsonUrl), jsonBody,
                                  deviceCfgCallBack, userData.get(), timeoutMs);
  if (refusal != 0) return answerError(body, getPtoErrorCode(refusal), url);
  static_cast<void>(userData.release());  // the callback's now, which may have run already
  asyncReply = 1;
  return 200;
}

int CDevCfgBase::deviceCfgCallBack(void* data, int length, void* userData) {
  auto* const record = static_cast<tagDEVCFG_USERDATA*>(userData);
  if (record == nullptr || record->owner == nullptr) {
    QN_LOG(WLOG_ERROR, "callback data error 1");
    return -1;
  }
  if (data == nullptr || length < 0) {
    QN_LOG(WLOG_ERROR, "callback data error 2");
    return -1;
  }
  const std::unique_ptr<tagDEVCFG_USERDATA> owned(record);
  if (record->httpHandle < 0) {
    QN_LOG(WLOG_ERROR, "callback data error 4");
    return 0;
  }
  answerExchange(record->httpHandle, {static_cast<const char*>(data), static_cast<size_t>(length)});
  return 0;
}

}  // namespace QNKAVROProtocol
