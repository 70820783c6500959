#include "devcfg/device_cfg_pto.h"

#include "channel/channel_cfg.h"
#include "devcfg/dev_maintain.h"
#include "devcfg/handler_chain.h"
#include "devcfg/image_cfg.h"
#include "eventcfg/event_cfg.h"
#include "ptz/ptz_ctrl.h"
#include "record/record_operation.h"

namespace QNKAVROProtocol {
namespace {

// The order decides who serves a URL that two would accept.
using Handlers =
    HandlerChain<CChannelCfg, CDevMaintain, CEventCfg, CImageCfg, CPTZCtrl, CRecordOperation>;

}  // namespace

int CDeviceCfgPto::proc(int& bodyIsXml, std::string& body, int& asyncReply,
                        const stHttpRes& request) {
  return Handlers::ask(
      [&](auto& handler) { return handler.proc(bodyIsXml, body, asyncReply, request); });
}

int CDeviceCfgPto::covertRspBody(std::string& body, const Json::Value& reply,
                                 const std::string& url, int method,
                                 const CHttpExchange& exchange) {
  return Handlers::ask(
      [&](auto& handler) { return handler.covertRspBody(body, reply, url, method, exchange); });
}

}  // namespace QNKAVROProtocol
