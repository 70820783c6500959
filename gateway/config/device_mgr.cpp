// platform/device_mgr.h on the published configuration.
#include "platform/device_mgr.h"

#include <mutex>
#include <utility>

#include "gateway/config/published.h"

namespace qn {
namespace {

class NovDevice final : public CNovDevice {
 public:
  explicit NovDevice(std::string index) : index_(std::move(index)) {}
  std::string getDeviceIndex() const override { return index_; }

 private:
  const std::string index_;
};

// The mutex is held while the routines run, so that a detach waits for them.
class Listeners {
 public:
  void attach(DeviceChangeCallBack routine, const void* user) {
    const std::lock_guard lock(mutex_);
    for (Listener& listener : listeners_) {
      if (listener.routine != routine) continue;
      listener.user = user;
      return;
    }
    listeners_.push_back({routine, user});
  }

  void detach(DeviceChangeCallBack routine) {
    const std::lock_guard lock(mutex_);
    std::erase_if(listeners_, [&](const Listener& l) { return l.routine == routine; });
  }

  void announce(tagNotifyType type, const DeviceConfig& device) {
    const std::lock_guard lock(mutex_);
    std::string index = device.index;
    for (const Listener& listener : listeners_) {
      listener.routine(type, index.data(), listener.user);
    }
  }

 private:
  struct Listener {
    DeviceChangeCallBack routine;
    const void* user;
  };
  std::mutex mutex_;
  std::vector<Listener> listeners_;  // guarded by mutex_
};

Listeners& listeners() {
  static Listeners instance;
  return instance;
}

}  // namespace

void buildDeviceObjects(Published& next) {
  for (const DeviceConfig& device : next.configuration->devices) {
    next.devices.emplace(device.index, std::make_shared<NovDevice>(device.index));
    if (device.httpPort != 0) {
      next.ports.emplace_back(device.index, device.httpPort, device.rtspPort);
    }
  }
}

void announceDevices(const Configuration& before, const Configuration& after) {
  for (const DeviceConfig& device : before.devices) {
    if (!after.findDevice(device.index)) listeners().announce(DEVICE_REMOVED, device);
  }
  for (const DeviceConfig& device : after.devices) {
    const DeviceConfig* const former = before.findDevice(device.index);
    if (!former) listeners().announce(DEVICE_ADDED, device);
    if (former && !former->sameServer(device)) listeners().announce(DEVICE_CHANGED, device);
  }
}

}  // namespace qn

std::shared_ptr<const CNovDevice> QN_DeviceMgr_GetDevice(std::string devIndex) {
  const auto& devices = qn::published().devices;
  const auto found = devices.find(devIndex);
  return found == devices.end() ? nullptr : found->second;
}

void QN_DeviceMgr_GetAllKAVROPort(std::vector<CKAVROPort>& ports) { ports = qn::published().ports; }

void QN_DeviceMgr_NotifyAttach(DeviceChangeCallBack routine, const void* user) {
  if (routine) qn::listeners().attach(routine, user);
}

void QN_DeviceMgr_NotifyDetach(DeviceChangeCallBack routine) { qn::listeners().detach(routine); }
