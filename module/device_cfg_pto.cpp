#include "module/device_cfg_pto.h"

#include "channel/channel_cfg.h"
#include "devcfg/dev_maintain.h"
#include "devcfg/device_answer.h"
#include "devcfg/image_cfg.h"
#include "eventcfg/event_cfg.h"
#include "module/handler_chain.h"
#include "ptz/ptz_ctrl.h"
#include "record/record_operation.h"

namespace QNKAVROProtocol {
namespace {

// The order decides who serves a URL that two would accept.
using Handlers =
    HandlerChain<CChannelCfg, CDevMaintain, CEventCfg, CImageCfg, CPTZCtrl, CRecordOperation>;

}  // namespace

std::vector<Route> translatedRoutes() {
  std::vector<Route> all;
  Handlers::ask([&](auto& handler) {
    all.insert(all.end(), handler.routes().begin(), handler.routes().end());
    return kDeclined;
  });
  return all;
}

int CDeviceCfgPto::proc(int& bodyIsXml, std::string& body, int& asyncReply,
                        const stHttpRes& request) {
  return Handlers::ask(
      [&](auto& handler) { return handler.proc(bodyIsXml, body, asyncReply, request); });
}

int translateReply(std::string& body, const qn::json::Value& reply, const RepliedRequest& request) {
  return Handlers::ask([&](auto& handler) {
    return handler.convertReply(body, {reply, request.url, request.method, request.exchange});
  });
}

int CDeviceCfgPto::covertRspBody(std::string& body, const Json::Value& reply,
                                 const std::string& url, int method,
                                 const CHttpExchange& exchange) {
  return translateReply(body, reply, {url, method, exchange});
}

}  // namespace QNKAVROProtocol
