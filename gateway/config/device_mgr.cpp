// platform/device_mgr.h on the published configuration.
#include "platform/device_mgr.h"

#include <vector>

#include "gateway/config/published.h"
#include "gateway/sync/mutex.h"

namespace qn {
namespace {

// The mutex is held while the routines run, so that a detach waits for them.
class Listeners {
 public:
  void attach(DeviceChangeCallBack routine, const void* user) {
    const MutexLock lock(mutex_);
    for (Attached& listener : listeners_) {
      if (listener.routine != routine) continue;
      listener.user = user;
      return;
    }
    listeners_.push_back({routine, user});
  }

  void detach(DeviceChangeCallBack routine) {
    const MutexLock lock(mutex_);
    std::erase_if(listeners_, [&](const Attached& l) { return l.routine == routine; });
  }

  void announce(tagNotifyType type, const DeviceConfig& device) {
    const MutexLock lock(mutex_);
    std::string index = device.index;
    for (const Attached& listener : listeners_) {
      listener.routine(type, index.data(), listener.user);
    }
  }

 private:
  struct Attached {
    DeviceChangeCallBack routine;
    const void* user;
  };
  Mutex mutex_;
  std::vector<Attached> listeners_ QN_GUARDED_BY(mutex_);
};

Listeners& listeners() {
  static Listeners instance;
  return instance;
}

}  // namespace

void buildDeviceObjects(Published& next) {
  const std::vector<DeviceConfig>& devices = next.configuration->devices;
  next.devices = {devices.begin(), devices.end()};
  for (const DeviceConfig& device : devices) {
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

// NOLINTNEXTLINE(performance-unnecessary-value-param): declared so for its callers
std::shared_ptr<const CNovDevice> QN_DeviceMgr_GetDevice(std::string devIndex) {
  const qn::PublishedPtr& inForce = qn::published();
  const qn::Configuration& configuration = *inForce->configuration;
  const qn::DeviceConfig* const found = configuration.findDevice(devIndex);
  if (!found) return nullptr;
  return {inForce, &inForce->devices[std::size_t(found - configuration.devices.data())]};
}

void QN_DeviceMgr_GetAllKAVROPort(std::vector<CKAVROPort>& ports) {
  ports = qn::published()->ports;
}

void QN_DeviceMgr_NotifyAttach(DeviceChangeCallBack routine, const void* user) {
  if (routine) qn::listeners().attach(routine, user);
}

void QN_DeviceMgr_NotifyDetach(DeviceChangeCallBack routine) { qn::listeners().detach(routine); }
