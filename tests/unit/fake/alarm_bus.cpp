// platform/alarm_bus.h.
#include "tests/unit/fake/fake_platform.h"
#include "tests/unit/fake/resettable.h"

namespace fake {

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

void resetAlarmBus() { alarmBus() = {}; }

}  // namespace fake

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
