// See routes.h.
#include <charconv>
#include <exception>
#include <optional>

#include "subdevice/json_text.h"
#include "subdevice/resources.h"

namespace subdevice {
namespace {

struct ResourceRoute {
  std::string_view method;
  std::string_view pattern;
  Reply (*handler)(ResourceCall&);
};

constexpr ResourceRoute kRoutes[] = {
    {"GET", "/KAVRO/System/deviceInfo", getDocument},
    {"PUT", "/KAVRO/System/deviceInfo", putDocument},
    {"GET", "/KAVRO/System/Video/inputs/channels", getDocument},
    {"GET", "/KAVRO/System/Audio/channels", getDocument},
    {"GET", "/KAVRO/Smart/capabilities", getDocument},
    {"GET", "/KAVRO/System/IO", getDocument},
    {"GET", "/KAVRO/System/time", getDocument},
    {"PUT", "/KAVRO/System/time", putDocument},
    {"GET", "/KAVRO/System/status", getStatusXml},
    {"GET", "/KAVRO/Streaming/channels", listStreams},
    {"GET", "/KAVRO/Streaming/channels/%d", getStream},
    {"PUT", "/KAVRO/Streaming/channels/%d", putStream},
    {"GET", "/KAVRO/Streaming/channels/%d/capabilities", getStreamCapabilities},
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

// Fills the ids when the path fits the pattern, which has at most as many placeholders.
bool fits(std::string_view pattern, std::string_view path, std::array<int, 2>& ids) {
  std::size_t next = 0;
  for (;;) {
    const auto mark = pattern.find("%d");
    if (mark == std::string_view::npos) return pattern == path;
    if (path.substr(0, mark) != pattern.substr(0, mark)) return false;
    path.remove_prefix(mark);
    pattern.remove_prefix(mark + 2);
    const bool digit = !path.empty() && path[0] >= '0' && path[0] <= '9';
    const auto read = std::from_chars(path.data(), path.data() + path.size(), ids[next]);
    if (!digit || read.ec != std::errc()) return false;
    ++next;
    path.remove_prefix(static_cast<std::size_t>(read.ptr - path.data()));
  }
}

const ResourceRoute* findRoute(const Request& request, std::array<int, 2>& ids) {
  for (const auto& route : kRoutes)
    if (route.method == request.method && fits(route.pattern, request.path, ids)) return &route;
  return nullptr;
}

}  // namespace

Json::Value bodyObject(const Request& request) {
  const auto value = parseJson(request.body);
  return value && value->isObject() ? *value : Json::Value();
}

Reply answer(SimulatedDevice& device, const Request& request) {
  ResourceCall call{device, request, {}};
  const ResourceRoute* route = findRoute(request, call.ids);
  if (route == nullptr) return unknownResource();
  try {
    return route->handler(call);
  } catch (const Json::Exception&) {  // a member of another kind than the handler reads
    return statusReply(Status::BadContent, "wrongKind");
  } catch (const std::exception& error) {
    return statusReply(Status::DeviceError, error.what());
  }
}

}  // namespace subdevice
