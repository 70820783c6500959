// Each document in each direction against a pair written by hand.
#include "tests/unit/golden.h"

namespace QNKAVROProtocol {
namespace {

class Golden : public PlatformTest {};

TEST_F(Golden, Replies) {
  const struct {
    unsigned int method;
    const char* url;
    const char* reply;
    const char* answer;
  } cases[] = {
      {0, "/KAVRO/System/deviceInfo", "device_info.json", "device_info.xml"},
      {0, "/KAVRO/System/Video/inputs/channels", "video_inputs.json", "video_inputs.xml"},
      {0, "/KAVRO/Security/adminAccesses", "device_info.json", "access_protocols.xml"},
      {0, "/KAVRO/Streaming/channels/101", "streaming_channel.json", "streaming_channel.xml"},
      {0, "/KAVRO/System/Audio/channels", "audio_channels.json", "audio_channels.xml"},
      {0, "/KAVRO/PTZCtrl/channels", "ptz_channels.json", "ptz_channels.xml"},
      {2, "/KAVRO/ContentMgmt/search", "search_result.json", "search_result.xml"},
      {0, "/KAVRO/Smart/capabilities", "smart_capabilities.json", "smart_capabilities.xml"},
      {0, "/KAVRO/Smart/capabilities/SmartCap", "smart_capabilities.json",
       "smart_capabilities.xml"},
      {0, "/KAVRO/System/IO", "io_ports.json", "io_ports.xml"},
  };
  for (const auto& [method, url, reply, answer] : cases) {
    const auto body = answerTo({method, url, "<CMSearchDescription/>"}, golden(reply));
    ASSERT_TRUE(body) << reply;
    EXPECT_EQ(flat(*body), flat(golden(answer))) << reply;
  }
}

TEST_F(Golden, Requests) {
  const struct {
    unsigned int method;
    const char* url;
    const char* body;
    const char* json;
  } cases[] = {
      {1, "/KAVRO/Streaming/channels/1", "streaming_channel_put.xml", "streaming_channel_put.json"},
      {1, "/KAVRO/PTZCtrl/channels/1/continuous", "ptz_move.xml", "ptz_move.json"},
      {1, "/KAVRO/PTZCtrl/channels/1/presets/5", "ptz_preset.xml", "ptz_preset.json"},
      {2, "/KAVRO/ContentMgmt/search", "search.xml", "search.json"},
      {1, "/KAVRO/System/IO/outputs/1/trigger", "output_trigger.xml", "output_trigger.json"},
  };
  for (const auto& [method, url, body, json] : cases) {
    const auto request = requestFor({method, url, golden(body)});
    ASSERT_TRUE(request) << body;
    EXPECT_EQ(parsed(*request), parsed(golden(json))) << *request;
    EXPECT_TRUE(request->ends_with("}\n")) << *request;
  }
}

// Documents that do not depend on the device's reply, to the byte.
TEST_F(Golden, FixedAnswers) {
  const std::string hdd = golden("hdd_list.xml");
  EXPECT_EQ(answerTo({0, "/KAVRO/ContentMgmt/Storage/hdd"}, "{}"), hdd.substr(0, hdd.size() - 1));
  EXPECT_EQ(answerTo({0, "/KAVRO/System/capabilities"}, "[7]"),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?><DeviceCap version = \"2.0\"><SysCap><IOCap "
            " version = \"2.0\"></IOCap></SysCap></DeviceCap>");
  EXPECT_EQ(answerTo({0, "/KAVRO/Smart/capabilities"}, "{}"),
            R"(<?xml version="1.0" encoding="UTF-8"?>)");
  EXPECT_EQ(answerTo({0, "/KAVRO/System/IO"}, "7"), R"(<?xml version="1.0" encoding="UTF-8"?>)");
}

// Line breaks only where clients have always got them: behind the declaration and the list's tag.
TEST_F(Golden, StreamingFraming) {
  const std::string channel = flat(golden("streaming_channel.xml"));
  const std::size_t declaration = channel.find("?>") + 2;
  const std::string document = channel.substr(declaration);
  const std::string head = channel.substr(0, declaration) + "\r\n";
  const std::string reply = golden("streaming_channel.json");
  EXPECT_EQ(answerTo({0, "/Streaming/channels/101"}, reply), head + document);
  EXPECT_EQ(answerTo({0, "/KAVRO/Streaming/channels"},
                     R"({"StreamingChannelList":[)" + reply + "," + reply + "]}"),
            head + "<StreamingChannelList>\r\n" + document + document + "</StreamingChannelList>");
}

// Commands answer with success whatever the device's own document says.
TEST_F(Golden, Commands) {
  const struct {
    unsigned int method;
    std::string url;
    const char* body;
  } cases[] = {
      {1, "/KAVRO/Streaming/channels/1", "streaming_channel_put.xml"},
      {1, "/KAVRO/PTZCtrl/channels/1/continuous", "ptz_move.xml"},
      {1, "/KAVRO/PTZCtrl/channels/1/presets/2/goto", nullptr},
      {1, "/KAVRO/PTZCtrl/channels/1/presets/2", "ptz_preset.xml"},
      {3, "/KAVRO/PTZCtrl/channels/1/presets/2", nullptr},
      {1, "/KAVRO/PTZCtrl/channels/1/homeposition/goto", nullptr},
      {1, "/KAVRO/System/IO/outputs/1/trigger", "output_trigger.xml"},
  };
  for (const auto& [method, url, body] : cases) {
    const auto answer =
        answerTo({method, url, body == nullptr ? "" : golden(body)}, R"({"result":"failed"})");
    EXPECT_EQ(answer, R"(<?xml version="1.0" encoding="UTF-8"?><ResponseStatus version="2.0">)"
                      "<requestURL>" +
                          url +
                          "</requestURL><statusCode>1</statusCode>"
                          "<statusString>OK</statusString><subStatusCode>ok</subStatusCode>"
                          "</ResponseStatus>");
  }
}

}  // namespace
}  // namespace QNKAVROProtocol
