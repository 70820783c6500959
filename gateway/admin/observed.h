// All that the admin listener shows and acts on. The host fills it in; everything outlives the
// listener.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "gateway/admin/health.h"
#include "gateway/admin/reloads.h"
#include "gateway/alarmbus/alarm_bus.h"
#include "gateway/archive/operation_archive.h"
#include "gateway/devicebus/device_bus.h"
#include "gateway/devices/device.h"
#include "gateway/engine/engine_state.h"
#include "gateway/http/http_service.h"
#include "gateway/login/login.h"
#include "gateway/metrics/counts.h"
#include "gateway/net/pulse.h"
#include "gateway/net/worker_pool.h"
#include "gateway/oplog/operation_log.h"
#include "gateway/pictures/picture_resource.h"

namespace qn {

struct ObservedPool {
  const char* name;
  const WorkerPool& pool;
};

struct Observed {
  const HttpService& http;
  const Pulse& pulse;
  DeviceDirectory& devices;
  const DeviceBus& bus;
  const AlarmBus& alarms;
  const PictureResource& pictures;
  const OperationLog& operations;
  const OperationArchive& archive;
  Login& login;
  std::vector<ObservedPool> pools;
  const Health& health;
  std::vector<const EngineState*> engines;  // that the configuration names
  std::optional<ClusterCounts> cluster;     // of one among others
  Reloads& reloads;
  std::string version;  // of the gateway
};

// The devices of the configuration in force as the buses know them; null for one that nobody has
// asked yet.
struct ObservedDevice {
  const DeviceConfig* config;
  std::shared_ptr<Device> device;
};
std::vector<ObservedDevice> observedDevices(DeviceDirectory& directory,
                                            const Configuration& configuration);

}  // namespace qn
