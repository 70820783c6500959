// The dispatcher over all translating handlers. Called by the entry for requests; its order also
// serves the pipeline's callback for replies.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "devcfg/route_table.h"
#include "platform/http_service.h"

namespace QNKAVROProtocol {

// Those of all handlers, in the order in which they are asked; for the reference.
std::vector<Route> translatedRoutes();

class CDeviceCfgPto {
 public:
  // CProtocolBase::proc of the first handler that claims the request; kDeclined when none does.
  int proc(int& bodyIsXml, std::string& body, int& asyncReply,
           const QNHttpService::stHttpRes& request);

  // CDevCfgBase::covertRspBody of the first handler that accepts URL and method; kDeclined when
  // none does.
  int covertRspBody(std::string& body, const Json::Value& reply, const std::string& url, int method,
                    const QNHttpService::CHttpExchange& exchange);
};

}  // namespace QNKAVROProtocol
