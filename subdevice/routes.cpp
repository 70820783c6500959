// See resources.h.
#include <exception>
#include <optional>
#include <utility>

#include "subdevice/device.h"
#include "subdevice/json_text.h"
#include "subdevice/pattern.h"
#include "subdevice/resources.h"

namespace subdevice {
namespace {

// What is more than a document.
struct ResourceRoute {
  std::string_view method;
  Pattern pattern;
  Reply (*handler)(ResourceCall&);
};

constexpr ResourceRoute kRoutes[] = {
    {"GET", "/KAVRO/System/IO", listIoPorts},
    {"GET", "/KAVRO/System/status", getStatusXml},
    {"GET", "/KAVRO/Streaming/channels/%d/picture", getSnapshot},
    {"GET", "/KAVRO/PTZCtrl/channels", listPtzChannels},
    {"PUT", "/KAVRO/PTZCtrl/channels/%d/continuous", movePtz},
    {"GET", "/KAVRO/PTZCtrl/channels/%d/status", getPtzStatus},
    {"GET", "/KAVRO/PTZCtrl/channels/%d/presets", listPresets},
    {"PUT", "/KAVRO/PTZCtrl/channels/%d/presets/%d", setPreset},
    {"DELETE", "/KAVRO/PTZCtrl/channels/%d/presets/%d", deletePreset},
    {"PUT", "/KAVRO/PTZCtrl/channels/%d/presets/%d/goto", gotoPreset},
    {"PUT", "/KAVRO/PTZCtrl/channels/%d/homeposition/goto", gotoHome},
    {"POST", "/KAVRO/ContentMgmt/search", searchRecordings},
    {"PUT", "/KAVRO/System/IO/outputs/%d/trigger", triggerOutput},
    {"GET", "/KAVRO/System/IO/outputs/%d/status", getOutput},
    {"POST", "/KAVRO/Intelligent/FDLib/FaceDataRecord", addFace},
    {"GET", "/KAVRO/Intelligent/FDLib/FaceDataRecord", listFaces},
    {"PUT", "/KAVRO/Intelligent/FDLib/FDSetUp", setUpFace},
    {"GET", "/KAVRO/Intelligent/FDLib/FaceDataRecord/%d/picture", getFacePicture},
    {"PUT", "/KAVRO/AccessControl/CardInfo/Delete", acceptAnything},
    {"POST", "/KAVRO/AccessControl/AcsEvent", findAccessEvents},
    {"GET", "/KAVRO/Security/userCheck", acceptAnything},
    {"PUT", "/KAVRO/Security/sessionHeartbeat", acceptAnything},
};

const ResourceRoute* findRoute(const Request& request, std::array<int, 2>& ids) {
  for (const auto& route : kRoutes) {
    std::string_view path = request.path;
    if (route.method == request.method && route.pattern.takeFrom(path, ids) && path.empty())
      return &route;
  }
  return nullptr;
}

}  // namespace

Json::Value bodyObject(const Request& request) {
  const auto value = parseJson(request.body);
  return value && value->isObject() ? *value : Json::Value();
}

Reply answer(SimulatedDevice& device, const Request& request) {
  try {
    if (auto stored = device.documents.answer(request)) return std::move(*stored);
    ResourceCall call{device, request, {}};
    const ResourceRoute* route = findRoute(request, call.ids);
    return route == nullptr ? unknownResource() : route->handler(call);
  } catch (const Json::Exception&) {  // a member of another kind than the handler reads
    return statusReply(Status::BadContent, "wrongKind");
  } catch (const std::exception& error) {
    return statusReply(Status::DeviceError, error.what());
  }
}

}  // namespace subdevice
