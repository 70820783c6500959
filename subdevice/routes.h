// Which handler answers which resource.
#pragma once

#include <array>
#include <string_view>

#include "subdevice/message.h"

namespace subdevice {

struct Device;

constexpr std::string_view kAlertStreamPath = "/KAVRO/Event/notification/alertStream";

// What a handler is given: the numbers stand where the pattern has "%d".
struct Call {
  Device& device;
  const Request& request;
  std::array<int, 2> ids{};
};

// The answer of the device's resources; every exception of a handler becomes a status document.
Reply answer(Device& device, const Request& request);

}  // namespace subdevice
