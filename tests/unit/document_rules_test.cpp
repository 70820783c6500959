// Which members and elements a document needs, and what a wrong kind does: every one of the golden
// documents' members in turn is taken away and changed.
#include <iterator>
#include <set>
#include <sstream>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/wlog.h"
#include "tests/unit/golden.h"

namespace QNKAVROProtocol {
namespace {

std::set<std::string> words(const char* text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

// Paths of all members, as "List.0.Entry.id"; of a list only its first entry's.
void collectPaths(const Json::Value& value, const std::string& prefix,
                  std::vector<std::string>& paths) {
  if (value.isArray() && !value.empty()) collectPaths(value[0], prefix + "0.", paths);
  if (!value.isObject()) return;
  for (const std::string& name : value.getMemberNames()) {
    paths.push_back(prefix + name);
    collectPaths(value[name], prefix + name + ".", paths);
  }
}

// Of no kind that a table asks for where `original` stands.
Json::Value otherKind(const Json::Value& document, const std::string& path) {
  std::string name;
  Json::Value copy = document;
  const Json::Value& original = holderOf(copy, path, name)[name];
  return original.isString() ? Json::Value(7) : Json::Value("7");
}

class Rules : public PlatformTest {};

struct DocumentRules {
  unsigned int method;
  const char* url;
  const char* reply;
  const char* required;      // without one of these the document fails, and with a wrong kind
  const char* requiredOnly;  // without one of these it fails; a wrong kind is an empty list
  const char* mayBeNull;     // of the required: null is an empty text
  bool strict;               // a wrong kind of any other member fails too
  const char* ignored;       // not read at all
};

constexpr DocumentRules kDocuments[] = {
    {0, "/KAVRO/System/deviceInfo", "device_info.json",
     "DeviceInfo DeviceInfo.deviceName DeviceInfo.deviceID DeviceInfo.serialNumber "
     "DeviceInfo.macAddress DeviceInfo.firmwareVersion DeviceInfo.deviceType",
     "",
     "DeviceInfo.deviceName DeviceInfo.deviceID DeviceInfo.serialNumber DeviceInfo.macAddress "
     "DeviceInfo.firmwareVersion DeviceInfo.deviceType",
     false, "DeviceInfo.deviceDescription DeviceInfo.hardwareVersion"},
    {0, "/KAVRO/System/Video/inputs/channels", "video_inputs.json",
     "VideoInputChannelList.0.VideoInputChannel VideoInputChannelList.0.VideoInputChannel.id "
     "VideoInputChannelList.0.VideoInputChannel.inputPort",
     "VideoInputChannelList",
     "VideoInputChannelList.0.VideoInputChannel.id "
     "VideoInputChannelList.0.VideoInputChannel.inputPort",
     false, "VideoInputChannelList.0.VideoInputChannel.resDesc"},
    {0, "/KAVRO/Streaming/channels/1", "streaming_channel.json",
     "StreamingChannel StreamingChannel.id StreamingChannel.channelName StreamingChannel.enabled "
     "StreamingChannel.Transport StreamingChannel.Transport.ControlProtocolList.0.ControlProtocol "
     "StreamingChannel.Transport.ControlProtocolList.0.ControlProtocol.streamingTransport "
     "StreamingChannel.Transport.Unicast.enabled StreamingChannel.Transport.Multicast.enabled "
     "StreamingChannel.Transport.Security.enabled StreamingChannel.Video.enabled "
     "StreamingChannel.Video.videoInputChannelID StreamingChannel.Video.videoCodecType "
     "StreamingChannel.Video.videoResolutionWidth StreamingChannel.Video.videoResolutionHeight "
     "StreamingChannel.Video.maxFrameRate StreamingChannel.Video.SVC.enabled "
     "StreamingChannel.Video.SmartCodec.enabled StreamingChannel.Audio.enabled "
     "StreamingChannel.Audio.audioInputChannelID StreamingChannel.Audio.audioCompressionType "
     "StreamingChannel.Audio.VoiceChanger.enabled StreamingChannel.Audio.VoiceChanger.level",
     "StreamingChannel.Transport.ControlProtocolList", "StreamingChannel.Transport", false,
     "StreamingChannel.Transport.audioInboundPortNo StreamingChannel.Video.constantBitRate"},
    {0, "/KAVRO/System/Audio/channels", "audio_channels.json",
     "AudioChannelList.0.AudioChannel AudioChannelList.0.AudioChannel.id "
     "AudioChannelList.0.AudioChannel.enabled",
     "AudioChannelList", "", true, ""},
    {0, "/KAVRO/PTZCtrl/channels", "ptz_channels.json",
     "PTZChannelList.0.PTZChannel PTZChannelList.0.PTZChannel.id "
     "PTZChannelList.0.PTZChannel.enabled PTZChannelList.0.PTZChannel.serialNumber "
     "PTZChannelList.0.PTZChannel.videoInputID PTZChannelList.0.PTZChannel.controlAddress.enabled "
     "PTZChannelList.0.PTZChannel.PTZRs485Para.baudRate "
     "PTZChannelList.0.PTZChannel.PTZRs485Para.dataBits "
     "PTZChannelList.0.PTZChannel.PTZRs485Para.parityType "
     "PTZChannelList.0.PTZChannel.PTZRs485Para.stopBits "
     "PTZChannelList.0.PTZChannel.PTZRs485Para.flowCtrl",
     "PTZChannelList", "", true, ""},
    {2, "/KAVRO/ContentMgmt/search", "search_result.json", "", "", "", false, ""},
    {0, "/KAVRO/Smart/capabilities", "smart_capabilities.json", "", "", "", true,
     "SmartCap.isSupportSomethingElse"},
    {0, "/KAVRO/System/IO", "io_ports.json",
     "IOPortList.IOInputPortList.0.IOInputPort.id IOPortList.IOInputPortList.0.IOInputPort.enable "
     "IOPortList.IOOutputPortList.0.IOOutputPort.id "
     "IOPortList.IOOutputPortList.0.IOOutputPort.enable",
     "", "", true, "IOPortList.IOOutputPortList.0.IOOutputPort.triggering"},
};

TEST_F(Rules, EveryMemberAbsentNullAndOfAnotherKind) {
  for (const DocumentRules& rules : kDocuments) {
    const Json::Value document = parsed(golden(rules.reply));
    const fake::Request request{rules.method, rules.url, "<CMSearchDescription/>"};
    const std::string whole = answerTo(request, qn::json::writeJson(document)).value_or("");
    const auto required = words(rules.required);
    const auto requiredOnly = words(rules.requiredOnly);
    const auto mayBeNull = words(rules.mayBeNull);
    const auto ignored = words(rules.ignored);
    std::vector<std::string> paths;
    collectPaths(document, "", paths);
    ASSERT_GT(paths.size(), 4u);
    for (const std::string& path : paths) {
      const auto absent = answerTo(request, without(document, path));
      const auto null = answerTo(request, with(document, path, Json::Value()));
      const auto wrong = answerTo(request, with(document, path, otherKind(document, path)));
      const bool needed = required.contains(path) || requiredOnly.contains(path);
      const bool rejectsOthers = required.contains(path) || rules.strict;
      const bool read = !ignored.contains(path);
      EXPECT_EQ(absent.has_value(), !needed) << path;
      EXPECT_EQ(null.has_value(),
                !read || mayBeNull.contains(path) || requiredOnly.contains(path) || !rejectsOthers)
          << path;
      EXPECT_EQ(wrong.has_value(), !read || requiredOnly.contains(path) || !rejectsOthers) << path;
      EXPECT_EQ(absent == whole, !read) << path;
      EXPECT_EQ(wrong == whole, !read) << path;
    }
  }
}

// Each line of a golden request that holds a whole element: the element's path and the body
// without it.
struct Shortened {
  std::string path;
  std::string body;
};
std::vector<Shortened> withoutEachElement(const std::string& body) {
  std::vector<Shortened> result;
  std::vector<std::string> open;
  std::size_t begin = 0;
  for (std::size_t end = body.find('\n'); end != std::string::npos; end = body.find('\n', begin)) {
    const std::string line = body.substr(begin, end - begin);
    const std::size_t lineBegin = std::exchange(begin, end + 1);
    const std::size_t indentation = line.find('<');
    const std::string name = line.substr(indentation + 1, line.find('>') - indentation - 1);
    if (name[0] == '?' || name[0] == '/') continue;
    open.resize(indentation / 2);
    std::string path;
    for (const std::string& parent : open) path += parent + ".";
    open.push_back(name);
    if (line.find("</") == std::string::npos) continue;
    std::string shortened = body;
    shortened.erase(lineBegin, line.size());
    result.push_back({path + name, shortened});
  }
  return result;
}

TEST_F(Rules, EveryElementOfARequestAbsent) {
  const struct {
    unsigned int method;
    const char* url;
    const char* body;
    const char* required;
    const char* ignored;
  } cases[] = {
      {1, "/KAVRO/Streaming/channels/1", "streaming_channel_put.xml",
       "StreamingChannel.id StreamingChannel.channelName StreamingChannel.enabled "
       "StreamingChannel.Transport.ControlProtocolList.ControlProtocol.streamingTransport "
       "StreamingChannel.Transport.Unicast.enabled StreamingChannel.Transport.Multicast.enabled "
       "StreamingChannel.Transport.Security.enabled StreamingChannel.Video.enabled "
       "StreamingChannel.Video.videoInputChannelID StreamingChannel.Video.videoCodecType "
       "StreamingChannel.Video.videoResolutionWidth StreamingChannel.Video.videoResolutionHeight "
       "StreamingChannel.Video.maxFrameRate StreamingChannel.Video.SVC.enabled "
       "StreamingChannel.Video.SmartCodec.enabled StreamingChannel.Audio.enabled "
       "StreamingChannel.Audio.audioInputChannelID StreamingChannel.Audio.audioCompressionType",
       "StreamingChannel.Audio.VoiceChanger.enabled StreamingChannel.Audio.VoiceChanger.level"},
      {1, "/KAVRO/PTZCtrl/channels/1/continuous", "ptz_move.xml", "", ""},
      {1, "/KAVRO/PTZCtrl/channels/1/presets/5", "ptz_preset.xml", "", ""},
      {1, "/KAVRO/System/IO/outputs/1/trigger", "output_trigger.xml", "IOPortData.outputState", ""},
  };
  for (const auto& [method, url, body, requiredWords, ignoredWords] : cases) {
    const std::string document = golden(body);
    const auto whole = requestFor({method, url, document});
    ASSERT_TRUE(whole);
    const auto required = words(requiredWords);
    const auto ignored = words(ignoredWords);
    for (const auto& [path, shortened] : withoutEachElement(document)) {
      const auto request = requestFor({method, url, shortened});
      EXPECT_EQ(request.has_value(), !required.contains(path)) << path;
      EXPECT_EQ(request == whole, ignored.contains(path)) << path;
    }
  }
}

}  // namespace
}  // namespace QNKAVROProtocol
