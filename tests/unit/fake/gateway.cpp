// platform/config_mgr.h, device_mgr.h, gateway_cfg_bus.h and kavro_mgr_bus.h.
#include <cstdio>
#include <cstring>

#include "tests/unit/fake/fake_platform.h"

namespace fake {
namespace {

std::map<DeviceChangeCallBack, const void*> routines;

struct UserCfg final : CUserCfg {
  Config values = config();
  bool isActivated() const override { return values.activated; }
  const std::string& getRealm() const override { return values.realm; }
};

struct NetworkCfg final : CNetworkCfg {
  Config values = config();
  int getHttpPort() const override { return values.httpPort; }
  int getHttpsPort() const override { return values.httpsPort; }
  int getRtspPort() const override { return values.rtspPort; }
  bool getHttpsEnable() const override { return values.httpsEnabled; }
  bool isPlatformPortMapping() const override { return values.portMapping; }
  int getExtHttpPort() const override { return values.extHttpPort; }
  int getExtHttpsPort() const override { return values.extHttpsPort; }
  int getExtRtspPort() const override { return values.extRtspPort; }
  int getPssUploadPort() const override { return values.picturePort; }
  int getIPv4ByProtocol(_NIC_INFO_V4& address, DeviceProtocol /*protocol*/) const override {
    std::snprintf(address.address, sizeof address.address, "%s", values.address.c_str());
    return values.addressResult;
  }
  bool uploadFacetoPss(int& errorOut, std::string& urlOut, const std::string& picture,
                       const std::string& /*clientUrl*/) const override {
    config().uploads.push_back(picture);
    const std::size_t number = config().uploads.size();
    if (number <= values.uploadFaults.size() && values.uploadFaults[number - 1]) {
      errorOut = *values.uploadFaults[number - 1];
      return false;
    }
    urlOut = "http://pictures/" + std::to_string(number);
    return true;
  }
};

struct KAVROCfg final : CKAVROCfg {
  int mode = config().mode;
  int getKAVROMode() const override { return mode; }
};

struct Device final : CNovDevice {
  explicit Device(std::string value) : index(std::move(value)) {}
  std::string getDeviceIndex() const override { return index; }
  std::string index;
};

template <typename Snapshot>
std::shared_ptr<const Snapshot> snapshot() {
  static const auto only = std::make_shared<const Snapshot>();
  if (isQuiet()) return only;
  return config().present ? std::make_shared<const Snapshot>() : nullptr;
}

}  // namespace

Config& config() {
  static Config values;
  return values;
}

Login& login() {
  static Login values = [] {
    Login initial;
    initial.setDevIndex("1");
    return initial;
  }();
  return values;
}

void Login::setChallenge(const char* text) {
  std::snprintf(result.wwwAuthenticate, sizeof result.wwwAuthenticate, "%s", text);
}

void Login::setDevIndex(const char* text) {
  std::snprintf(result.devIndex, sizeof result.devIndex, "%s", text);
}

std::vector<tagLogInfo>& operationLog() {
  static std::vector<tagLogInfo> records;
  return records;
}

void announceDevice(tagNotifyType type, std::string devIndex) {
  const auto attached = routines;
  for (const auto& [routine, user] : attached) routine(type, devIndex.data(), user);
}

int attachedRoutines() { return static_cast<int>(routines.size()); }

void resetGateway() {
  config() = {};
  login() = {};
  login().setDevIndex("1");
  operationLog().clear();
  routines.clear();
}

}  // namespace fake

std::shared_ptr<const CUserCfg> QN_ConfigMgr_GetUserCfg() {
  return fake::snapshot<fake::UserCfg>();
}
std::shared_ptr<const CNetworkCfg> QN_ConfigMgr_GetNetworkCfg() {
  return fake::snapshot<fake::NetworkCfg>();
}
std::shared_ptr<const CKAVROCfg> QN_ConfigMgr_GetKAVROCfg() {
  return fake::snapshot<fake::KAVROCfg>();
}

std::shared_ptr<const CNovDevice> QN_DeviceMgr_GetDevice(std::string devIndex) {
  if (!fake::config().devices.contains(devIndex)) return nullptr;
  return std::make_shared<const fake::Device>(std::move(devIndex));
}

void QN_DeviceMgr_GetAllKAVROPort(std::vector<CKAVROPort>& ports) { ports = fake::config().ports; }

void QN_DeviceMgr_NotifyAttach(DeviceChangeCallBack routine, const void* user) {
  fake::routines[routine] = user;
}
void QN_DeviceMgr_NotifyDetach(DeviceChangeCallBack routine) { fake::routines.erase(routine); }

int QN_GatewayCfgBus_InsertLogInfo(const tagLogInfo& info) {
  fake::operationLog().push_back(info);
  return 0;
}

int QN_KAVROMgrBus_CheckDigest(tagDIGEST_RESULT& result, const char* method,
                               const tagDIGEST_REQUEST& request, int mode) {
  fake::Login& login = fake::login();
  if (fake::isQuiet()) {  // the records are kilobytes
    std::memcpy(result.devIndex, login.result.devIndex, sizeof result.devIndex);
    return login.verdict;
  }
  ++login.checks;
  login.method = method;
  login.request = request;
  login.mode = mode;
  result = login.result;
  return login.verdict;
}

int CreateNonce(char* buffer, int size, int /*randomBytes*/, int /*reserved*/) {
  return std::snprintf(buffer, static_cast<std::size_t>(size), "fresh-nonce");
}
