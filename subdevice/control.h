// The control resource: tests and demos read and change devices with it. It is answered whatever
// faults are ordered, asks for no login and counts as no request.
//
// GET  /control            the device's counters and its newest requests
// POST /control            {"fault": order, "alarm": order, "alertStream": framing,
//                           "deviceInfo": {members}, "listening": bool, "expireNonces": true,
//                           "unlock": true, "clearLog": true}, every member optional; see faults.h
//                          and alarm_feed.h. "fault": null takes the fault back.
// "?device=N" names another device of the same process, also one that is switched off.
#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "subdevice/message.h"

namespace subdevice {

struct SimulatedDevice;

constexpr std::string_view kControlPath = "/control";

Reply control(const std::vector<std::unique_ptr<SimulatedDevice>>& devices, SimulatedDevice& own,
              const Request& request);

}  // namespace subdevice
