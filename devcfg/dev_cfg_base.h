// The pipeline of every handler that translates a request for a sub-device: convert, hand to the
// device bus, and on the bus's thread convert the reply and answer. Base class of those handlers.
#pragma once

#include <json/json.h>

#include <string>

#include "platform/device_cfg_bus.h"
#include "protocol/protocol_base.h"

namespace QNKAVROProtocol {

// The handler object is gone when the reply comes; the record handed to the bus is all that a
// request in flight has.
class CDevCfgBase : public CProtocolBase {
 public:
  // Declines everything.
  int checkUrlAndMethod(const std::string& url, unsigned int method) override;
  // Sends the converted request to the device; asyncReply becomes 1 when the bus took it.
  int procProtocol(int& bodyIsXml, std::string& body, int& asyncReply, const stHttpRes& request,
                   const std::string& devIndex) override;

  // Turns the device's reply into the client's body, which holds the reply's text at first.
  // Returns 0, kDeclined when URL or method are not the handler's, or an argument of
  // getPtoErrorCode with the body unspecified.
  virtual int covertRspBody(std::string& body, const Json::Value& reply, const std::string& url,
                            int method, const CHttpExchange& exchange) = 0;

  // Builds the device's URL and JSON body, both empty at first. 0, or non-zero when the request
  // cannot be converted.
  virtual int covertUrlandBody(std::string& jsonUrl, std::string& jsonBody,
                               const stHttpRes& request, const std::string& devIndex) = 0;

  // May attach data to the record and change the time-out, 10000 ms at first. 0 refuses the
  // request.
  virtual int createUserData(tagDEVCFG_USERDATA& userData, std::string& jsonBody, int& timeoutMs,
                             const CHttpExchange& exchange);

  // The bus's callback (see DeviceCfgCallBack): answers the exchange in the record and frees the
  // record, returning 0. Returns -1, sends nothing and frees nothing without a record, an owner, or
  // a reply. Never throws.
  static int deviceCfgCallBack(void* data, int length, void* userData);

 protected:
  CDevCfgBase() = default;
  ~CDevCfgBase() = default;
};

}  // namespace QNKAVROProtocol
