// The configuration in force together with the objects that platform/config_mgr.h and
// platform/device_mgr.h hand out, all built once when it is published.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "gateway/config/configuration.h"
#include "platform/config_mgr.h"
#include "platform/device_mgr.h"

namespace qn {

struct Published {
  std::shared_ptr<const Configuration> configuration;
  // Null before the first publish.
  std::shared_ptr<const CUserCfg> user;
  std::shared_ptr<const CNetworkCfg> network;
  std::shared_ptr<const CKAVROCfg> kavro;
  std::unordered_map<std::string, std::shared_ptr<const CNovDevice>> devices;
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
