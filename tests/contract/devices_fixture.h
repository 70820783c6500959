// Scripted devices in the configuration in force, and what every bus to them stands on.
#pragma once

#include "gateway/config/configuration.h"
#include "gateway/devices/device.h"
#include "gateway/net/reactors.h"
#include "gateway/net/worker_pool.h"
#include "tests/contract/events.h"
#include "tests/contract/scripted_device.h"

namespace qn::devicebus::test {

class DevicesTest : public ::testing::Test {
 protected:
  explicit DevicesTest(std::size_t reactors, RefusalTimes refusals = {},
                       NameResolver::Lookup lookup = NameResolver::systemLookup)
      : reactors_(reactors), directory_(refusals, std::move(lookup)) {
    reactors_.start();
  }
  ~DevicesTest() override {
    workers_.stop();
    reactors_.stop();
    publishConfiguration(std::make_shared<const Configuration>());
  }

  void addDevice(const std::string& index, uint16_t port, const std::string& username = {}) {
    DeviceConfig device;
    device.index = index;
    device.host = "127.0.0.1";
    device.port = port;
    device.username = username;
    device.password = "secret";
    configuration_.devices.push_back(device);
    publish();
  }
  void publish() {
    configuration_.buildIndexes();
    publishConfiguration(std::make_shared<const Configuration>(configuration_));
  }

  Configuration configuration_;  // publish() puts it in force
  Reactors reactors_;
  WorkerPool workers_{2, 64};
  DeviceDirectory directory_;
};

}  // namespace qn::devicebus::test
