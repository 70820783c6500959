// What a sub-device's reply means for the client: status, body and kind of body. Used by the
// pipeline's callback.
#pragma once

#include <string>
#include <string_view>

#include "json/value.h"
#include "platform/http_service.h"

namespace QNKAVROProtocol {

// The request that a reply belongs to.
struct RepliedRequest {
  const std::string& url;
  int method;
  const QNHttpService::CHttpExchange& exchange;
};

struct DeviceAnswer {
  int status = 200;
  bool isXml = true;
  std::string body;
};

// Turns a good JSON reply into the client's body, which holds its text at first, with the handler
// that URL and method belong to: CDevCfgBase::covertRspBody's results. Defined by module/, which
// knows all handlers.
int translateReply(std::string& body, const qn::json::Value& reply, const RepliedRequest& request);

// A good JSON reply is translated; a JSON reply with another status, an XML reply and anything else
// go through as they are.
DeviceAnswer answerOfReply(std::string_view reply, const RepliedRequest& request);

}  // namespace QNKAVROProtocol
