// The documents that every device starts with: those that a gateway translates, and a generic one
// or a few for each family that it passes through. See documents.h.
#include <array>

#include "subdevice/documents.h"

namespace subdevice {
namespace {

// A device judges the numbers that it could not work with, and drops entries that name no
// transport.
const char* judgeStream(Json::Value& change) {
  constexpr std::array<const char*, 3> kPositive{"videoResolutionWidth", "videoResolutionHeight",
                                                 "maxFrameRate"};
  if (change.isMember("Video"))
    for (const char* name : kPositive)
      if (change["Video"].isMember(name) &&
          (!change["Video"][name].isInt() || change["Video"][name].asInt() < 1))
        return "badVideo";
  if (!change.isMember("Transport") || !change["Transport"].isMember("ControlProtocolList"))
    return nullptr;
  Json::Value& transports = change["Transport"]["ControlProtocolList"];
  Json::Value named(Json::arrayValue);
  for (const auto& entry : transports)
    if (entry.isObject() && entry["ControlProtocol"]["streamingTransport"].isString())
      named.append(entry);
  transports = named;
  return nullptr;
}

// A password is taken and never shown.
const char* judgeUser(Json::Value& change) {
  if (change.isMember("password") &&
      (!change["password"].isString() || change["password"].asString().empty()))
    return "badPassword";
  change.removeMember("password");
  return change.isMember("name") && change["name"] == "" ? "badName" : nullptr;
}

constexpr const char* kDeviceInfo = R"({"DeviceInfo": {
  "deviceName": "$type $device", "deviceID": "5a1d0000-0000-4000-8000-$device12",
  "model": "$model", "serialNumber": "SIM$device9", "macAddress": "$mac",
  "firmwareVersion": "V2.4.1", "firmwareReleasedDate": "2026-01-15", "bootVersion": "V1.0.3",
  "deviceType": "$type"}})";

constexpr const char* kStream = R"({"id": "$id", "enabled": true,
  "channelName": "Camera $channel $[main|sub|custom]",
  "Transport": {
    "maxPacketSize": 1446, "videoSourcePortNo": 8200, "audioSourcePortNo": 8202,
    "ControlProtocolList": [{"ControlProtocol": {"streamingTransport": "RTSP"}},
                            {"ControlProtocol": {"streamingTransport": "HTTP"}}],
    "Unicast": {"enabled": true, "interfaceID": "1", "rtpTransportType": "RTP/TCP"},
    "Multicast": {"enabled": false, "destIPAddress": "239.0.0.1", "videoDestPortNo": 8860,
                  "audioDestPortNo": 8862, "ttl": 8},
    "Security": {"enabled": true, "certificateType": "digest"}},
  "Video": {
    "enabled": true, "videoInputChannelID": "$channel", "videoCodecType": "H.264",
    "videoScanType": "progressive", "videoResolutionWidth": $[1920|704|1280],
    "videoResolutionHeight": $[1080|576|720], "maxFrameRate": $[2500|1200|2500],
    "videoQualityControlType": "VBR", "fixedQuality": 60, "vbrLowerCap": 32,
    "vbrUpperCap": $[8192|1024|4096], "vbrAverageCap": $[4096|512|2048],
    "keyFrameInterval": 50, "rotationDegree": 0, "mirrorEnabled": false,
    "snapShotImageType": "PNG", "H264Profile": "Main", "GovLength": 50,
    "SVC": {"enabled": false}, "smoothing": 50, "SmartCodec": {"enabled": false}},
  "Audio": {
    "enabled": true, "audioInputChannelID": "1", "audioCompressionType": "G.711ulaw",
    "audioBitRate": 64, "audioSamplingRate": 8.0, "audioResolution": 16,
    "VoiceChanger": {"enabled": false, "level": 0}},
  "enableCABAC": true, "subStreamRecStatus": false, "customStreamEnable": true})";

constexpr const char* kStreamCapabilities = R"({"StreamingChannel": {"id": "$id", "Video": {
  "videoCodecType": {"opt": ["H.264", "H.265"]}, "videoResolutionWidth": {"opt": [1920, 704]},
  "maxFrameRate": {"opt": [2500, 1200, 600]}, "keyFrameInterval": {"min": 1, "max": 400}}}})";

constexpr const char* kSmartCapabilities = R"({"SmartCap": {
  "isSupportROI": true, "isSupportFaceDetect": true, "isSupportFieldDetection": true,
  "isSupportAudioDetection": true, "isSupportLineDetection": true,
  "isSupportRegionEntrance": true, "isSupportRegionExiting": true, "isSupportLoitering": false,
  "isSupportParking": false, "isSupportChannelResource": true, "isSupportLFPD": false}})";

