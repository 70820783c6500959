// The frame that every request goes through: claim, activation, login, operation log, handler.
// Base class of all handlers.
#pragma once

#include <memory>
#include <string>

#include "platform/http_service.h"
#include "platform/kavro_mgr_bus.h"
#include "platform/rest_protocol.h"
#include "platform/xml_base.h"

namespace QNKAVROProtocol {

using QNBase::CXmlBase;
using QNHttpService::CHttpExchange;
using QNHttpService::stHttpRes;

// What checkUrlAndMethod, proc and the converters return for "not mine".
inline constexpr int kDeclined = -1;

// Without state, so every operation may be called on any thread. Handlers are made for one request
// and never deleted through this base. The order of the virtual operations is part of the
// interface.
class CProtocolBase : public QNBase::CRESTfulProtocol {
 public:
  // Serves a request as QN_Protocol_HTTPProcess describes it; kDeclined, with nothing else done,
  // for a URL and method that this handler does not serve.
  virtual int proc(int& bodyIsXml, std::string& body, int& asyncReply, const stHttpRes& request);

  // kDeclined, or 0 to claim the request.
  virtual int checkUrlAndMethod(const std::string& url, unsigned int method) = 0;

  // Serves an authenticated request; devIndex is the user's sub-device. Returns the HTTP status, -1
  // for an internal failure.
  virtual int procProtocol(int& bodyIsXml, std::string& body, int& asyncReply,
                           const stHttpRes& request, const std::string& devIndex) = 0;

  // Records an operation when getOperationType says so; "Success" only for result 200.
  virtual void saveOperationLog(const std::string& user, const std::string& clientIp,
                                const std::string& url, unsigned char method, int result);

  // Records that a client address was locked or unlocked; nothing when both are 0.
  virtual void savelockLog(const std::string& user, std::shared_ptr<CHttpExchange> exchange,
                           int locked, int unlocked);

  // The challenge with a fresh nonce, at most 255 characters.
  static std::string buildUnauthorHead(int stale);
  // The 401 document; lock information unless withoutLockInfo.
  static std::string getUnauthRsp(const char* url, int retryLoginTime, int unlockTime,
                                  int withoutLockInfo);
  // The address in X-Forwarded-For: up to its first comma, or its first 48 characters.
  static std::string getClientIP(const std::shared_ptr<CHttpExchange>& exchange);
  // Copies the (at most 32) characters after "iv=" and a NUL into out[33]; 0 when text has no
  // "iv=".
  static int getEncryptIV(const char* text, char* out);

  // The status document of an error code, with "requestURL" only for an unknown one.
  static std::string getResponseByError(int errorCode, const std::string& url);
  // Appends a code's status elements: 1, or 0 for an unknown code, -1 for a malformed entry.
  static int getResStatusByErrorNo(unsigned int& httpStatus, unsigned int errorCode, CXmlBase& xml);
  // The document's text, at most 20960 bytes of it.
  static std::string getXMLString(const CXmlBase& xml);
  // The error code for a result code of the gateway's buses or of a converter.
  static unsigned int getPtoErrorCode(int busCode);

  // 1 when the request is to be recorded, with `type` as the method's name and the URL, at most 256
  // characters; otherwise 0 with an empty type.
  static int getOperationType(std::string& type, const std::string& url, unsigned int method);

 protected:
  CProtocolBase() = default;
  ~CProtocolBase() = default;

  // Makes body the code's document and returns the code's HTTP status.
  static int answerError(std::string& body, unsigned int errorCode, const std::string& url);

 private:
  int procAuthenticated(int& bodyIsXml, std::string& body, int& asyncReply,
                        const stHttpRes& request, const std::string& devIndex,
                        const std::string& clientIp);
};

// The port in a Host header: the digits after its first colon, 0 without one.
int portOfHost(const std::string& host);

}  // namespace QNKAVROProtocol
