// What a client without a login gets: challenge and 401 document; and whose request it is.
#include <algorithm>
#include <cstdio>

#include "platform/base_library.h"
#include "platform/config_mgr.h"
#include "platform/zrt.h"
#include "protocol/protocol_base.h"
#include "protocol/status_document.h"

namespace QNKAVROProtocol {
namespace {

constexpr std::size_t kClientAddressMax = 48;
constexpr int kDefaultUnlockSeconds = 1800;
constexpr int kInitialVectorLength = 32;

void addLockInfo(CXmlBase& xml, int retryLoginTime, int unlockTime) {
  const bool locked = retryLoginTime == 0;
  addTextElement(xml, "lockStatus", locked ? "locked" : "unlocked");
  if (locked) {
    const int seconds = unlockTime < 1 ? kDefaultUnlockSeconds : unlockTime;
    addTextElement(xml, "unlockTime", std::to_string(seconds));
  }
  addTextElement(xml, "retryLoginTime", std::to_string(retryLoginTime));
}

}  // namespace

std::string CProtocolBase::buildUnauthorHead(int stale) {
  char nonce[64] = {};
  CreateNonce(nonce, sizeof nonce, 8, 0);
  const auto users = QN_ConfigMgr_GetUserCfg();
  char head[256];
  std::snprintf(head, sizeof head, R"(Digest qop="auth", realm="%s", nonce="%s", stale="%s")",
                users ? users->getRealm().c_str() : "", nonce, stale != 0 ? "TRUE" : "FALSE");
  return head;
}

std::string CProtocolBase::getUnauthRsp(const char* url, int retryLoginTime, int unlockTime,
                                        int withoutLockInfo) {
  CXmlBase xml;
  beginResponseStatus(xml, url);
  addStatusText(xml, {"401", "Unauthorized", "badAuthorization"});
  if (withoutLockInfo == 0) addLockInfo(xml, retryLoginTime, unlockTime);
  return getXMLString(xml);
}

std::string CProtocolBase::getClientIP(const std::shared_ptr<CHttpExchange>& exchange) {
  std::string address = exchange->getHead("X-Forwarded-For");
  const std::size_t comma = address.find(',');
  address.resize(comma != std::string::npos ? comma : std::min(address.size(), kClientAddressMax));
  return address;
}

int CProtocolBase::getEncryptIV(const char* text, char* out) {
  const char* found = ZRT_Strstr(text, "iv=");
  if (found == nullptr) return 0;
  ZRT_Strncpy(out, found + 3, kInitialVectorLength);
  return 1;
}

}  // namespace QNKAVROProtocol
