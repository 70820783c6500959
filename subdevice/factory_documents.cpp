// See factory_documents.h.
#include "subdevice/factory_documents.h"

#include <array>
#include <cstdio>
#include <optional>

#include "subdevice/device.h"
#include "subdevice/json_text.h"

namespace subdevice {
namespace {

Json::Value fromText(const char* text) { return parseJson(text).value(); }

// The number with leading zeros after the prefix.
std::string numbered(const char* prefix, int number, int digits) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%s%0*d", prefix, digits, number);
  return text.data();
}

std::string macAddress(int number) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "02:00:00:00:%02x:%02x", number >> 8 & 0xff,
                number & 0xff);
  return text.data();
}

Json::Value deviceInfo(const DeviceOptions& options) {
  Json::Value document = fromText(R"({"DeviceInfo": {
    "firmwareVersion": "V2.4.1", "firmwareReleasedDate": "2026-01-15", "bootVersion": "V1.0.3"}})");
  Json::Value& info = document["DeviceInfo"];
  info["deviceName"] = options.type + " " + std::to_string(options.number);
  info["deviceID"] = numbered("5a1d0000-0000-4000-8000-", options.number, 12);
  info["model"] = isRecorder(options.type) ? "SIM-R8" : "SIM-C4";
  info["serialNumber"] = numbered("SIM", options.number, 9);
  info["macAddress"] = macAddress(options.number);
  info["deviceType"] = options.type;
  return document;
}

Json::Value videoInputs(const DeviceOptions& options) {
  Json::Value document;
  Json::Value& list = document["VideoInputChannelList"] = Json::arrayValue;
  for (int channel = 1; channel <= options.channels; ++channel) {
    Json::Value& input = list.append({})["VideoInputChannel"];
    input["id"] = std::to_string(channel);
    input["inputPort"] = std::to_string(channel);
    input["name"] = "Camera " + std::to_string(channel);
  }
  return document;
}

Json::Value audioChannels() {
  return fromText(R"({"AudioChannelList": [
    {"AudioChannel": {"id": "1", "enabled": true, "type": "input", "name": "Microphone"}},
    {"AudioChannel": {"id": "2", "enabled": false, "type": "output", "name": "Speaker"}}]})");
}

Json::Value smartCapabilities() {
  return fromText(R"({"SmartCap": {
    "isSupportROI": true, "isSupportFaceDetect": true, "isSupportFieldDetection": true,
    "isSupportAudioDetection": true, "isSupportLineDetection": true,
    "isSupportRegionEntrance": true, "isSupportRegionExiting": true, "isSupportLoitering": false,
    "isSupportParking": false, "isSupportChannelResource": true, "isSupportLFPD": false}})");
}

Json::Value ioPorts() {
  Json::Value document = fromText(R"({"IOPortList": {"IOInputPortList": [
    {"IOInputPort": {"id": 1, "enable": true, "triggering": "high", "name": "Door contact"}},
    {"IOInputPort": {"id": 2, "enable": false, "triggering": "low"}}], "IOOutputPortList": []}})");
  Json::Value& outputs = document["IOPortList"]["IOOutputPortList"];
  for (int id = 1; id <= kIoOutputs; ++id) {
    Json::Value& output = outputs.append({})["IOOutputPort"];
    output["id"] = id;
    output["enable"] = true;
    output["name"] = "Relay " + std::to_string(id);
  }
  return document;
}

Json::Value clock() { return fromText(R"({"Time": {"timeMode": "manual", "timeZone": "UTC0"}})"); }

struct StreamProfile {
  int stream;
  const char* suffix;
  int width, height, frameRate, averageCap;
};

constexpr std::array<StreamProfile, 3> kProfiles{{{1, "main", 1920, 1080, 2500, 4096},
                                                  {2, "sub", 704, 576, 1200, 512},
                                                  {3, "custom", 1280, 720, 2500, 2048}}};

Json::Value stream(int channel, const StreamProfile& profile) {
  Json::Value document = fromText(R"({"enabled": true,
    "Transport": {
      "maxPacketSize": 1446, "videoSourcePortNo": 8200, "audioSourcePortNo": 8202,
      "ControlProtocolList": [{"ControlProtocol": {"streamingTransport": "RTSP"}},
                              {"ControlProtocol": {"streamingTransport": "HTTP"}}],
      "Unicast": {"enabled": true, "interfaceID": "1", "rtpTransportType": "RTP/TCP"},
      "Multicast": {"enabled": false, "destIPAddress": "239.0.0.1", "videoDestPortNo": 8860,
                    "audioDestPortNo": 8862, "ttl": 8},
      "Security": {"enabled": true, "certificateType": "digest"}},
    "Video": {
      "enabled": true, "videoCodecType": "H.264", "videoScanType": "progressive",
      "videoQualityControlType": "VBR", "fixedQuality": 60, "vbrLowerCap": 32,
      "keyFrameInterval": 50, "rotationDegree": 0, "mirrorEnabled": false,
      "snapShotImageType": "PNG", "H264Profile": "Main", "GovLength": 50,
      "SVC": {"enabled": false}, "smoothing": 50, "SmartCodec": {"enabled": false}},
    "Audio": {
      "enabled": true, "audioInputChannelID": "1", "audioCompressionType": "G.711ulaw",
      "audioBitRate": 64, "audioSamplingRate": 8.0, "audioResolution": 16,
      "VoiceChanger": {"enabled": false, "level": 0}},
    "enableCABAC": true, "subStreamRecStatus": false, "customStreamEnable": true})");
  document["id"] = std::to_string(channel * 100 + profile.stream);
  document["channelName"] = "Camera " + std::to_string(channel) + " " + profile.suffix;
  Json::Value& video = document["Video"];
  video["videoInputChannelID"] = std::to_string(channel);
  video["videoResolutionWidth"] = profile.width;
  video["videoResolutionHeight"] = profile.height;
  video["maxFrameRate"] = profile.frameRate;
  video["vbrUpperCap"] = profile.averageCap * 2;
  video["vbrAverageCap"] = profile.averageCap;
  return document;
}

}  // namespace

bool isRecorder(const std::string& deviceType) {
  return deviceType == "NVR" || deviceType == "DVR" || deviceType == "DVS" ||
         deviceType == "HybirdNVR";
}

std::map<std::string, Json::Value, std::less<>> factoryDocuments(const DeviceOptions& options) {
  std::map<std::string, Json::Value, std::less<>> documents;
  documents["/KAVRO/System/deviceInfo"] = deviceInfo(options);
  documents["/KAVRO/System/Video/inputs/channels"] = videoInputs(options);
  if (!isRecorder(options.type)) documents["/KAVRO/System/Audio/channels"] = audioChannels();
  documents["/KAVRO/Smart/capabilities"] = smartCapabilities();
  documents["/KAVRO/System/IO"] = ioPorts();
  documents["/KAVRO/System/time"] = clock();
  return documents;
}

std::map<int, Json::Value> factoryStreams(const DeviceOptions& options) {
  std::map<int, Json::Value> streams;
  for (int channel = 1; channel <= options.channels; ++channel)
    for (const auto& profile : kProfiles)
      streams[channel * 100 + profile.stream] = stream(channel, profile);
  return streams;
}

}  // namespace subdevice
