// See device.h.
#include "subdevice/device.h"

#include <cstdio>
#include <exception>
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
      alarms(io, options.alarmInterval),
      io_(io) {}

void SimulatedDevice::switchTo(bool on) {
  rebooting_.reset();
  listening = on;
  onSwitch();
}

void SimulatedDevice::reboot(std::chrono::milliseconds away) {
  switchTo(false);
  login.expireNonces();
  outputsHigh = {};
  returnAfter(away);
}

void SimulatedDevice::returnAfter(std::chrono::milliseconds away) {
  constexpr std::chrono::seconds kUntilNextTry{1};
  rebooting_.emplace(io_, away);
  rebooting_->async_wait([this, kUntilNextTry](boost::system::error_code error) {
    if (error) return;
    try {
      switchTo(true);
    } catch (const std::exception& taken) {
      std::fprintf(stderr, "device %d cannot come back: %s\n", options.number, taken.what());
      returnAfter(kUntilNextTry);
    }
  });
}

PtzHead* SimulatedDevice::ptzHead(int channel) {
  if (channel < 1 || channel > options.channels) return nullptr;
  return &ptzHeads_.try_emplace(channel, channel).first->second;
}

}  // namespace subdevice
