// See device.h.
#include "subdevice/device.h"

#include <utility>

namespace subdevice {

void RequestLog::add(const Request& request) {
  if (entries_.size() == kEntries) entries_.pop_front();
  entries_.push_back({request.method, request.target, request.contentType,
                      request.body.substr(0, kBodyBytes), request.body.size()});
}

Json::Value RequestLog::document() const {
  Json::Value list(Json::arrayValue);
  for (const auto& entry : entries_) {
    Json::Value& row = list.append({});
    row["method"] = entry.method;
    row["url"] = entry.url;
    row["contentType"] = entry.contentType;
    row["body"] = entry.body;
    row["bodyBytes"] = static_cast<Json::UInt64>(entry.bodyBytes);
  }
  return list;
}

SimulatedDevice::SimulatedDevice(boost::asio::io_context& io, DeviceOptions deviceOptions)
    : options(std::move(deviceOptions)),
      documents(options),
      recordings(options.channels),
      faces(io),
      login(options.username, options.password),
      alarms(io, options.alarmInterval) {}

PtzHead* SimulatedDevice::ptzHead(int channel) {
  if (channel < 1 || channel > options.channels) return nullptr;
  return &ptzHeads_.try_emplace(channel, channel).first->second;
}

}  // namespace subdevice
