// See status.h.
#include "gateway/admin/status.h"

#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <memory>

#include "json/reader.h"

namespace qn {
namespace {

using SystemTime = std::chrono::system_clock::time_point;

int64_t milliseconds(SystemTime time) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

Json::Value number(uint64_t value) { return Json::Value(Json::UInt64(value)); }

Json::Value list(const Health::Reasons& reasons) {
  Json::Value out(Json::arrayValue);
  for (const std::string& reason : reasons) out.append(reason);
  return out;
}

const char* text(DeviceFailure failure) {
  switch (failure) {
    case DeviceFailure::None:
      return "";
    case DeviceFailure::TimedOut:
      return "did not answer in time";
    case DeviceFailure::Unreachable:
      return "cannot be reached";
    case DeviceFailure::UnusableReply:
      return "answered something unusable";
    case DeviceFailure::LoginRefused:
      return "refused the gateway's login";
  }
  return "";
}

// The states in which a device may be, the worst first.
enum class DeviceState { Unreachable, LoginRefused, AlarmsBroken, Answering, Unasked };
constexpr const char* kStateNames[] = {"does not answer", "login refused", "no alarms", "answers",
                                       "not asked yet"};

DeviceState stateOf(const Device* device) {
  if (!device) return DeviceState::Unasked;
  if (device->circuit.isOpen()) return DeviceState::Unreachable;
  if (device->login.rests()) return DeviceState::LoginRefused;
  if (device->counts.feedWanted && !device->counts.alarmsFlow) return DeviceState::AlarmsBroken;
  return device->counts.answered.value() > 0 || device->counts.alarmsFlow ? DeviceState::Answering
                                                                          : DeviceState::Unasked;
}

Json::Value deviceJson(const ObservedDevice& observed) {
  const DeviceConfig& config = *observed.config;
  Json::Value out;
  const DeviceState state = stateOf(observed.device.get());
  out["index"] = config.index;
  out["address"] = config.host + ':' + std::to_string(config.port);
  out["state"] = kStateNames[static_cast<std::size_t>(state)];
  out["trouble"] = state < DeviceState::Answering;
  if (!observed.device) return out;
  const Device& device = *observed.device;
  const DeviceCounts& counts = device.counts;
  out["inFlight"] = number(counts.inFlight);
  out["pending"] = number(device.admitted);
  out["answered"] = number(counts.answered.value());
  out["failed"] =
      number(counts.timedOut.value() + counts.unreachable.value() + counts.unusable.value());
  out["alarms"] = number(counts.alarms.value());
  out["alarmStream"] = counts.alarmsFlow.load();
  if (counts.lastFailure != DeviceFailure::None) {
    out["lastError"] = text(counts.lastFailure);
    out["lastErrorTime"] = Json::Int64(counts.lastFailureAt * 1000);
  }
  return out;
}

Json::Value devicesJson(const Observed& observed, std::string_view search) {
  const auto& inForce = configuration();
  auto devices = observedDevices(observed.devices, *inForce);
  const std::size_t all = devices.size();
  std::erase_if(devices, [&](const ObservedDevice& each) {
    return each.config->index.find(search) == std::string::npos &&
           each.config->host.find(search) == std::string::npos;
  });
  std::vector<std::pair<DeviceState, const ObservedDevice*>> order;
  order.reserve(devices.size());
  for (const auto& device : devices) order.emplace_back(stateOf(device.device.get()), &device);
  std::ranges::stable_sort(order, {}, &decltype(order)::value_type::first);
  Json::Value out;
  out["configured"] = number(all);
  out["matching"] = number(order.size());
  out["inTrouble"] = number(static_cast<uint64_t>(std::ranges::count_if(
      order, [](const auto& each) { return each.first < DeviceState::Answering; })));
  if (order.size() > kListedDevices) order.resize(kListedDevices);
  out["list"] = Json::arrayValue;
  for (const auto& [state, device] : order) out["list"].append(deviceJson(*device));
  return out;
}

Json::Value streamsJson(const Observed& observed) {
  const auto& counts = observed.http.counts();
  const auto closed = counts.sum(&HttpCounts::streamsClosed);
  Json::Value out;
  out["open"] = number(counts.sum(&HttpCounts::streamsOpened) - closed);
  out["partsSent"] = number(counts.sum(&HttpCounts::partsSent));
  out["partsDropped"] = number(counts.sum(&HttpCounts::partsDropped));
  out["list"] = Json::arrayValue;
  for (const auto& stream : observed.http.streams(kListedStreams)) {
    Json::Value entry;
    entry["client"] = stream->client;
    entry["user"] = stream->user;
    entry["device"] = stream->device;
    entry["since"] = Json::Int64(milliseconds(stream->since));
    entry["parts"] = number(stream->partsSent.value());
    out["list"].append(entry);
  }
  return out;
}

Json::Value loginsJson(const Observed& observed) {
  const auto& counts = observed.login.counts();
  Json::Value out;
  out["admitted"] = number(counts.sum(&LoginCounts::admitted));
  out["wrong"] = number(counts.sum(&LoginCounts::wrong));
  out["whileLocked"] = number(counts.sum(&LoginCounts::whileLocked));
  out["notAllowed"] = number(counts.sum(&LoginCounts::notAllowed));
  out["locks"] = Json::arrayValue;
  for (const auto& lock : observed.login.locks(kListedLocks)) {
    Json::Value entry;
    entry["address"] = lock.network.text();
    entry["seconds"] = Json::Int64(lock.unlockIn.count());
    out["locks"].append(entry);
  }
  out["refusals"] = Json::arrayValue;
  for (const auto& refusal : observed.login.refusals()) {
    Json::Value entry;
    entry["time"] = Json::Int64(milliseconds(refusal.time));
    entry["user"] = refusal.user;
    entry["address"] = refusal.address;
    entry["locked"] = refusal.locked;
    out["refusals"].append(entry);
  }
  return out;
}

// The members that a row shows; devices may send anything.
void addAlarm(Json::Value& out, const std::string& text) {
  if (text.empty()) return;
  const json::Reading reading(text);
  const json::Value alert = reading.root().member("EventNotificationAlert");
  for (const char* name : {"eventType", "eventState", "eventDescription", "channelID"}) {
    const json::Value value = alert.member(name);
    if (!value.isObject() && !value.isArray() && !value.isNull()) out[name] = value.asString();
  }
}

Json::Value alarmsJson(const Observed& observed) {
  Json::Value out(Json::arrayValue);
  for (const RecentAlarm& alarm : observed.alarms.recent().newestFirst()) {
    Json::Value entry;
    entry["time"] = Json::Int64(milliseconds(alarm.time));
    entry["device"] = alarm.device;
    addAlarm(entry, alarm.text);
    out.append(entry);
  }
  return out;
}

Json::Value requestsJson(const Observed& observed) {
  const auto& counts = observed.http.counts();
  const auto ofClass = [&](std::size_t resource, std::size_t status) {
    return counts.sum([=](const HttpCounts& each) {
      uint64_t all = 0;
      for (const auto& method : each.answered[resource]) all += method[status].value();
      return all;
    });
  };
  Json::Value out(Json::arrayValue);
  for (std::size_t resource = 0; resource < kResourceFamilies; ++resource) {
    Json::Value entry;
    entry["resource"] = kFamilyNames[resource];
    entry["good"] = number(ofClass(resource, 0));
    entry["clientErrors"] = number(ofClass(resource, 1));
    entry["serverErrors"] = number(ofClass(resource, 2));
    out.append(entry);
  }
  return out;
}

Json::Value timesJson(const Observed& observed) {
  constexpr double kNanoseconds = 1e-9;
  const auto& http = observed.http.counts();
  const auto& bus = observed.bus.counts();
  Json::Value out;
  out["gatewaySeconds"] =
      double(http.sum([](const HttpCounts& each) { return each.ownTime.nanoseconds(); })) *
      kNanoseconds;
  out["deviceSeconds"] =
      double(bus.sum([](const BusCounts& each) { return each.deviceTime.nanoseconds(); })) *
      kNanoseconds;
  out["deviceRequests"] = number(bus.sum([](const BusCounts& each) {
    uint64_t all = 0;
    for (std::size_t i = 0; i < each.deviceTime.kBuckets; ++i) all += each.deviceTime.inBucket(i);
    return all;
  }));
  return out;
}

}  // namespace

std::string statusJson(const Observed& observed, std::string_view search) {
  const ServiceLoad load = observed.http.load();
  Json::Value out;
  out["version"] = observed.version;
  out["time"] = Json::Int64(milliseconds(std::chrono::system_clock::now()));
  out["notReady"] = list(observed.health.againstReadiness());
  out["reloadRefused"] = observed.reloads.state().refusal;
  out["connections"] = number(load.connections);
  out["requestsInFlight"] = number(load.requests);
  out["requests"] = requestsJson(observed);
  out["times"] = timesJson(observed);
  out["devices"] = devicesJson(observed, search);
  out["streams"] = streamsJson(observed);
  out["logins"] = loginsJson(observed);
  out["alarms"] = alarmsJson(observed);
  return Json::FastWriter().write(out);
}

}  // namespace qn
