// The entry functions that the gateway's HTTP service calls.
#include "alert/event_pto.h"
#include "include/QNKAVROProtocol.h"
#include "module/device_cfg_pto.h"
#include "passthrough/device_kavro_pto.h"
#include "protocol/error_code.h"
#include "protocol/protocol_base.h"
#include "protocol/status_document.h"

using namespace QNKAVROProtocol;

namespace {

// The status is 404 whatever the platform's table says.
int answerNotFound(int& bodyIsXml, std::string& body) {
  int ignoredStatus = 403;
  body = jsonStatusDocument(ERROR_RESOURCE_NOT_FOUND, ignoredStatus);
  bodyIsXml = 0;
  return 404;
}

}  // namespace

int QN_Protocol_Init() {
  CSingleton<CEventPto>::Instance()->start();
  return 1;
}

int QN_Protocol_Uninit() { return CSingleton<CEventPto>::Instance()->stop(); }

int QN_Protocol_HTTPProcess(int& bodyIsXml, std::string& body, int& asyncReply,
                            const stHttpRes& request) {
  bodyIsXml = 1;
  int status = CDeviceCfgPto().proc(bodyIsXml, body, asyncReply, request);
  if (status == kDeclined) {
    status = CSingleton<CEventPto>::Instance()->proc(bodyIsXml, body, asyncReply, request);
  }
  if (status == kDeclined) status = CDeviceKAVROPto().proc(bodyIsXml, body, asyncReply, request);
  return status == kDeclined ? answerNotFound(bodyIsXml, body) : status;
}
