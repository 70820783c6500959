// See device_kavro_pto.h. Here: forwarding and the answer.
#include "passthrough/device_kavro_pto.h"

#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string_view>

#include "json/reader.h"
#include "platform/base_library.h"
#include "platform/slow_resources.h"
#include "platform/zrt.h"
#include "protocol/device_reply.h"
#include "protocol/error_code.h"
#include "protocol/log.h"

namespace QNKAVROProtocol {
namespace {

constexpr int kTimeoutMs = 15000;
constexpr std::size_t kMaxForwardUrl = 2048;

// Status and kind of a reply whose text goes out unchanged.
struct ReplyMeaning {
  int status = 200;
  bool isXml = true;
};

ReplyMeaning meaningOf(std::string_view reply) {
  const qn::json::Reading reading(reply);
  if (reading.isJson()) return {statusOfJsonReply(reading.root()), false};
  return {statusOfXmlReply(reply), true};
}

std::string forwardUrl(const std::string& url, const std::string& devIndex) {
  return url + (url.rfind('?') != std::string::npos ? "&devIndex=" : "?devIndex=") + devIndex;
}

}  // namespace

int CDeviceKAVROPto::checkUrlAndMethod(const std::string& url, unsigned int) {
  return ZRT_Strncmp(url.c_str(), "/KAVRO/", 7) == 0 ? 0 : -1;
}

int CDeviceKAVROPto::procProtocol(int&, std::string& response, int& answered,
                                  const stHttpRes& request, const std::string& devIndex) {
  if (!request.exchange) return answerError(response, getPtoErrorCode(BUS_PARAMETER), "");
  auto& exchange = *request.exchange;
  const auto& url = exchange.getUrl();

  std::unique_ptr<tagDEVCFG_USERDATA> record(new (std::nothrow) tagDEVCFG_USERDATA);
  if (!record) {
    QN_LOG(WLOG_ERROR, "No resouce.");
    return answerError(response, getPtoErrorCode(BUS_NO_RESOURCES), url);
  }
  record->httpHandle = exchange.getHttpHandle();
  record->owner = this;
  int timeoutMs = kTimeoutMs;

  std::string body;
  if (request.body) {
    body.assign(request.body, static_cast<std::size_t>(request.bodyLength));
    const int code = procPssUrlReq(body, answered, request);
    if (code != 1) {
      const auto error = static_cast<unsigned int>(code);
      return answered == 0 ? answerError(response, error, url) : getHttpStatusCodeByErrorNo(error);
    }
  }
  if (createUserData(*record, body, timeoutMs, exchange) == 0) {
    QN_LOG(WLOG_ERROR, "No resouce.");
    return answerError(response, getPtoErrorCode(BUS_NO_RESOURCES), url);
  }
  const auto target = forwardUrl(url, devIndex);
  if (target.size() > kMaxForwardUrl) {
    QN_LOG(WLOG_ERROR, "param error");
    return answerError(response, getPtoErrorCode(BUS_PARAMETER), url);
  }
  const int result =
      QN_DeviceCfgBus_ProcessAsyn(static_cast<unsigned char>(exchange.getMethod()), target, body,
                                  deviceKAVROCallBack, record.get(), timeoutMs);
  if (result != DEVCFGBUS_OK) return answerError(response, getPtoErrorCode(result), url);
  static_cast<void>(record.release());  // the callback's now
  answered = 1;
  return 200;
}

int CDeviceKAVROPto::createUserData(tagDEVCFG_USERDATA& userData, std::string&, int& timeoutMs,
                                    const CHttpExchange& exchange) {
  for (const auto& resource : kSlowResources) {
    if (!cmpURL(exchange.getUrl(), resource.path.data()) || !resource.isFor(exchange.getMethod())) {
      continue;
    }
    timeoutMs = static_cast<int>(resource.timeout.count());
    if (resource.slowPart != SlowPart::TakesPicture) return 1;
    userData.data = new (std::nothrow) char[m_strFaceUrl.size() + 1];
    if (!userData.data) {
      QN_LOG(WLOG_ERROR, "no resouce.");
      return 0;
    }
    std::memcpy(userData.data, m_strFaceUrl.c_str(), m_strFaceUrl.size() + 1);
    userData.dataLength = static_cast<int>(m_strFaceUrl.size());
    return 1;
  }
  return 1;
}

int CDeviceKAVROPto::deviceKAVROCallBack(void* data, int length, void* userData) {
  if (!data || length < 0 || !userData) {
    QN_LOG(WLOG_ERROR, "callback data error 1");
    return -1;
  }
  const std::unique_ptr<tagDEVCFG_USERDATA> record(static_cast<tagDEVCFG_USERDATA*>(userData));
  const std::string_view reply(static_cast<const char*>(data), static_cast<std::size_t>(length));
  try {
    ReplyMeaning meaning;
    if (record->httpHandle < 0 || !record->owner) {
      QN_LOG(WLOG_ERROR, "callback data error 2");
    } else {
      meaning = meaningOf(reply);
    }
    if (record->httpHandle != -1) {
      logReply("deviceKAVROCallBack", reply);
      CHttpExchange exchange(record->httpHandle);
      sendReply(exchange, meaning.status, meaning.isXml, reply);
    }
  } catch (const std::exception& error) {  // short of memory; the service answers in our place
    QN_LOG(WLOG_ERROR, "%s", error.what());
  }
  return 0;
}

int CDeviceKAVROPto::proRspFollow(int&, std::string&, const std::string&, const CHttpExchange&) {
  return 0;
}

}  // namespace QNKAVROProtocol
