// See control.h.
#include "subdevice/control.h"

#include <charconv>
#include <chrono>
#include <stdexcept>

#include "subdevice/device.h"
#include "subdevice/json_text.h"
#include "subdevice/orders.h"
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

void changeFault(SimulatedDevice& device, const Json::Value& order) {
  order.isNull() ? device.faults.clear() : device.faults.order(order);
}

void changeLink(SimulatedDevice& device, const Json::Value& order) {
  device.link.bytesPerSecond = order.get("bytesPerSecond", 0).asUInt();
  device.link.delay = std::chrono::milliseconds(order.get("delayMs", 0).asInt());
  device.alarms.setLink(device.link.bytesPerSecond);
}

void change(SimulatedDevice& device, const Json::Value& orders) {
  if (orders.isMember("fault")) changeFault(device, orders["fault"]);
  if (orders.isMember("link")) changeLink(device, orders["link"]);
  if (orders.isMember("alertStream")) device.alarms.setFraming(orders["alertStream"]);
  if (orders.isMember("alarm") && !device.alarms.order(orders["alarm"]))
    throw std::runtime_error("too many orders of alarms are under way");
  if (orders.isMember("deviceInfo"))
    device.documents.merge(kDeviceInfoPath, "DeviceInfo", orders["deviceInfo"]);
  if (orders["expireNonces"].asBool()) device.login.expireNonces();
  if (orders["unlock"].asBool()) device.login.unlock();
  if (orders["clearLog"].asBool()) device.log.clear();
  if (orders.isMember("listening")) device.switchTo(orders["listening"].asBool());
  if (orders.isMember("reboot"))
    device.reboot(std::chrono::milliseconds(
        int64_t(1000 * orders["reboot"].get("seconds", kRebootSeconds).asDouble())));
}

Reply refusal(const std::string& wrong) {
  Json::Value document = parseJson(statusReply(Status::BadContent, "badOrder").body).value();
  document["description"] = wrong;
  Reply reply = documentReply(document);
  reply.status = 400;
  return reply;
}

}  // namespace

Reply control(const std::vector<std::unique_ptr<SimulatedDevice>>& devices, SimulatedDevice& own,
              const Request& request) {
  SimulatedDevice* device = namedDevice(devices, own, request);
  if (device == nullptr) return unknownResource();
  if (request.method == "GET") return documentReply(state(*device));
  const std::string wrong = obey(*device, bodyObject(request));
  return wrong.empty() ? okReply() : refusal(wrong);
}

std::string obey(SimulatedDevice& device, const Json::Value& orders) {
  std::string wrong = wrongWithOrders(orders);
  if (!wrong.empty()) return wrong;
  try {
    change(device, orders);
  } catch (const std::exception& error) {  // one order too many, or a port that is taken
    wrong = error.what();
  }
  return wrong;
}

}  // namespace subdevice
