// The control resource: tests and demos read and change devices with it. It is answered whatever
// faults are ordered, asks for no login and counts as no request.
//
// GET  /control  the device's counters and its newest requests
// POST /control  {order: value, ...}; orders.h says which there are
// "?device=N" names another device of the same process, also one that is switched off.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "subdevice/message.h"

namespace subdevice {

struct SimulatedDevice;

constexpr std::string_view kControlPath = "/control";
constexpr double kRebootSeconds = 30;  // unless the order says otherwise

Reply control(const std::vector<std::unique_ptr<SimulatedDevice>>& devices, SimulatedDevice& own,
              const Request& request);

// Does what the orders say. When they are wrong nothing is done; what is wrong is the result, in
// words.
std::string obey(SimulatedDevice& device, const Json::Value& orders);

}  // namespace subdevice
