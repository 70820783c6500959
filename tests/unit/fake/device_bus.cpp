// platform/device_cfg_bus.h.
#include "tests/unit/fake/fake_platform.h"
#include "tests/unit/fake/resettable.h"

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

void resetDeviceBus() {
  while (!deviceBus().pending.empty()) deviceBus().reply(kStopped);
  deviceBus() = {};
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
