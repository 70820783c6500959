#include "bench/module/null_platform.h"

#include <cstring>
#include <string>
#include <utility>

#include "platform/alarm_bus.h"
#include "platform/config_mgr.h"
#include "platform/device_mgr.h"
#include "platform/gateway_cfg_bus.h"
#include "platform/kavro_mgr_bus.h"
#include "platform/wlog.h"
#include "platform/zrt.h"

namespace QNHttpService {

class ExchangeState {
 public:
  std::string url;
  int answeredBytes = 0;
};

}  // namespace QNHttpService

namespace {

using QNHttpService::CHttpExchange;
using QNHttpService::ExchangeState;

const std::shared_ptr<ExchangeState>& onlyState() {
  static const auto state = std::make_shared<ExchangeState>();
  return state;
}

null_platform::Pending pending{};

struct UserCfg final : CUserCfg {
  std::string realm = "KAVRO";
  bool isActivated() const override { return true; }
  const std::string& getRealm() const override { return realm; }
};

struct NetworkCfg final : CNetworkCfg {
  int getHttpPort() const override { return 8080; }
  int getHttpsPort() const override { return 443; }
  int getRtspPort() const override { return 554; }
  bool getHttpsEnable() const override { return false; }
  bool isPlatformPortMapping() const override { return false; }
  int getExtHttpPort() const override { return 0; }
  int getExtHttpsPort() const override { return 0; }
  int getExtRtspPort() const override { return 0; }
  int getPssUploadPort() const override { return 0; }
  int getIPv4ByProtocol(_NIC_INFO_V4& /*address*/, DeviceProtocol /*protocol*/) const override {
    return -1;
  }
  bool uploadFacetoPss(int& /*errorOut*/, std::string& /*urlOut*/, const std::string& /*picture*/,
                       const std::string& /*clientUrl*/) const override {
    return false;
  }
};

struct KAVROCfg final : CKAVROCfg {
  int getKAVROMode() const override { return KAVRO_MODE_ONE_PORT; }
};

struct Device final : CNovDevice {
  std::string getDeviceIndex() const override { return "1"; }
};

template <typename Object, typename Interface>
std::shared_ptr<const Interface> only() {
  static const std::shared_ptr<const Interface> object = std::make_shared<const Object>();
  return object;
}

}  // namespace

namespace null_platform {

QNHttpService::stHttpRes open(const char* url) {
  onlyState()->url = url;
  QNHttpService::stHttpRes request;
  request.exchange = std::make_shared<CHttpExchange>(onlyState());
  return request;
}

Pending takePending() { return std::exchange(pending, {}); }

int answeredBytes() { return onlyState()->answeredBytes; }

}  // namespace null_platform

namespace QNHttpService {

CHttpExchange::CHttpExchange(int /*handle*/) : state_(onlyState()) {}
CHttpExchange::CHttpExchange(std::shared_ptr<ExchangeState> state) : state_(std::move(state)) {}
unsigned int CHttpExchange::getMethod() const { return HTTP_GET; }
const std::string& CHttpExchange::getUrl() const { return state_->url; }
std::string CHttpExchange::getHead(const char* name) const {
  if (std::strcmp(name, "Host") == 0) return "gateway:8080";
  if (std::strcmp(name, "X-Forwarded-For") == 0) return "192.0.2.7";
  if (std::strcmp(name, "Authorization") != 0) return {};
  // As long as a browser's.
  return "Digest username=\"admin\", realm=\"KAVRO\", nonce=\"0123456789abcdef0123456789abcdef\", "
         "uri=\"/KAVRO/System/deviceInfo\", response=\"0123456789abcdef0123456789abcdef\", "
         "qop=auth, nc=00000001, cnonce=\"0123456789abcdef\"";
}
void CHttpExchange::setHead(const char* /*name*/, const char* /*value*/) {}
void CHttpExchange::setMIME() {}
void CHttpExchange::setStatus(int /*status*/) {}
int CHttpExchange::response(const void* /*data*/, int length) {
  return state_->answeredBytes = length;
}
int CHttpExchange::getHttpHandle() const { return 1; }

}  // namespace QNHttpService

