// Asks a device for its name as the gateway would, one step after the other. Used by the commands.
#pragma once

#include <chrono>
#include <ostream>

#include "gateway/config/configuration.h"

namespace qn {

inline constexpr std::chrono::seconds kDeviceTestTime{15};  // for all steps

// Resolves, connects, makes TLS where that is configured, logs in and reads the device's name; says
// what came of each step, and how long it took, as it ends. False when one has failed. Blocks.
bool testDevice(const DeviceConfig& config, std::ostream& out);

}  // namespace qn
