// The configuration in force together with the objects that platform/config_mgr.h and
// platform/device_mgr.h hand out, all built once when it is published.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "gateway/config/configuration.h"
#include "platform/config_mgr.h"
#include "platform/device_mgr.h"

namespace qn {

// A device of the configuration, which outlives it.
class NovDevice final : public CNovDevice {
 public:
  explicit NovDevice(const DeviceConfig& device) : device_(&device) {}
  std::string getDeviceIndex() const override { return device_->index; }

 private:
  const DeviceConfig* device_;
};

struct Published {
  std::shared_ptr<const Configuration> configuration;
  // Null before the first publish.
  std::shared_ptr<const CUserCfg> user;
  std::shared_ptr<const CNetworkCfg> network;
  std::shared_ptr<const CKAVROCfg> kavro;
  std::vector<NovDevice> devices;  // in the configuration's order
  std::vector<CKAVROPort> ports;
};

using PublishedPtr = std::shared_ptr<const Published>;

// What is in force. Until the next call the pointer is the calling thread's, with a count of its
// own: pointers that share it are made for each request, and threads need not pass one count
// around.
const PublishedPtr& published();

// Fill in what each file hands out.
void buildConfigObjects(Published& next);
void buildDeviceObjects(Published& next);

// Calls the attached routines for the devices that were removed, added and changed.
void announceDevices(const Configuration& before, const Configuration& after);

}  // namespace qn