std::shared_ptr<const CUserCfg> QN_ConfigMgr_GetUserCfg() { return only<UserCfg, CUserCfg>(); }
std::shared_ptr<const CNetworkCfg> QN_ConfigMgr_GetNetworkCfg() {
  return only<NetworkCfg, CNetworkCfg>();
}
std::shared_ptr<const CKAVROCfg> QN_ConfigMgr_GetKAVROCfg() { return only<KAVROCfg, CKAVROCfg>(); }

std::shared_ptr<const CNovDevice> QN_DeviceMgr_GetDevice(std::string /*devIndex*/) {
  return only<Device, CNovDevice>();
}
void QN_DeviceMgr_GetAllKAVROPort(std::vector<CKAVROPort>& ports) { ports.clear(); }

void QN_DeviceMgr_NotifyAttach(DeviceChangeCallBack /*routine*/, const void* /*user*/) {}
void QN_DeviceMgr_NotifyDetach(DeviceChangeCallBack /*routine*/) {}

int QN_AlarmBus_Subscribe(std::string& /*reply*/, const std::string& /*request*/,
                          AlarmDataCallBack /*callback*/, void* /*user*/, int /*option*/,
                          int& /*subscribeId*/) {
  return -1;
}
int QN_AlarmBus_UnSubscribe(std::string& /*reply*/, int /*subscribeId*/, int /*option*/) {
  return -1;
}
int QN_AlarmBus_StartUploadData(int /*subscribeId*/) { return -1; }
int QN_AlarmBus_AddDevice(std::string& /*reply*/, int /*subscribeId*/,
                          const std::string& /*devIndex*/, const std::string& /*request*/) {
  return -1;
}
int QN_AlarmBus_DeleteDevice(std::string& /*reply*/, int /*subscribeId*/,
                             const std::string& /*devIndex*/) {
  return -1;
}
int QN_AlarmBus_CheckIDValid(int /*subscribeId*/) { return 0; }

int QN_GatewayCfgBus_InsertLogInfo(const tagLogInfo& /*info*/) { return 0; }

int QN_KAVROMgrBus_CheckDigest(tagDIGEST_RESULT& result, const char* /*method*/,
                               const tagDIGEST_REQUEST& /*request*/, int /*mode*/) {
  result.devIndex[0] = '1';
  return DIGEST_OK;
}
int CreateNonce(char* /*buffer*/, int /*size*/, int /*randomBytes*/, int /*reserved*/) { return 0; }

int QN_DeviceCfgBus_ProcessAsyn(unsigned char /*method*/, std::string /*jsonUrl*/,
                                const std::string& /*jsonBody*/, DeviceCfgCallBack callback,
                                void* userData, int /*timeoutMs*/) {
  pending = {callback, userData};
  return DEVCFGBUS_OK;
}
int QN_DeviceCfgBus_ProcessSyn(unsigned char /*method*/, std::string /*jsonUrl*/,
                               const std::string& /*jsonBody*/, std::string& /*reply*/,
                               int /*timeoutMs*/) {
  return DEVCFGBUS_STOPPING;
}

void wlog_format(int /*level*/, const char* /*tag*/, const char* /*format*/, ...) {}

int ZRT_SetTimer(ZRT_TimerRoutine /*routine*/, void* /*user*/, int /*periodMs*/, int& /*timerId*/,
                 int /*option*/) {
  return -1;
}
int ZRT_KillTimer(int /*timerId*/) { return -1; }
int64_t ZRT_ThreadPoolFlex_Create(int /*maxThreads*/, int /*idleMs*/, ZRT_PoolRoutine /*routine*/,
                                  int /*stackBytes*/) {
  return -1;
}
int ZRT_ThreadPoolFlex_Work(int64_t /*pool*/, void* /*job*/) { return -1; }
int ZRT_ThreadPoolFlex_Destroy(int64_t /*pool*/) { return -1; }
