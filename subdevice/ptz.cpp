// See ptz.h.
#include "subdevice/ptz.h"

#include <algorithm>
#include <cstdlib>

#include "subdevice/device.h"
#include "subdevice/resources.h"

namespace subdevice {
namespace {

constexpr double kEnd = 1000;  // of every axis, in both directions

double advanced(double position, double speed, double seconds) {
  return std::clamp(position + speed * seconds, -kEnd, kEnd);
}

PtzHead* headOf(ResourceCall& call) { return call.device.ptzHead(call.ids[0]); }

}  // namespace

PtzHead::PtzHead(int channel) : channel_(channel) { setPreset(1, "Entrance"); }

Json::Value PtzHead::channelDocument() const {
  Json::Value channel;
  channel["id"] = channel_;
  channel["enabled"] = true;
  channel["serialNumber"] = channel_;
  channel["videoInputID"] = channel_;
  channel["panMaxSpeed"] = kFastest;
  channel["tiltMaxSpeed"] = kFastest;
  channel["presetSpeed"] = 50;
  channel["controlProtocol"] = "simulated";
  channel["controlAddress"]["enabled"] = true;
  channel["controlAddress"]["Address"] = std::to_string(channel_);
  channel["defaultPresetID"] = "1";
  Json::Value& line = channel["PTZRs485Para"];
  line["baudRate"] = 9600;
  line["dataBits"] = 8;
  line["parityType"] = "none";
  line["stopBits"] = "1";
  line["flowCtrl"] = "none";
  channel["manualControlSpeed"] = "compatible";
  return channel;
}

Json::Value PtzHead::statusDocument() {
  advance();
  Json::Value document;
  Json::Value& status = document["PTZStatus"];
  status["pan"] = position_.pan;
  status["tilt"] = position_.tilt;
  status["zoom"] = position_.zoom;
  status["moving"] = speed_.pan != 0 || speed_.tilt != 0 || speed_.zoom != 0;
  return document;
}

Json::Value PtzHead::presetsDocument() const {
  Json::Value document;
  Json::Value& list = document["PTZPresetList"] = Json::arrayValue;
  for (const auto& [id, preset] : presets_) {
    Json::Value& entry = list.append({})["PTZPreset"];
    entry["id"] = std::to_string(id);
    entry["presetName"] = preset.name;
    entry["enabled"] = true;
  }
  return document;
}

bool PtzHead::move(int pan, int tilt, int zoom) {
  for (const int speed : {pan, tilt, zoom})
    if (speed < -kFastest || speed > kFastest) return false;
  advance();
  speed_ = {double(pan), double(tilt), double(zoom)};
  return true;
}

bool PtzHead::gotoPreset(int id) {
  const auto found = presets_.find(id);
  if (found == presets_.end()) return false;
  stopAt(found->second.position);
  return true;
}

bool PtzHead::setPreset(int id, const std::string& name) {
  if (id < 1 || id > kPresets) return false;
  advance();
  presets_[id] = {name, position_};
  return true;
}

void PtzHead::advance() {
  const auto now = Clock::now();
  const double seconds = std::chrono::duration<double>(now - moved_).count();
  position_ = {advanced(position_.pan, speed_.pan, seconds),
               advanced(position_.tilt, speed_.tilt, seconds),
               advanced(position_.zoom, speed_.zoom, seconds)};
  moved_ = now;
}

void PtzHead::stopAt(const Position& position) {
  position_ = position;
  speed_ = {};
  moved_ = Clock::now();
}

Reply listPtzChannels(ResourceCall& call) {
  Json::Value document;
  Json::Value& list = document["PTZChannelList"] = Json::arrayValue;
  for (int channel = 1; channel <= call.device.options.channels; ++channel)
    list.append({})["PTZChannel"] = call.device.ptzHead(channel)->channelDocument();
  return documentReply(document);
}

Reply movePtz(ResourceCall& call) {
  PtzHead* head = headOf(call);
  if (head == nullptr) return unknownResource();
  const Json::Value data = bodyObject(call.request)["PTZData"];
  if (!data.isObject()) return statusReply(Status::BadFormat, "notAMove");
  const bool moved = head->move(data.get("pan", 0).asInt(), data.get("tilt", 0).asInt(),
                                data.get("zoom", 0).asInt());
  return moved ? okReply() : statusReply(Status::BadContent, "tooFast");
}

Reply getPtzStatus(ResourceCall& call) {
  PtzHead* head = headOf(call);
  return head == nullptr ? unknownResource() : documentReply(head->statusDocument());
}

Reply listPresets(ResourceCall& call) {
  PtzHead* head = headOf(call);
  return head == nullptr ? unknownResource() : documentReply(head->presetsDocument());
}

Reply setPreset(ResourceCall& call) {
  PtzHead* head = headOf(call);
  if (head == nullptr) return unknownResource();
  const Json::Value preset = bodyObject(call.request)["PTZPreset"];
  if (!preset.isObject()) return statusReply(Status::BadFormat, "notAPreset");
  const bool kept = head->setPreset(call.ids[1], preset.get("presetName", "").asString());
  return kept ? okReply() : statusReply(Status::BadContent, "presetOutOfRange");
}

Reply deletePreset(ResourceCall& call) {
  PtzHead* head = headOf(call);
  return head != nullptr && head->deletePreset(call.ids[1]) ? okReply() : unknownResource();
}

Reply gotoPreset(ResourceCall& call) {
  PtzHead* head = headOf(call);
  return head != nullptr && head->gotoPreset(call.ids[1]) ? okReply() : unknownResource();
}

Reply gotoHome(ResourceCall& call) {
  PtzHead* head = headOf(call);
  if (head == nullptr) return unknownResource();
  head->home();
  return okReply();
}

}  // namespace subdevice
