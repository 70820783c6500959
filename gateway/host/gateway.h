// The running gateway: every platform library and the module, started and stopped in order. Used by
// embedded_gateway.cpp, on one thread at a time.
#pragma once

#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <memory>
#include <string>

#include "gateway/admin/admin.h"
#include "gateway/admin/control.h"
#include "gateway/admin/health.h"
#include "gateway/admin/reloads.h"
#include "gateway/alarmbus/alarm_bus.h"
#include "gateway/archive/operation_archive.h"
#include "gateway/config/configuration.h"
#include "gateway/devicebus/device_bus.h"
#include "gateway/devices/device.h"
#include "gateway/host/data_folder.h"
#include "gateway/host/engines.h"
#include "gateway/host/expiry.h"
#include "gateway/http/http_service.h"
#include "gateway/net/pulse.h"
#include "gateway/net/reactors.h"
#include "gateway/net/worker_pool.h"
#include "gateway/pictures/picture_resource.h"
#include "include/embedded_gateway.h"

namespace qn {

class Gateway {
 public:
  // Starts everything; when it returns the ports are open. Throws std::exception with a text for
  // the operator; what was started is stopped again.
  Gateway(Configuration configuration, const GatewayParts& parts);
  // Stops within 10 s: no new connections, requests in flight are finished or answered that the
  // gateway is stopping, the operation log is flushed.
  ~Gateway();
  Gateway(const Gateway&) = delete;
  Gateway& operator=(const Gateway&) = delete;

  // Takes over everything but the keys that need a restart, which is logged. Throws, and changes
  // nothing, when it cannot listen where the configuration says.
  void reload(Configuration next);
  // Around each reload, taken or not; an empty refusal: it was taken. The admin listener moves to
  // where the configuration in force wants it only now, when whoever asked there has the answer.
  void beginReload() { reloads_.begin(); }
  void endReload(const std::string& refusal);
  const Configuration& inForce() const { return *configuration_; }
  // What it serves, for the operator.
  std::string description() const;
  uint16_t port() const { return http_.port(); }

  // How long the slowest reactor or timer has owed its next step.
  std::chrono::milliseconds silence() const;

 private:
  void start();
  void openControl();
  void stop();
  void takeWhatMayFail(const Configuration& next);
  void applyExtraPorts();
  Observed observed();
  void writeReminders();

  std::shared_ptr<const Configuration> configuration_;
  const GatewayParts::Module module_;
  DataFolder folder_;
  PictureResource pictures_;
  const std::unique_ptr<OperationArchive> archive_;
  const std::unique_ptr<Cluster> cluster_;
  WorkerPool files_;         // the HTTP service's requests that wait for the disk
  WorkerPool waiting_;       // those that wait for a device
  WorkerPool translations_;  // the bus's long replies, which never wait
  Reactors reactors_;
  DeviceDirectory devices_;
  DeviceBus bus_;
  DeviceFeeds feeds_;
  AlarmBus alarms_;
  HttpService http_;
  Pulse pulse_;
  boost::asio::steady_timer reminders_;
  Health health_;
  Reloads reloads_;
  ExpiryReminder expiry_;
  ControlSocket control_;
  AdminListener admin_;
};

}  // namespace qn
