// What a sub-device's reply means for the client: status, body and kind of body. Used by the
// pipeline's callback.
#pragma once

#include <string>
#include <string_view>

#include "platform/http_service.h"

namespace QNKAVROProtocol {

// The request that a reply belongs to.
struct RepliedRequest {
  const std::string& url;
  unsigned char method;
  const QNHttpService::CHttpExchange& exchange;
};

struct DeviceAnswer {
  int status = 200;
  bool isXml = true;
  std::string body;
};

// A good JSON reply is converted by the handler that the URL belongs to; a JSON reply with another
// status, an XML reply and anything else go through as they are.
DeviceAnswer answerOfReply(std::string_view reply, const RepliedRequest& request);

}  // namespace QNKAVROProtocol
