// The documents written by hand under golden/, and the request that each one travels with: one list
// for tests, fuzz targets and benchmarks.
#pragma once

#include <fstream>
#include <iterator>
#include <string>

#include "platform/http_service.h"

struct GoldenPair {
  unsigned int method;
  const char* url;
  const char* json;  // the device's side
  const char* xml;   // the client's side
};

inline constexpr GoldenPair kGoldenReplies[] = {
    {0, "/KAVRO/System/deviceInfo", "device_info.json", "device_info.xml"},
    {0, "/KAVRO/System/Video/inputs/channels", "video_inputs.json", "video_inputs.xml"},
    {0, "/KAVRO/Security/adminAccesses", "device_info.json", "access_protocols.xml"},
    {0, "/KAVRO/Streaming/channels/101", "streaming_channel.json", "streaming_channel.xml"},
    {0, "/KAVRO/System/Audio/channels", "audio_channels.json", "audio_channels.xml"},
    {0, "/KAVRO/PTZCtrl/channels", "ptz_channels.json", "ptz_channels.xml"},
    {2, "/KAVRO/ContentMgmt/search", "search_result.json", "search_result.xml"},
    {0, "/KAVRO/Smart/capabilities", "smart_capabilities.json", "smart_capabilities.xml"},
    {0, "/KAVRO/Smart/capabilities/SmartCap", "smart_capabilities.json", "smart_capabilities.xml"},
    {0, "/KAVRO/System/IO", "io_ports.json", "io_ports.xml"},
};

inline constexpr GoldenPair kGoldenRequests[] = {
    {1, "/KAVRO/Streaming/channels/1", "streaming_channel_put.json", "streaming_channel_put.xml"},
    {1, "/KAVRO/PTZCtrl/channels/1/continuous", "ptz_move.json", "ptz_move.xml"},
    {1, "/KAVRO/PTZCtrl/channels/1/presets/5", "ptz_preset.json", "ptz_preset.xml"},
    {2, "/KAVRO/ContentMgmt/search", "search.json", "search.xml"},
    {1, "/KAVRO/System/IO/outputs/1/trigger", "output_trigger.json", "output_trigger.xml"},
};

// The body of a request whose reply is to be translated: the smallest that is taken.
inline const char* bodyFor(const GoldenPair& pair) {
  return pair.method == QNHttpService::HTTP_POST ? "<CMSearchDescription/>" : "";
}

// Empty when there is no such file.
inline std::string golden(const std::string& name) {
  std::ifstream file(std::string(QN_GOLDEN_DIR "/") + name);
  return {std::istreambuf_iterator<char>(file), {}};
}
