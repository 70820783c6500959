// platform/config_mgr.h on the published configuration.
#include "platform/config_mgr.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "gateway/config/picture_uploader.h"
#include "gateway/config/published.h"
#include "gateway/sync/mutex.h"

namespace qn {
namespace {

struct Uploader {
  SharedMutex mutex;  // held shared during a call
  PictureUploader call QN_GUARDED_BY(mutex);
};

Uploader& uploader() {
  static Uploader instance;
  return instance;
}

void setAddress(_NIC_INFO_V4& to, const char* text) {
  std::strncpy(to.address, text, sizeof to.address - 1);
  to.address[sizeof to.address - 1] = '\0';
}

// An IPv4 address that others could use; 0.0.0.0 says nothing.
bool isConcreteIPv4(const std::string& text) {
  in_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1 && address.s_addr != htonl(INADDR_ANY);
}

bool isUsable(const ifaddrs& entry) {
  return entry.ifa_addr && entry.ifa_addr->sa_family == AF_INET && (entry.ifa_flags & IFF_UP) &&
         !(entry.ifa_flags & IFF_LOOPBACK);
}

// The loopback address when the host has no other.
void firstHostAddress(_NIC_INFO_V4& address) {
  setAddress(address, "127.0.0.1");
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return;
  const ifaddrs* entry = list;
  while (entry && !isUsable(*entry)) entry = entry->ifa_next;
  if (entry) {
    sockaddr_in found{};
    std::memcpy(&found, entry->ifa_addr, sizeof found);
    inet_ntop(AF_INET, &found.sin_addr, address.address, sizeof address.address);
  }
  freeifaddrs(list);
}

class UserCfg final : public CUserCfg {
 public:
  explicit UserCfg(const Configuration& from)
      : activated_(from.findUser(kAdministrator) != nullptr), realm_(from.kavro.realm) {}
  bool isActivated() const override { return activated_; }
  const std::string& getRealm() const override { return realm_; }

 private:
  const bool activated_;
  const std::string realm_;
};

class NetworkCfg final : public CNetworkCfg {
 public:
  explicit NetworkCfg(const Configuration& from)
      : address_(from.http.address), httpPort_(from.http.port), network_(from.network) {
    if (!from.https.isOn() || network_.portMapping) return;
    network_.httpsEnabled = true;
    network_.httpsPort = from.https.port;
  }
  int getHttpPort() const override { return httpPort_; }
  int getHttpsPort() const override { return network_.httpsPort; }
  int getRtspPort() const override { return network_.rtspPort; }
  bool getHttpsEnable() const override { return network_.httpsEnabled; }
  bool isPlatformPortMapping() const override { return network_.portMapping; }
  int getExtHttpPort() const override { return network_.extHttpPort; }
  int getExtHttpsPort() const override { return network_.extHttpsPort; }
  int getExtRtspPort() const override { return network_.extRtspPort; }
  int getPssUploadPort() const override { return network_.picturePort; }

  // Every protocol reaches the gateway under the same address.
  int getIPv4ByProtocol(_NIC_INFO_V4& address, DeviceProtocol) const override {
    if (isConcreteIPv4(address_)) {
      setAddress(address, address_.c_str());
    } else {
      firstHostAddress(address);
    }
    return 0;
  }

  bool uploadFacetoPss(int& errorOut, std::string& urlOut, const std::string& picture,
                       const std::string& clientUrl) const override {
    Uploader& installed = uploader();
    const SharedLock lock(installed.mutex);
    if (installed.call) return installed.call(errorOut, urlOut, picture, clientUrl);
    errorOut = 0;
    return false;
  }

 private:
  const std::string address_;
  const uint16_t httpPort_;
  NetworkOptions network_;  // constant after construction
};

class KavroCfg final : public CKAVROCfg {
 public:
  explicit KavroCfg(const Configuration& from) : mode_(from.kavro.mode) {}
  int getKAVROMode() const override { return mode_; }

 private:
  const int mode_;
};

}  // namespace

void setPictureUploader(PictureUploader next) {
  Uploader& installed = uploader();
  const ExclusiveLock lock(installed.mutex);
  installed.call = std::move(next);
}

void buildConfigObjects(Published& next) {
  next.user = std::make_shared<UserCfg>(*next.configuration);
  next.network = std::make_shared<NetworkCfg>(*next.configuration);
  next.kavro = std::make_shared<KavroCfg>(*next.configuration);
}

}  // namespace qn

std::shared_ptr<const CUserCfg> QN_ConfigMgr_GetUserCfg() {
  return {qn::published(), qn::published()->user.get()};
}
std::shared_ptr<const CNetworkCfg> QN_ConfigMgr_GetNetworkCfg() {
  return {qn::published(), qn::published()->network.get()};
}
std::shared_ptr<const CKAVROCfg> QN_ConfigMgr_GetKAVROCfg() {
  return {qn::published(), qn::published()->kavro.get()};
}
