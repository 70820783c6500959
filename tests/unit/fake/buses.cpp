// platform/device_cfg_bus.h and platform/alarm_bus.h.
#include "tests/unit/fake/fake_platform.h"

namespace fake {
namespace {

constexpr std::string_view kStopped =
    R"({"errorCode":1610612737,"statusCode":6,"statusString":"stopped","subStatusCode":"stopped"})";

// The text on the heap without a NUL, so that reading past its end is found.
std::vector<char> exactCopy(std::string_view text) {
  const AllocationShelter shelter;
  std::vector<char> copy(text.begin(), text.end());
  copy.reserve(1);  // never null, even when empty
  return copy;
}

int call(const BusRequest& request, std::string_view text) {
  std::vector<char> copy = exactCopy(text);
  return request.callback(copy.data(), static_cast<int>(copy.size()), request.userData);
}

BusRequest takeOldest() {
  const AllocationShelter shelter;
  auto& pending = deviceBus().pending;
  BusRequest oldest = std::move(pending.front());
  pending.erase(pending.begin());
  return oldest;
}

}  // namespace

DeviceBus& deviceBus() {
  static DeviceBus bus;
  return bus;
}

int DeviceBus::reply(std::string_view text) {
  if (pending.empty()) return -1;
  return call(takeOldest(), text);
}

void resetBuses() {
  while (!deviceBus().pending.empty()) deviceBus().reply(kStopped);
  deviceBus() = {};
  alarmBus() = {};
}

AlarmBus& alarmBus() {
  static AlarmBus bus;
  return bus;
}

int AlarmBus::raise(std::string_view json) {
  int result = -1;
  const auto current = subscriptions;
  for (const auto& [id, subscription] : current) {
    if (!subscription.started) continue;
    std::vector<char> copy(json.begin(), json.end());  // no NUL: reading past the end is found
    result = subscription.callback(copy.data(), static_cast<int>(copy.size()), subscription.user);
  }
  return result;
}

}  // namespace fake

int QN_DeviceCfgBus_ProcessAsyn(unsigned char method, std::string jsonUrl,
                                const std::string& jsonBody, DeviceCfgCallBack callback,
                                void* userData, int timeoutMs) {
  fake::DeviceBus& bus = fake::deviceBus();
  if (bus.refusal != DEVCFGBUS_OK) return bus.refusal;
  const fake::AllocationShelter shelter;
  const fake::BusRequest request{method,    std::move(jsonUrl), jsonBody,
                                 timeoutMs, callback,           userData};
  if (fake::isQuiet()) {
    bus.pending.assign(1, request);
    return DEVCFGBUS_OK;
  }
  bus.seen.push_back(request);
  if (bus.replyInside) {
    fake::call(request, *bus.replyInside);
  } else {
    bus.pending.push_back(request);
  }
  return DEVCFGBUS_OK;
}

int QN_DeviceCfgBus_ProcessSyn(unsigned char method, std::string jsonUrl,
                               const std::string& jsonBody, std::string& reply, int timeoutMs) {
  fake::DeviceBus& bus = fake::deviceBus();
  if (bus.refusal != DEVCFGBUS_OK) return bus.refusal;
  bus.seen.push_back({method, jsonUrl, jsonBody, timeoutMs, nullptr, nullptr});
  const auto found = bus.syncReplies.find(jsonUrl);
  if (found == bus.syncReplies.end()) return -1;
  reply = found->second;
  return DEVCFGBUS_OK;
}

namespace {

fake::AlarmBus::Subscription* find(int id) {
  auto& table = fake::alarmBus().subscriptions;
  const auto found = table.find(id);
  return found == table.end() ? nullptr : &found->second;
}

void note(std::string call, int number, const std::string& more = {}) {
  const fake::AllocationShelter shelter;
  call += " " + std::to_string(number);
  if (!more.empty()) call += " " + more;
  fake::alarmBus().calls.push_back(call);
}

}  // namespace

int QN_AlarmBus_Subscribe(std::string& /*reply*/, const std::string& request,
                          AlarmDataCallBack callback, void* user, int option, int& subscribeId) {
  const fake::AllocationShelter shelter;
  fake::AlarmBus& bus = fake::alarmBus();
  note("Subscribe", option, request);
  if (bus.refusal != 0) return bus.refusal;
  subscribeId = ++bus.lastId;
  bus.subscriptions[subscribeId] = {request, callback, user, false, {}};
  return 0;
}

int QN_AlarmBus_UnSubscribe(std::string& /*reply*/, int subscribeId, int /*option*/) {
  note("UnSubscribe", subscribeId);
  if (fake::alarmBus().unsubscribeResult != 0) return fake::alarmBus().unsubscribeResult;
  return fake::alarmBus().subscriptions.erase(subscribeId) == 1 ? 0 : -1;
}

int QN_AlarmBus_StartUploadData(int subscribeId) {
  note("StartUploadData", subscribeId);
  auto* subscription = find(subscribeId);
  if (subscription == nullptr) return -1;
  subscription->started = true;
  return 0;
}

int QN_AlarmBus_AddDevice(std::string& /*reply*/, int subscribeId, const std::string& devIndex,
                          const std::string& request) {
  const fake::AllocationShelter shelter;
  note("AddDevice", subscribeId, devIndex + " " + request);
  if (fake::alarmBus().refusal != 0) return fake::alarmBus().refusal;
  auto* subscription = find(subscribeId);
  if (subscription == nullptr) return -1;
  subscription->added[devIndex] = request;
  return 0;
}

int QN_AlarmBus_DeleteDevice(std::string& /*reply*/, int subscribeId, const std::string& devIndex) {
  note("DeleteDevice", subscribeId, devIndex);
  auto* subscription = find(subscribeId);
  if (subscription == nullptr) return -1;
  subscription->added.erase(devIndex);
  return 0;
}

int QN_AlarmBus_CheckIDValid(int subscribeId) {
  return fake::alarmBus().valid && find(subscribeId) != nullptr ? 1 : 0;
}
