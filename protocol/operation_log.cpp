// Operation and lock records for the gateway's log database. A record that the bus does not take is
// lost; the answer to the request never depends on it.
#include <string_view>

#include "platform/base_library.h"
#include "platform/gateway_cfg_bus.h"
#include "platform/zrt.h"
#include "protocol/protocol_base.h"

namespace QNKAVROProtocol {
namespace {

constexpr std::size_t kOperationMax = 256;
constexpr uint64_t kMicrosecondsPerSecond = 1000000;

bool isModifying(unsigned int method) {
  return method == QNHttpService::HTTP_PUT || method == QNHttpService::HTTP_POST ||
         method == QNHttpService::HTTP_DELETE;
}

void insertRecord(tagLogInfo info) {
  info.time = ZRT_TimeNow() / kMicrosecondsPerSecond;
  info.isoTime = getISO8601Time();
  QN_GatewayCfgBus_InsertLogInfo(info);
}

}  // namespace

int CProtocolBase::getOperationType(std::string& type, const std::string& url,
                                    unsigned int method) {
  type.clear();
  const bool recorded = cmpURL(url, "/KAVRO/Security/userCheck") || isModifying(method);
  if (!recorded || url.empty() || cmpURL(url, "/KAVRO/Security/sessionHeartbeat")) return 0;
  type.append(GetMethod(static_cast<unsigned char>(method))).append(" ").append(url);
  if (type.size() > kOperationMax) type.resize(kOperationMax);
  return 1;
}

void CProtocolBase::saveOperationLog(const std::string& user, const std::string& clientIp,
                                     const std::string& url, unsigned char method, int result) {
  std::string type;
  if (getOperationType(type, url, method) == 0) return;
  tagLogInfo info;
  info.user = user;
  info.clientIp = clientIp;
  info.operation = std::move(type);
  info.category = "Device";
  info.result = result == 200 ? "Success" : "Fail";
  insertRecord(std::move(info));
}

// The slot's signature. NOLINTNEXTLINE(performance-unnecessary-value-param)
void CProtocolBase::savelockLog(const std::string& user, std::shared_ptr<CHttpExchange> exchange,
                                int locked, int unlocked) {
  if (locked == 0 && unlocked == 0) return;
  tagLogInfo info;
  info.user = user;
  info.clientIp = getClientIP(exchange);
  info.operation = locked != 0 ? "Operation/clientIpLock" : "Operation/clientIpUnlock";
  info.category = "Service";
  info.result = "Success";
  insertRecord(std::move(info));
}

}  // namespace QNKAVROProtocol