// The most asked for first. A list's members are in its entry's text; one that is not there is
// refused in a change.
constexpr std::array<StoredDocument, 36> kStored{{
    {Shape::Document, "/KAVRO/System/deviceInfo", kNoIds, kDeviceInfo},
    {.shape = Shape::List,
     .path = "/KAVRO/Streaming/channels",
     .ids = kStreams,
     .text = kStream,
     .list = "StreamingChannelList",
     .entry = "StreamingChannel",
     .judge = judgeStream,
     .takesNewMembers = true},
    {Shape::List, "/KAVRO/System/Video/inputs/channels", kChannels,
     R"({"id": "$id", "inputPort": "$id", "name": "Camera $id"})", "VideoInputChannelList",
     "VideoInputChannel"},
    {.shape = Shape::List,
     .path = "/KAVRO/System/Audio/channels",
     .ids = 2,
     .text = R"({"id": "$id", "enabled": $[true|false], "type": "$[input|output]",
                 "name": "$[Microphone|Speaker]"})",
     .list = "AudioChannelList",
     .entry = "AudioChannel",
     .camerasOnly = true},
    {Shape::Fixed, "/KAVRO/Streaming/channels/%d/capabilities", kStreams, kStreamCapabilities},

    // What a device can do.
    {Shape::Fixed, "/KAVRO/Smart/capabilities", kNoIds, kSmartCapabilities},
    {Shape::Fixed, "/KAVRO/System/capabilities", kNoIds,
     R"({"SystemCap": {"isSupportReboot": true, "isSupportTime": true, "interfaceCount": 2,
         "inputCount": 2, "outputCount": 2}})"},
    {Shape::Fixed, "/KAVRO/System/Network/capabilities", kNoIds,
     R"({"NetworkCap": {"interfaceCount": 2, "isSupportIPv6": false,
         "addressing": {"opt": ["static", "dynamic"]}, "mtu": {"min": 500, "max": 1500}}})"},
    {Shape::Fixed, "/KAVRO/Security/capabilities", kNoIds,
     R"({"SecurityCap": {"mostUsers": 64, "level": {"opt": ["administrator", "operator",
         "viewer"]}}})"},
    {Shape::Fixed, "/KAVRO/Event/capabilities", kNoIds,
     R"({"EventCap": {"mostTriggers": 64, "eventType": {"opt": ["motion", "fieldDetection",
         "lineDetection", "audioException", "IO"]}, "action": {"opt": ["notify", "record",
         "output"]}}})"},
    {Shape::Fixed, "/KAVRO/Image/channels/%d/capabilities", kChannels,
     R"({"ImageCap": {"id": "$id", "brightness": {"min": 0, "max": 100},
         "contrast": {"min": 0, "max": 100}, "saturation": {"min": 0, "max": 100}}})"},
    {Shape::Fixed, "/KAVRO/PTZCtrl/channels/%d/capabilities", kChannels,
     R"({"PTZCap": {"id": "$id", "presets": {"min": 1, "max": 300},
         "speed": {"min": -100, "max": 100}}})"},
    {Shape::Fixed, "/KAVRO/ContentMgmt/capabilities", kNoIds,
     R"({"ContentCap": {"mostResults": 200, "isSupportMetadata": true}})"},
    {Shape::Fixed, "/KAVRO/AccessControl/capabilities", kNoIds,
     R"({"AccessControlCap": {"doorCount": 2, "mostPersons": 64, "mostCards": 64}})"},
    {Shape::Fixed, "/KAVRO/Intelligent/capabilities", kNoIds,
     R"({"IntelligentCap": {"mostLibraries": 64, "mostFaces": 32,
         "pictureType": {"opt": ["jpeg", "png", "bmp"]}}})"},

    // System and network.
    {Shape::Document, "/KAVRO/System/time", kNoIds,
     R"({"Time": {"timeMode": "manual", "timeZone": "UTC0"}})"},
    {Shape::Growing, "/KAVRO/System/time/servers", 1,
     R"({"id": $id, "address": "192.0.2.$id", "port": 123, "intervalMinutes": 60})",
     "TimeServerList", "TimeServer"},
    {Shape::List, "/KAVRO/System/Network/interfaces", 2,
     R"({"id": $id, "name": "$[lan|service]", "enabled": $[true|false],
         "addressing": "$[static|dynamic]", "ipAddress": "$[192.0.2.10|198.51.100.10]",
         "subnetMask": "255.255.255.0", "gateway": "$[192.0.2.1|198.51.100.1]",
         "nameServers": ["192.0.2.53"], "macAddress": "$mac", "speed": 1000, "mtu": 1500})",
     "NetworkInterfaceList", "NetworkInterface"},
    {Shape::Document, "/KAVRO/System/Network/ports", kNoIds,
     R"({"NetworkPorts": {"http": 80, "https": 443, "rtsp": 554}})"},
    {Shape::List, "/KAVRO/ContentMgmt/Storage/hdd", 1,
     R"({"id": $id, "name": "disk $id", "type": "SATA", "status": "ok", "capacity": 1907729,
         "freeSpace": 87296, "readOnly": false})",
     "HddList", "Hdd"},

    // Who may use the device, and how.
    {.shape = Shape::Growing,
     .path = "/KAVRO/Security/users",
     .ids = 2,
     .text = R"({"id": $id, "name": "$[admin|guest]", "level": "$[administrator|viewer]",
                 "enabled": true})",
     .list = "UserList",
     .entry = "User",
     .judge = judgeUser},
    {Shape::List, "/KAVRO/Security/adminAccesses", 3,
     R"({"id": $id, "enabled": true, "protocol": "$[HTTP|RTSP|HTTPS]", "portNo": $[80|554|443]})",
     "AdminAccessProtocolList", "AdminAccessProtocol"},

    // Inputs, outputs, events.
    {Shape::List, "/KAVRO/System/IO/inputs", 2,
     R"({"id": $id, "enable": $[true|false], "triggering": "$[high|low]"
         $[, "name": "Door contact"|]})",
     "IOInputPortList", "IOInputPort"},
    {Shape::List, "/KAVRO/System/IO/outputs", kIoOutputs,
     R"({"id": $id, "enable": true, "name": "Relay $id"})", "IOOutputPortList", "IOOutputPort"},
    {Shape::Fixed, "/KAVRO/System/IO/inputs/%d/status", 2,
     R"({"IOPortStatus": {"ioPortID": $id, "ioState": "$[low|high]"}})"},
    {Shape::Growing, "/KAVRO/Event/triggers", 3,
     R"({"id": $id, "name": "trigger $id", "enabled": true, "channelID": "1",
         "eventType": "$[motion|fieldDetection|IO]", "actions": ["notify", "$[record|output]"]})",
     "EventTriggerList", "EventTrigger"},
    {Shape::List, "/KAVRO/Event/schedules", kChannels,
     R"({"id": $id, "enabled": true, "days": [{"day": "all", "begin": "00:00", "end": "24:00"}]})",
     "EventScheduleList", "EventSchedule"},

    // Pictures and recordings.
    {Shape::List, "/KAVRO/Image/channels", kChannels,
     R"({"id": $id, "enabled": true, "brightness": 50, "contrast": 50, "saturation": 50,
         "sharpness": 50, "dayNight": "auto", "mirror": false})",
     "ImageChannelList", "ImageChannel"},
    {Shape::List, "/KAVRO/Streaming/tracks", kStreams,
     R"({"id": $id, "channel": $channel, "enabled": $[true|false|false],
         "mode": "$[continuous|event]", "daysKept": 30, "codecType": "H.264"})",
     "TrackList", "Track"},

    // Doors, people, faces.
    {Shape::List, "/KAVRO/AccessControl/doors", 2,
     R"({"id": $id, "name": "$[Front|Back] door", "enabled": true, "openSeconds": 5,
         "mode": "$[normal|closed]"})",
     "DoorList", "Door"},
    {Shape::Growing, "/KAVRO/AccessControl/persons", 2,
     R"({"id": $id, "employeeNo": "100$id", "name": "Person $id", "personType": "$[staff|visitor]",
         "validFrom": "2026-01-01T00:00:00Z", "validTo": "2036-01-01T00:00:00Z", "doors": [1]})",
     "PersonList", "Person"},
    {Shape::Growing, "/KAVRO/AccessControl/CardInfo", 2,
     R"({"id": $id, "cardNo": "900000000$id", "employeeNo": "100$id", "enabled": true})",
     "CardInfoList", "CardInfo"},
    {Shape::List, "/KAVRO/AccessControl/schedules", 2,
     R"({"id": $id, "name": "$[always|office hours]", "begin": "$[00:00|08:00]",
         "end": "$[24:00|18:00]", "days": ["all"]})",
     "AccessScheduleList", "AccessSchedule"},
    {Shape::Growing, "/KAVRO/Intelligent/FDLib", 1,
     R"({"id": $id, "name": "library $id", "description": "", "threshold": 80})", "FDLibList",
     "FDLib"},
    {Shape::Document, "/KAVRO/Intelligent/faceDetection", kNoIds,
     R"({"FaceDetection": {"enabled": true, "sensitivity": 50, "minimumSize": 32}})"},
    {Shape::Document, "/KAVRO/Event/notification/settings", kNoIds,
     R"({"NotificationSettings": {"heartbeatSeconds": 10, "mostStreams": 16}})"},
}};

}  // namespace

std::span<const StoredDocument> storedDocuments() { return kStored; }

}  // namespace subdevice
