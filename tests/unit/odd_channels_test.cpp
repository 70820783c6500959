// What the channel documents do that their tables do not say at a glance: defaults, ranges, orders.
#include <tuple>

#include "channel/channel_cfg.h"
#include "channel/streaming_channel.h"
#include "platform/wlog.h"
#include "tests/unit/cases.h"
#include "tests/unit/golden.h"

namespace QNKAVROProtocol {
namespace {

class OddChannels : public PlatformTest {};

TEST_F(OddChannels, StreamingChannelIsCut) {
  const Json::Value document = parsed(golden("streaming_channel.json"));
  std::string xml;
  EXPECT_EQ(getXMLStreamingChannel(xml, parsed(with(document, "StreamingChannel.channelName",
                                                    std::string(200000, 'x')))),
            0);
  EXPECT_EQ(xml.size(), 102400u);
}

// Which of the listed ids the client sees.
TEST_F(OddChannels, StreamingChannelList) {
  // Null is an entry that cannot be converted.
  const std::pair<std::vector<const char*>, const char*> cases[] = {
      {{}, ""},
      {{"101", "102", "103", "201", "299"}, "101 102 201 "},
      {{"100", "1", "2", "3", "-103", "abc"}, "100 1 2 -103 abc "},
      {{"101", nullptr, "201"}, "101 "},
  };
  const Json::Value document = parsed(golden("streaming_channel.json"));
  for (const auto& [ids, seen] : cases) {
    std::string entries;
    for (const char* id : ids) {
      const std::string entry = id == nullptr ? without(document, "StreamingChannel.channelName")
                                              : with(document, "StreamingChannel.id", id);
      entries += (entries.empty() ? "" : ",") + entry;
    }
    const auto answer =
        answerTo({0, "/KAVRO/Streaming/channels"}, R"({"StreamingChannelList":[)" + entries + "]}");
    ASSERT_TRUE(answer);
    EXPECT_EQ(allInside("id", *answer), seen);
    EXPECT_TRUE(answer->ends_with("</StreamingChannelList>"));
  }
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "get xml streamingchannel[1] fail"));
}

TEST_F(OddChannels, MoreAudioChannelsThanANumberHolds) {
  std::string inputs = R"({"VideoInputChannelList":[0)";
  for (int i = 0; i < 65536; ++i) inputs += ",0";
  EXPECT_FALSE(answerTo({0, "/KAVRO/System/Audio/channels"}, inputs + "]}"));
}

// The fixed capabilities are there for callers; the resource passes the device's own on.
TEST_F(OddChannels, ChannelCapabilities) {
  const std::string url = "/KAVRO/Streaming/channels/101/capabilities";
  const Outcome outcome = get(url);
  EXPECT_EQ(fake::deviceBus().reply(R"({"StreamingChannel": {"x": 1}})"), 0);
  EXPECT_EQ(outcome.answer().body, R"({"StreamingChannel": {"x": 1}})");
  EXPECT_EQ(outcome.answer().headers.at("Content-Type"), "application/json");

  const CHttpExchange exchange(outcome.handle);
  std::string body = "before";
  EXPECT_EQ(CChannelCfg::covertChannelIDCapRspBody(body, {parsed("{}"), url, 0, exchange}), 9);
  EXPECT_EQ(body, "before");
  const Json::Value reply = parsed(R"({"StreamingChannel":null})");
  EXPECT_EQ(CChannelCfg::covertChannelIDCapRspBody(body, {reply, url, 0, exchange}), 0);
  EXPECT_EQ(flat(body), flat(golden("channel_capabilities.xml")));
  EXPECT_TRUE(fake::logged(WLOG_DUMP, "/KAVRO/Streaming/channels/<id>/capabilities rep="));
}

constexpr const char* kDeviceInfo = "/KAVRO/System/deviceInfo?format=json&devIndex=1";
constexpr const char* kAudio = "/KAVRO/System/Audio/channels";

TEST_F(OddChannels, AudioChannelsDependOnTheDevice) {
  for (const auto& [head, info, asked] : casesOf("audio_devices.txt")) {
    fake::reset();
    if (info != "(no answer)") fake::deviceBus().syncReplies[kDeviceInfo] = info;
    EXPECT_EQ(get(kAudio).asyncReply, 1);
    EXPECT_EQ(fake::deviceBus().seen.back().url, asked + "?format=json&devIndex=1") << info;
  }
}

TEST_F(OddChannels, AudioAsksTheDeviceBeforeTheMethodIsRefused) {
  const std::tuple<unsigned int, int, bool> cases[] = {
      {0, 0, true}, {1, -1, true}, {3, -1, true}, {4, -1, false}};
  for (const auto& [method, result, asks] : cases) {
    fake::reset();
    fake::deviceBus().syncReplies[kDeviceInfo] = "{}";
    std::string url;
    std::string body;
    EXPECT_EQ(CChannelCfg().covertUrlandBody(url, body, fake::http().open({method, kAudio}), "1"),
              result);
    ASSERT_EQ(fake::deviceBus().seen.size(), asks ? 1u : 0u) << method;
    if (asks) {
      EXPECT_EQ(fake::deviceBus().seen[0].method, method);
    }
  }
}

// However long the device's index is.
TEST_F(OddChannels, DeviceUrlsHaveALimit) {
  for (const char* url : {"/KAVRO/Streaming/channels", "/KAVRO/Streaming/channels/1",
                          "/KAVRO/Streaming/channels/1/capabilities"}) {
    std::string device;
    std::string body;
    EXPECT_EQ(CChannelCfg().covertUrlandBody(device, body, fake::http().open({0, url}),
                                             std::string(3000, '1')),
              0);
    EXPECT_EQ(device.size(), 2047u) << url;
  }
}

}  // namespace
}  // namespace QNKAVROProtocol
