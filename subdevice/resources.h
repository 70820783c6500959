// Which handler answers which resource that is more than a stored document (routes.cpp), and the
// handlers, one file for each family of resources.
#pragma once

#include <array>
#include <string_view>

#include "subdevice/message.h"

namespace subdevice {

struct SimulatedDevice;

constexpr std::string_view kAlertStreamPath = "/KAVRO/Event/notification/alertStream";

// What a handler is given: the numbers stand where the pattern has "%d".
struct ResourceCall {
  SimulatedDevice& device;
  const Request& request;
  std::array<int, 2> ids{};
};

// The answer of the device's resources; every exception of a handler becomes a status document.
Reply answer(SimulatedDevice& device, const Request& request);

// The JSON object of a request body; null when the body is no JSON object.
Json::Value bodyObject(const Request& request);

// maintenance.cpp
Reply listIoPorts(ResourceCall& call);
Reply getStatusXml(ResourceCall& call);
Reply getSnapshot(ResourceCall& call);
Reply acceptAnything(ResourceCall& call);
Reply findAccessEvents(ResourceCall& call);
Reply triggerOutput(ResourceCall& call);
Reply getOutput(ResourceCall& call);

// ptz.cpp
Reply listPtzChannels(ResourceCall& call);
Reply movePtz(ResourceCall& call);
Reply getPtzStatus(ResourceCall& call);
Reply listPresets(ResourceCall& call);
Reply setPreset(ResourceCall& call);
Reply deletePreset(ResourceCall& call);
Reply gotoPreset(ResourceCall& call);
Reply gotoHome(ResourceCall& call);

// recordings.cpp
Reply searchRecordings(ResourceCall& call);

// face_library.cpp
Reply addFace(ResourceCall& call);
Reply setUpFace(ResourceCall& call);
Reply listFaces(ResourceCall& call);
Reply getFacePicture(ResourceCall& call);

}  // namespace subdevice
