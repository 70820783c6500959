// See control.h.
#include "subdevice/control.h"

#include <charconv>

#include "subdevice/device.h"
#include "subdevice/json_text.h"
#include "subdevice/resources.h"

namespace subdevice {
namespace {

SimulatedDevice* namedDevice(const std::vector<std::unique_ptr<SimulatedDevice>>& devices,
                             SimulatedDevice& own, const Request& request) {
  const std::string_view name = request.parameter("device");
  if (name.empty()) return &own;
  std::size_t number = 0;
  std::from_chars(name.data(), name.data() + name.size(), number);
  return number >= 1 && number <= devices.size() ? devices[number - 1].get() : nullptr;
}

Json::Value state(const SimulatedDevice& device) {
  Json::Value state;
  state["device"] = device.options.number;
  state["port"] = device.port;
  state["listening"] = device.listening;
  state["requests"] = static_cast<Json::UInt64>(device.requests);
  state["connections"] = static_cast<Json::UInt64>(device.connections());
  state["logins"] = static_cast<Json::UInt64>(device.login.logins());
  state["wrongLogins"] = static_cast<Json::UInt64>(device.login.wrongLogins());
  state["challenges"] = static_cast<Json::UInt64>(device.login.challenges());
  state["locked"] = device.login.locked();
  state["alertStreams"] = static_cast<Json::UInt64>(device.alarms.streams());
  state["alarmsRaised"] = static_cast<Json::UInt64>(device.alarms.counters().raised);
  state["alarmsSent"] = static_cast<Json::UInt64>(device.alarms.counters().sent);
  state["alarmsDropped"] = static_cast<Json::UInt64>(device.alarms.counters().dropped);
  state["log"] = device.log.document();
  return state;
}

bool changeFault(SimulatedDevice& device, const Json::Value& order) {
  if (!order.isNull()) return device.faults.order(order);
  device.faults.clear();
  return true;
}

// False when an order made no sense; those before it are done.
bool change(SimulatedDevice& device, const Json::Value& orders) {
  if (orders.isMember("fault") && !changeFault(device, orders["fault"])) return false;
  if (orders.isMember("alertStream")) device.alarms.setFraming(orders["alertStream"]);
  if (orders.isMember("alarm") && !device.alarms.order(orders["alarm"])) return false;
  if (orders.isMember("deviceInfo"))
    device.documents.merge(kDeviceInfoPath, "DeviceInfo", orders["deviceInfo"]);
  if (orders["expireNonces"].asBool()) device.login.expireNonces();
  if (orders["unlock"].asBool()) device.login.unlock();
  if (orders["clearLog"].asBool()) device.log.clear();
  device.listening = orders.get("listening", device.listening).asBool();
  device.onSwitch();
  return true;
}

}  // namespace

Reply control(const std::vector<std::unique_ptr<SimulatedDevice>>& devices, SimulatedDevice& own,
              const Request& request) {
  SimulatedDevice* device = namedDevice(devices, own, request);
  if (device == nullptr) return unknownResource();
  if (request.method == "GET") return documentReply(state(*device));
  const Json::Value orders = bodyObject(request);
  if (orders.isNull()) return statusReply(Status::BadFormat, "notAnObject");
  try {
    return change(*device, orders) ? okReply() : statusReply(Status::BadContent, "badOrder");
  } catch (const std::exception& error) {  // a member of another kind, or a port that is taken
    return statusReply(Status::BadContent, error.what());
  }
}

}  // namespace subdevice
