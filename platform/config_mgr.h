// The configuration manager: immutable snapshots of the gateway's configuration. Any thread; none
// of the getters blocks. The reference implementation is gateway/config.
#pragma once

#include <memory>
#include <string>

class CUserCfg {
 public:
  virtual ~CUserCfg() = default;
  virtual bool isActivated() const = 0;  // the administrator account exists
  virtual const std::string& getRealm() const = 0;
};

// An IPv4 address of the gateway; starts with its text.
struct _NIC_INFO_V4 {
  char address[16];
};

enum DeviceProtocol : int { DEVICE_PROTOCOL_KAVRO = 2 };

class CNetworkCfg {
 public:
  virtual ~CNetworkCfg() = default;
  virtual int getHttpPort() const = 0;
  virtual int getHttpsPort() const = 0;
  virtual int getRtspPort() const = 0;
  virtual bool getHttpsEnable() const = 0;
  // True when the gateway is reached through mapped ports; the getExt* ports are those.
  virtual bool isPlatformPortMapping() const = 0;
  virtual int getExtHttpPort() const = 0;
  virtual int getExtHttpsPort() const = 0;
  virtual int getExtRtspPort() const = 0;

  virtual int getPssUploadPort() const = 0;  // the picture store's port
  // The address under which devices of this protocol reach the gateway; 0 on success.
  virtual int getIPv4ByProtocol(_NIC_INFO_V4& address, DeviceProtocol protocol) const = 0;
  // Stores a picture and yields the URL from which devices fetch it. May block on the disk.
  // False on failure with the storage error in errorOut (3610: the store is full).
  virtual bool uploadFacetoPss(int& errorOut, std::string& urlOut, const std::string& picture,
                               const std::string& clientUrl) const = 0;
};

enum KAVROMode : int {
  KAVRO_MODE_ONE_PORT = 1,     // one port; a user reaches the own device
  KAVRO_MODE_DEVICE_PORTS = 2  // besides it, a port for each device
};

class CKAVROCfg {
 public:
  virtual ~CKAVROCfg() = default;
  virtual int getKAVROMode() const = 0;
};

// Null only before the configuration has been read.
std::shared_ptr<const CUserCfg> QN_ConfigMgr_GetUserCfg();
std::shared_ptr<const CNetworkCfg> QN_ConfigMgr_GetNetworkCfg();
std::shared_ptr<const CKAVROCfg> QN_ConfigMgr_GetKAVROCfg();
