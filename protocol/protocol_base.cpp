#include "protocol/protocol_base.h"

#include "platform/base_library.h"
#include "platform/config_mgr.h"
#include "platform/device_mgr.h"
#include "platform/zrt.h"
#include "protocol/error_code.h"
#include "protocol/log.h"
#include "protocol/status_document.h"

namespace QNKAVROProtocol {
namespace {

bool isActivated() {
  const auto users = QN_ConfigMgr_GetUserCfg();
  return users && users->isActivated();
}

int configuredHttpPort() {
  const auto network = QN_ConfigMgr_GetNetworkCfg();
  return network ? network->getHttpPort() : 0;
}

// Fills `result` for the request's Authorization header and returns the bus's verdict.
int checkDigest(tagDIGEST_RESULT& result, const CHttpExchange& exchange,
                const std::string& clientIp) {
  tagDIGEST_REQUEST request{};
  ZRT_Strncpy(request.clientIp, clientIp.c_str(), DIGEST_CLIENT_IP_MAX);
  ZRT_Strncpy(request.authorization, exchange.getHead("Authorization").c_str(),
              DIGEST_AUTHORIZATION_MAX);
  int mode = DIGEST_MODE_OWN_DEVICE;
  const int hostPort = portOfHost(exchange.getHead("Host"));
  if (hostPort != configuredHttpPort()) {
    request.port = static_cast<uint16_t>(hostPort);
    mode = DIGEST_MODE_BY_PORT;
  }
  const auto method = static_cast<unsigned char>(exchange.getMethod());
  return QN_KAVROMgrBus_CheckDigest(result, QNBase::CRESTfulProtocol::GetMethod(method), request,
                                    mode);
}

// Wrong credentials or locked: the bus's challenge as it stands, even empty, and the lock's state.
int answerRefused(std::string& body, CHttpExchange& exchange, const tagDIGEST_RESULT& result) {
  exchange.setHead("WWW-Authenticate", result.wwwAuthenticate);
  body = CProtocolBase::getUnauthRsp(exchange.getUrl().c_str(), result.retryLoginTime,
                                     result.unlockTime, 0);
  return getHttpStatusCodeByErrorNo(ERROR_UNAUTHORIZED);
}

// No usable credentials: a challenge, but nothing about the lock.
int answerChallenge(std::string& body, CHttpExchange& exchange, const tagDIGEST_RESULT& result) {
  if (result.wwwAuthenticate[0] != '\0') {
    exchange.setHead("WWW-Authenticate", result.wwwAuthenticate);
  } else {
    exchange.setHead("WWW-Authenticate", CProtocolBase::buildUnauthorHead(0).c_str());
  }
  body = CProtocolBase::getUnauthRsp(exchange.getUrl().c_str(), result.retryLoginTime,
                                     result.unlockTime, 1);
  return getHttpStatusCodeByErrorNo(ERROR_UNAUTHORIZED);
}

int answerJsonError(int& bodyIsXml, std::string& body, unsigned int errorCode) {
  int status = 403;
  body = jsonStatusDocument(errorCode, status);
  bodyIsXml = 0;
  return status;
}

}  // namespace

// A host without a port counts as port 0, so that it never equals a configured port.
int portOfHost(const std::string& host) {
  const std::size_t colon = host.find(':');
  return colon == std::string::npos ? 0 : ZRT_Atoi32(host.c_str() + colon + 1);
}

int CProtocolBase::answerError(std::string& body, unsigned int errorCode, const std::string& url) {
  body = getResponseByError(static_cast<int>(errorCode), url);
  return getHttpStatusCodeByErrorNo(errorCode);
}

int CProtocolBase::proc(int& bodyIsXml, std::string& body, int& asyncReply,
                        const stHttpRes& request) {
  if (!request.exchange) return kDeclined;
  CHttpExchange& exchange = *request.exchange;
  const std::string& url = exchange.getUrl();
  if (checkUrlAndMethod(url, exchange.getMethod()) == kDeclined) return kDeclined;
  if (!isActivated()) return answerError(body, ERROR_NOT_ACTIVATED, url);

  const std::string clientIp = getClientIP(request.exchange);
  tagDIGEST_RESULT result{};
  const int verdict = checkDigest(result, exchange, clientIp);
  switch (verdict) {
    case DIGEST_OK:
      return procAuthenticated(bodyIsXml, body, asyncReply, request, result.devIndex, clientIp);
    case DIGEST_REFUSED:
      return answerRefused(body, exchange, result);
    case DIGEST_NO_CREDENTIALS:
      return answerChallenge(body, exchange, result);
    default:
      const unsigned int code = getPtoErrorCode(verdict);
      return IsJsonURL(url) ? answerJsonError(bodyIsXml, body, code) : answerError(body, code, url);
  }
}

// A missing device is only noted: the handler still runs and its answer wins.
int CProtocolBase::procAuthenticated(int& bodyIsXml, std::string& body, int& asyncReply,
                                     const stHttpRes& request, const std::string& devIndex,
                                     const std::string& clientIp) {
  const std::string& url = request.exchange->getUrl();
  int login = DIGEST_OK;
  if (!QN_DeviceMgr_GetDevice(devIndex)) {
    QN_LOG_IN("proc", WLOG_ERROR, "[szDevIndx=%s]User Bound Device is not exist.",
              devIndex.c_str());
    login = answerError(body, ERROR_DEVICE_NOT_FOUND, url);
  }
  saveOperationLog("admin", clientIp, url,
                   static_cast<unsigned char>(request.exchange->getMethod()), login);
  const int status = procProtocol(bodyIsXml, body, asyncReply, request, devIndex);
  return status == -1 ? answerError(body, ERROR_INTERNAL, url) : status;
}

}  // namespace QNKAVROProtocol
