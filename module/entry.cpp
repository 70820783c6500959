// The entry functions that the gateway's HTTP service calls.
#include "devcfg/device_cfg_pto.h"
#include "include/QNKAVROProtocol.h"
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

int QN_Protocol_Init() { return 1; }

int QN_Protocol_Uninit() { return 1; }

int QN_Protocol_HTTPProcess(int& bodyIsXml, std::string& body, int& asyncReply,
                            const stHttpRes& request) {
  bodyIsXml = 1;
  const int status = CDeviceCfgPto().proc(bodyIsXml, body, asyncReply, request);
  return status == DECLINED ? answerNotFound(bodyIsXml, body) : status;
}
