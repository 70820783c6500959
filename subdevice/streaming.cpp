// Streaming channels: main, sub and custom stream of every channel, readable and changeable.
#include <array>
#include <string>

#include "subdevice/device.h"
#include "subdevice/json_text.h"
#include "subdevice/resources.h"

namespace subdevice {
namespace {

constexpr std::size_t kDocumentBytes =
    64 * 1024;  // so that members sent again and again never add up

// A device judges the numbers it could not work with.
bool acceptable(const Json::Value& video) {
  constexpr std::array<const char*, 3> kPositive{"videoResolutionWidth", "videoResolutionHeight",
                                                 "maxFrameRate"};
  for (const char* name : kPositive)
    if (video.isMember(name) && (!video[name].isInt() || video[name].asInt() < 1)) return false;
  return true;
}

// Entries that name no transport are dropped.
void keepNamedTransports(Json::Value& transport) {
  Json::Value kept(Json::arrayValue);
  for (const auto& entry : transport["ControlProtocolList"])
    if (entry.isObject() && entry["ControlProtocol"]["streamingTransport"].isString())
      kept.append(entry);
  transport["ControlProtocolList"] = kept;
}

}  // namespace

Reply listStreams(ResourceCall& call) {
  Json::Value document;
  Json::Value& list = document["StreamingChannelList"] = Json::arrayValue;
  for (const auto& [id, stream] : call.device.streams) list.append({})["StreamingChannel"] = stream;
  return documentReply(document);
}

Reply getStream(ResourceCall& call) {
  const auto found = call.device.streams.find(call.ids[0]);
  if (found == call.device.streams.end()) return unknownResource();
  Json::Value document;
  document["StreamingChannel"] = found->second;
  return documentReply(document);
}

Reply putStream(ResourceCall& call) {
  const auto found = call.device.streams.find(call.ids[0]);
  if (found == call.device.streams.end()) return unknownResource();
  Json::Value change = bodyObject(call.request)["StreamingChannel"];
  if (!change.isObject()) return statusReply(Status::BadFormat, "notAStreamingChannel");
  if (!acceptable(change["Video"])) return statusReply(Status::BadContent, "badVideo");
  change.removeMember("id");  // the resource names the channel, whatever the document says
  if (change["Video"].isNull()) change.removeMember("Video");
  Json::Value next = found->second;
  mergeJson(next, change);
  if (!next["Transport"].isNull()) keepNamedTransports(next["Transport"]);
  if (writeJson(next).size() > kDocumentBytes) return statusReply(Status::BadContent, "tooLarge");
  found->second = next;
  return okReply();
}

Reply getStreamCapabilities(ResourceCall& call) {
  if (!call.device.streams.contains(call.ids[0])) return unknownResource();
  auto document = parseJson(R"({"StreamingChannel": {"Video": {
    "videoCodecType": {"opt": ["H.264", "H.265"]}, "videoResolutionWidth": {"opt": [1920, 704]},
    "maxFrameRate": {"opt": [2500, 1200, 600]}, "keyFrameInterval": {"min": 1, "max": 400}}}})");
  (*document)["StreamingChannel"]["id"] = std::to_string(call.ids[0]);
  return documentReply(*document);
}

}  // namespace subdevice
