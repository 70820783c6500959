// The device manager: which sub-devices the gateway has. The reference implementation is
// gateway/config.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

// A configured sub-device; immutable.
class CNovDevice {
 public:
  virtual ~CNovDevice() = default;
  virtual std::string getDeviceIndex() const = 0;
};

// The KAVRO port that a sub-device has of its own.
class CKAVROPort {
 public:
  CKAVROPort(std::string deviceIndex, int httpPort, int rtspPort)
      : deviceIndex_(std::move(deviceIndex)), httpPort_(httpPort), rtspPort_(rtspPort) {}
  const std::string& getDeviceIndex() const { return deviceIndex_; }
  int getHttpPort() const { return httpPort_; }
  int getRtspPort() const { return rtspPort_; }

 private:
  std::string deviceIndex_;
  int httpPort_;
  int rtspPort_;
};

// The device, or null when there is none with this index. Any thread; does not block.
std::shared_ptr<const CNovDevice> QN_DeviceMgr_GetDevice(std::string devIndex);

// Replaces `ports` with the ports of all devices that have one, in configuration order.
void QN_DeviceMgr_GetAllKAVROPort(std::vector<CKAVROPort>& ports);

enum tagNotifyType : int {
  DEVICE_ADDED = 0,
  DEVICE_REMOVED = 1,
  DEVICE_CHANGED = 2,  // the same index with another address or login
};

// devIndex: NUL-terminated, valid during the call. Runs on the device manager's thread, after the
// change is in force; must not throw, attach or detach.
using DeviceChangeCallBack = void (*)(tagNotifyType type, void* devIndex, const void* user);

// One routine at most is attached once; attaching it again replaces its user pointer. Detach waits
// for a running call. Detaching an unknown one is harmless.
void QN_DeviceMgr_NotifyAttach(DeviceChangeCallBack routine, const void* user);
void QN_DeviceMgr_NotifyDetach(DeviceChangeCallBack routine);
