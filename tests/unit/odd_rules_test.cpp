// What the documents do that their tables do not say at a glance: defaults, ranges, orders, and
// texts that clients rely on.

#include <cctype>

#include "channel/channel_cfg.h"
#include "channel/streaming_channel.h"
#include "platform/wlog.h"
#include "record/playback_uri.h"
#include "record/search_match_item.h"
#include "tests/unit/golden.h"

namespace QNKAVROProtocol {
namespace {

constexpr const char* kDeclaration = R"(<?xml version="1.0" encoding="UTF-8"?>)";
constexpr const char* kFails = "(fails)";

class OddRules : public PlatformTest {
 protected:
  // The part of the answer between the tags of its first `element`, kFails for none.
  static std::string inside(const char* element, const std::optional<std::string>& answer) {
    if (!answer) return kFails;
    const std::string open = "<" + std::string(element) + ">";
    const std::size_t begin = answer->find(open);
    const std::size_t end = answer->find("</" + std::string(element) + ">");
    if (begin == std::string::npos || end == std::string::npos) return "(no such element)";
    return answer->substr(begin + open.size(), end - begin - open.size());
  }
};

constexpr const char* kNone = "(no such element)";

TEST_F(OddRules, StreamingChannel) {
  constexpr const char* kDefaultMulticast =
      "<enabled>true</enabled><destIPAddress>0.0.0.0</destIPAddress>"
      "<videoDestPortNo>0</videoDestPortNo><audioDestPortNo>0</audioDestPortNo>";
  const struct {
    const char* path;
    const char* value;  // JSON; null: without the member
    const char* element;
    std::string expected;
  } cases[] = {
      {"Transport", "null", "Transport",
       "<ControlProtocolList><ControlProtocol><streamingTransport>RTSP</streamingTransport>"
       "</ControlProtocol></ControlProtocolList><Multicast>" +
           std::string(kDefaultMulticast) + "</Multicast>"},
      {"Transport.Multicast", nullptr, "Multicast", kDefaultMulticast},
      {"Transport.Multicast", "null", "Multicast", kNone},
      {"Transport.Multicast", "7", "Multicast", kNone},
      {"Transport.Multicast", "{}", "", kFails},
      {"Transport.Unicast", nullptr, "Unicast", kNone},
      {"Transport.ControlProtocolList", "[]", "ControlProtocolList", kNone},
      {"Transport.ControlProtocolList", "[null]", "", kFails},
      {"Transport.ControlProtocolList", "[{}]", "", kFails},
      {"Transport.maxPacketSize", "1e1", "maxPacketSize", "10"},
      {"Transport.maxPacketSize", "1.5", "maxPacketSize", kNone},
      {"Video", "null", "Video", kNone},
      {"Video", "[]", "Video", kNone},
      {"Video", "{}", "", kFails},
      {"Video.enabled", "\"true\"", "", kFails},
      {"Video.SVC", "7", "SVC", kNone},
      {"Video.SVC", "{}", "", kFails},
      {"Video.smoothing", "0", "smoothing", kNone},
      {"Video.smoothing", "1", "smoothing", "1"},
      {"Video.smoothing", "100", "smoothing", "100"},
      {"Video.smoothing", "101", "smoothing", kNone},
      {"Audio.VoiceChanger.level", "12", "level", "12"},
      {"Audio.VoiceChanger.level", "13", "", kFails},
      {"Audio.VoiceChanger.level", "-13", "", kFails},
      {"Audio.audioSamplingRate", "8", "audioSamplingRate", "8.000000"},
      {"Audio.audioSamplingRate", "\"8\"", "audioSamplingRate", kNone},
  };
  const Json::Value document = parsed(golden("streaming_channel.json"));
  for (const auto& [path, value, element, expected] : cases) {
    const std::string full = std::string("StreamingChannel.") + path;
    const auto answer =
        answerTo({0, "/KAVRO/Streaming/channels/1"},
                 value == nullptr ? without(document, full) : with(document, full, parsed(value)));
    EXPECT_EQ(inside(element, answer), expected) << path << " " << (value ? value : "absent");
  }
}

TEST_F(OddRules, StreamingChannelIsCut) {
  const Json::Value document = parsed(golden("streaming_channel.json"));
  std::string xml;
  EXPECT_EQ(getXMLStreamingChannel(xml, parsed(with(document, "StreamingChannel.channelName",
                                                    std::string(200000, 'x')))),
            0);
  EXPECT_EQ(xml.size(), 102400u);
}

// Which of the listed ids the client sees.
TEST_F(OddRules, StreamingChannelList) {
  const struct {
    std::vector<const char*> ids;  // null: an entry that cannot be converted
    const char* seen;
  } cases[] = {
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
    std::string found;
    for (auto at = answer->find("<id>"); at != std::string::npos;
         at = answer->find("<id>", at + 1)) {
      found += answer->substr(at + 4, answer->find('<', at + 1) - at - 4) + " ";
    }
    EXPECT_EQ(found, seen);
    EXPECT_TRUE(answer->ends_with("</StreamingChannelList>"));
  }
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "get xml streamingchannel[1] fail"));
  for (const char* reply : {"{}", R"({"StreamingChannelList":null})", "[]",
                            R"({"StreamingChannelList":{"StreamingChannel":{}}})"}) {
    EXPECT_FALSE(answerTo({0, "/KAVRO/Streaming/channels"}, reply)) << reply;
  }
}

TEST_F(OddRules, ChannelRequest) {
  const std::string channel = "<id>1</id><channelName>c</channelName><enabled>true</enabled>";
  const std::string transport = "<Transport><ControlProtocolList/></Transport>";
  const std::string video =
      "<Video><enabled>1</enabled><videoInputChannelID>1</videoInputChannelID>"
      "<videoCodecType>H</videoCodecType><videoResolutionWidth>x</videoResolutionWidth>"
      "<videoResolutionHeight>-1y</videoResolutionHeight><maxFrameRate>25</maxFrameRate></Video>";
  const struct {
    std::string content;
    const char* expected;  // null: refused
  } cases[] = {
      {channel + transport,
       R"({"id":"1","channelName":"c","enabled":true,"Transport":{"ControlProtocolList":[null]}})"},
      {channel +
           "<Transport><ControlProtocolList><x/><ControlProtocol><streamingTransport>R"
           "</streamingTransport></ControlProtocol><y/><z/></ControlProtocolList></Transport>",
       R"({"id":"1","channelName":"c","enabled":true,"Transport":{"ControlProtocolList":
          [{"ControlProtocol":{"streamingTransport":"R"}},null,null]}})"},
      {channel + transport + video + "<customStreamEnable>no</customStreamEnable>",
       R"({"id":"1","channelName":"c","enabled":true,"Transport":{"ControlProtocolList":[null]},
          "Video":{"enabled":false,"videoInputChannelID":"1","videoCodecType":"H",
          "videoResolutionWidth":0,"videoResolutionHeight":-1,"maxFrameRate":25},
          "customStreamEnable":false})"},
      // Out of order: not seen.
      {video + channel + transport,
       R"({"id":"1","channelName":"c","enabled":true,"Transport":{"ControlProtocolList":[null]}})"},
      {transport + channel, nullptr},
      {channel, nullptr},
      {channel + "<Transport/>", nullptr},
      {channel + transport + "<Video/>", nullptr},
  };
  for (const auto& [content, expected] : cases) {
    const auto request = requestFor(
        {1, "/KAVRO/Streaming/channels/1", "<StreamingChannel>" + content + "</StreamingChannel>"});
    ASSERT_EQ(request.has_value(), expected != nullptr) << content;
    if (request) {
      EXPECT_EQ(parsed(*request)["StreamingChannel"], parsed(expected)) << *request;
    }
  }
}

TEST_F(OddRules, AudioChannels) {
  const struct {
    const char* reply;
    const char* expected;
  } cases[] = {
      {"null", "<AudioChannelList/>"},
      {"{}", nullptr},
      {"7", nullptr},
      {R"({"AudioChannelList":{}})", "<AudioChannelList/>"},
      {R"({"AudioChannelList":[{"AudioChannel":{"id":"1","enabled":"true"}}]})", nullptr},
      {R"({"VideoInputChannelList":{},"AudioChannelList":[7]})", "<AudioChannelList/>"},
      {R"({"VideoInputChannelList":[7,{},null]})",
       "<AudioChannelList><AudioChannel><id>1</id><enabled>true</enabled></AudioChannel>"
       "<AudioChannel><id>2</id><enabled>true</enabled></AudioChannel>"
       "<AudioChannel><id>3</id><enabled>true</enabled></AudioChannel></AudioChannelList>"},
  };
  for (const auto& [reply, expected] : cases) {
    const auto answer = answerTo({0, "/KAVRO/System/Audio/channels"}, reply);
    ASSERT_EQ(answer.has_value(), expected != nullptr) << reply;
    if (answer) {
      EXPECT_EQ(*answer, std::string(kDeclaration) + expected);
    }
  }
}

// The fixed capabilities are there for callers; the resource passes the device's own on.
TEST_F(OddRules, ChannelCapabilities) {
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
  EXPECT_TRUE(fake::logged(WLOG_DUMP, "/KAVRO/Streaming/channels/101/capabilities rep="));
}

TEST_F(OddRules, DeviceInfoDefaults) {
  const Json::Value document = parsed(golden("device_info.json"));
  const fake::Request request{0, "/KAVRO/System/deviceInfo"};
  for (const char* model : {"\"\"", "7", "null"}) {
    const auto answer = answerTo(request, with(document, "DeviceInfo.model", parsed(model)));
    EXPECT_EQ(inside("model", answer), "VT-RQ4830") << model;
  }
  const std::string noMac = with(document, "DeviceInfo.macAddress", "");
  const std::string mac = inside("macAddress", answerTo(request, noMac));
  ASSERT_EQ(mac.size(), 17u);
  for (std::size_t i = 0; i < mac.size(); ++i) {
    EXPECT_TRUE(i % 3 == 2 ? mac[i] == ':' : std::isxdigit(mac[i]) != 0) << mac;
  }
  EXPECT_NE(inside("macAddress", answerTo(request, noMac)), mac);
}

TEST_F(OddRules, FailuresAreLoggedByNumber) {
  const std::string info = golden("device_info.json");
  const struct {
    const char* url;
    std::string reply;
    const char* line;
    int level = WLOG_ERROR;
  } cases[] = {
      {"/KAVRO/System/deviceInfo", "{}", "covertDevinfoRsp fail 1."},
      {"/KAVRO/System/deviceInfo", R"({"DeviceInfo":[]})", "covertDevinfoRsp fail 2."},
      {"/KAVRO/System/deviceInfo", without(parsed(info), "DeviceInfo.deviceName"),
       "covertDevinfoRsp fail 2."},
      {"/KAVRO/System/deviceInfo", without(parsed(info), "DeviceInfo.deviceID"),
       "covertDevinfoRsp fail 3."},
      {"/KAVRO/System/deviceInfo", without(parsed(info), "DeviceInfo.serialNumber"),
       "covertDevinfoRsp fail 5."},
      {"/KAVRO/System/deviceInfo", without(parsed(info), "DeviceInfo.macAddress"),
       "covertDevinfoRsp fail 6."},
      {"/KAVRO/System/deviceInfo", without(parsed(info), "DeviceInfo.firmwareVersion"),
       "covertDevinfoRsp fail 7."},
      {"/KAVRO/System/deviceInfo", without(parsed(info), "DeviceInfo.deviceType"),
       "covertDevinfoRsp fail 9."},
      {"/KAVRO/System/Video/inputs/channels", "{}", "covertVideoChannelRsp fail 1."},
      {"/KAVRO/System/Video/inputs/channels", R"({"VideoInputChannelList":{}})",
       "covertVideoChannelRsp fail 2 and return null list.", WLOG_WARN},
      {"/KAVRO/System/Video/inputs/channels", R"({"VideoInputChannelList":[7]})",
       "covertVideoChannelRsp fail 3."},
      {"/KAVRO/System/Video/inputs/channels",
       R"({"VideoInputChannelList":[{"VideoInputChannel":{}}]})", "covertVideoChannelRsp fail 4."},
      {"/KAVRO/System/Video/inputs/channels",
       R"({"VideoInputChannelList":[{"VideoInputChannel":{"id":"1"}}]})",
       "covertVideoChannelRsp fail 5."},
  };
  for (const auto& [url, reply, line, level] : cases) {
    fake::reset();
    EXPECT_EQ(answerTo({0, url}, reply).has_value(), level == WLOG_WARN) << reply;
    EXPECT_TRUE(fake::logged(level, line)) << line;
  }
}

TEST_F(OddRules, AccessPorts) {
  const fake::Headers host = {{"Host", "gateway:9002"}};
  const struct {
    int mode;
    bool mapping;
    fake::Headers headers;
    const char* ports;
  } cases[] = {
      {1, false, host, "8080 554 443 "},   {1, true, host, "18080 10554 10443 "},
      {2, false, host, "9002 9554 "},      {2, true, {{"Host", "g:9003"}}, "0 0 "},
      {2, false, {{"Host", "g"}}, "0 0 "}, {3, false, host, "0 0 "},
  };
  for (const auto& [mode, mapping, headers, ports] : cases) {
    fake::reset();
    fake::Config& config = fake::config();
    config.mode = mode;
    config.portMapping = mapping;
    config.extHttpPort = 18080;
    config.extHttpsPort = 10443;
    config.extRtspPort = 10554;
    config.httpsEnabled = true;
    config.ports = {{"8", 9001, 1}, {"1", 9002, 9554}, {"9", 9002, 2}};
    const auto answer = answerTo({0, "/KAVRO/Security/adminAccesses", "", headers}, R"({"any":1})");
    ASSERT_TRUE(answer);
    std::string found;
    for (auto at = answer->find("<portNo>"); at != std::string::npos;
         at = answer->find("<portNo>", at + 1)) {
      found += answer->substr(at + 8, answer->find('<', at + 1) - at - 8) + " ";
    }
    EXPECT_EQ(found, ports);
    EXPECT_EQ(answer->find("<enabled>false"), std::string::npos);
  }
  const Outcome outcome = get("/KAVRO/Security/adminAccesses");
  fake::config().present = false;
  fake::deviceBus().reply("{}");
  EXPECT_EQ(outcome.answer().status, 500);
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "get networkCfg ptr error."));
}

TEST_F(OddRules, PtzRequests) {
  const struct {
    const char* resource;
    const char* body;
    const char* expected;
  } cases[] = {
      {"continuous", "<PTZData/>", R"({"PTZData":{}})"},
      {"continuous", "<PTZData><zoom> -3 </zoom><pan>fast</pan></PTZData>",
       R"({"PTZData":{"pan":0,"zoom":-3}})"},
      {"presets/1", "<PTZPreset/>", R"({"PTZPreset":{}})"},
      {"presets/1", "<PTZPreset><enabled>yes</enabled></PTZPreset>",
       R"({"PTZPreset":{"enabled":true}})"},
      {"presets/1", "<PTZPreset><enabled/></PTZPreset>", R"({"PTZPreset":{"enabled":true}})"},
      {"presets/1", "<PTZPreset><presetName> n </presetName><id>05</id></PTZPreset>",
       R"({"PTZPreset":{"id":"05","presetName":" n "}})"},
  };
  for (const auto& [resource, body, expected] : cases) {
    const auto request =
        requestFor({1, std::string("/KAVRO/PTZCtrl/channels/1/") + resource, body});
    ASSERT_TRUE(request) << body;
    EXPECT_EQ(parsed(*request), parsed(expected)) << *request;
  }
  EXPECT_EQ(requestFor({3, "/KAVRO/PTZCtrl/channels/1/presets/1", "<PTZPreset/>"}), "");
}

TEST_F(OddRules, SearchRequest) {
  constexpr const char* kTiming =
      R"([{"metadataDescriptor":"urn:kavro:metadata:recordType/timing"}])";
  const std::string defaults = R"("trackIDList":[{"trackID":101}],"searchResultPostion":0,)"
                               R"("metadataList":)" +
                               std::string(kTiming);
  const struct {
    const char* content;
    std::string expected;
  } cases[] = {
      {"", defaults},
      {"<trackIDList/><timeSpanList/><contentTypeList/><metadataList/>", defaults},
      {"<timeSpanList><timeSpan/></timeSpanList>", defaults},
      {"<trackIDList><trackID>7</trackID></trackIDList><searchID>s</searchID>",
       R"("searchID":"s",)" + defaults},
      {"<maxResults>9</maxResults><searchID>s</searchID>",
       R"("searchID":"s","maxResults":9,)" + defaults},
      {"<searchID>s</searchID><searchResultPostion>4</searchResultPostion><timeSpanList><timeSpan>"
       "<endTime>e</endTime></timeSpan></timeSpanList><maxResults>x</maxResults>",
       R"("searchID":"s","maxResults":0,"timeSpanList":[{"timeSpan":{"endTime":"e"}}],)" +
           defaults},  // the position stands before what is looked for first
  };
  for (const auto& [content, expected] : cases) {
    const auto request =
        requestFor({2, "/KAVRO/ContentMgmt/search/",
                    "<CMSearchDescription>" + std::string(content) + "</CMSearchDescription>"});
    ASSERT_TRUE(request) << content;
    EXPECT_EQ(parsed(*request)["CMSearchDescription"], parsed("{" + expected + "}")) << *request;
  }
  EXPECT_EQ(requestFor({2, "/KAVRO/ContentMgmt/search", "<Other/>"}), "null\n");
}

TEST_F(OddRules, SearchKeywordIsTheDevicesRtspPort) {
  const struct {
    int mode;
    std::vector<CKAVROPort> ports;
    const char* keyword;
  } cases[] = {
      {1, {{"1", 9001, 9554}}, nullptr},
      {2, {}, nullptr},
      {2, {{"11", 9001, 1}, {"1", 9002, 9554}, {"1", 9003, 2}}, "9554"},
  };
  for (const auto& [mode, ports, keyword] : cases) {
    fake::config().mode = mode;
    fake::config().ports = ports;
    const auto request = requestFor({2, "/KAVRO/ContentMgmt/search", "<CMSearchDescription/>"});
    ASSERT_TRUE(request);
    const Json::Value types = parsed(*request)["CMSearchDescription"]["searchTypeList"];
    EXPECT_EQ(types.isNull(), keyword == nullptr);
    if (keyword != nullptr) {
      EXPECT_EQ(types[0]["searchKeyword"], keyword);
    }
  }
}

TEST_F(OddRules, SearchResultReadsWhateverItGets) {
  const std::string empty =
      "<searchID/><responseStatus>false</responseStatus>"
      "<responseStatusStrg/><numOfMatches>0</numOfMatches>";
  const std::string bare = "<sourceID>0000000000-0000-0000-0000-000000000000</sourceID>";
  const std::string manual =
      "<metadataMatches><metadataDescriptor>"
      "urn:kavro:metadata:recordType/Manual"
      "</metadataDescriptor></metadataMatches>";
  const struct {
    const char* result;  // the value of "CMSearchResult"; null: absent
    std::string expected;
  } cases[] = {
      {nullptr, empty + "<matchList/>"},
      {"7", empty + "<matchList/>"},
      {R"({"matchList":{},"searchID":7,"responseStatus":"true","numOfMatches":"3"})",
       "<searchID>7</searchID><responseStatus>false</responseStatus>"
       "<responseStatusStrg/><numOfMatches>0</numOfMatches><matchList/>"},
      {R"({"matchList":[7]})",
       empty + "<matchList><searchMatchItem>" + bare + manual + "</searchMatchItem></matchList>"},
      {R"({"matchList":[{"searchMatchItem":{"sourceID":8,"trackID":"x","timeSpan":{"startTime":1},
          "mediaSegmentDescriptor":{"contenType":5},"metadataMatches":{"metadataDescriptor":""}}}]})",
       empty + "<matchList><searchMatchItem><sourceID>8</sourceID><trackID>0</trackID>"
               "<mediaSegmentDescriptor><contentType>video</contentType>"
               "<codecType>H.264-BP</codecType></mediaSegmentDescriptor><metadataMatches>"
               "<metadataDescriptor/></metadataMatches></searchMatchItem></matchList>"},
      {R"({"matchList":[{"searchMatchItem":{"sourceID":null,
          "mediaSegmentDescriptor":{"playbackURI":"rtsp://h/p?q"}}}]})",
       empty + "<matchList><searchMatchItem>" + bare +
           "<mediaSegmentDescriptor><contentType>video</contentType>"
           "<codecType>H.264-BP</codecType><playbackURI/></mediaSegmentDescriptor>" +
           manual + "</searchMatchItem></matchList>"},
  };
  for (const auto& [result, expected] : cases) {
    const auto answer =
        answerTo({2, "/KAVRO/ContentMgmt/search", "<CMSearchDescription/>"},
                 result == nullptr ? "{}" : R"({"CMSearchResult":)" + std::string(result) + "}");
    EXPECT_EQ(answer, kDeclaration + ("<CMSearchResult>" + expected + "</CMSearchResult>"));
  }
}

TEST(PlaybackUri, Rewriting) {
  const std::string id(36, 'i');
  const struct {
    std::string uri;
    int result;
    std::string out;
  } cases[] = {
      {"rtsp://h/x/dac/y/camera/" + id + "12/SUB/z?starttime=A&endtime=B", 1,
       "rtsp://h/x/KAVRO/Streaming/tracks/1202?starttime=A&endtime=B"},
      {"rtsp://h/dac/camera/" + id + "3/MAIN/?", 1, "rtsp://h/KAVRO/Streaming/tracks/301?"},
      {"rtsp://h/dac/camera/" + id + "3/SUB1/?q", 1, "rtsp://h/KAVRO/Streaming/tracks/303?q"},
      {"rtsp://h/dac/camera/" + id + "x/MAIN/?q", 1, "rtsp://h/KAVRO/Streaming/tracks/1?q"},
      {"rtsp://h/dac/camera/" + id + "2147483647/MAIN/?q", 1,
       "rtsp://h/KAVRO/Streaming/tracks/214748364701?q"},
      {"rtsp://h/dac/camera/" + id + "/MAIN/?q", 1, "rtsp://h/dac/camera/" + id + "/MAIN/?q"},
      {"rtsp://h/dac/camera//MAIN/", 1, "rtsp://h/dac/camera//MAIN/"},
      {"rtsp://h/camera/" + id + "3/MAIN/?q", 0, "before"},
      {"", 0, "before"},
      {"rtsp://h/dac/x", 0, ""},
      {"rtsp://h/dac/camera", 0, ""},
      {"rtsp://h/dac/camera/" + id + "3", 0, ""},
      {"rtsp://h/dac/camera/" + id + "3/main/?q", 0, ""},
      {"rtsp://h/dac/camera/" + id + "3/MAIN/", 0, ""},
  };
  for (const auto& [uri, result, out] : cases) {
    std::string found = "before";
    EXPECT_EQ(getPlaybackURI(found, uri), result) << uri;
    EXPECT_EQ(found, out) << uri;
  }
}

TEST_F(OddRules, SearchMatchItems) {
  const std::string longTime(200, 't');
  const Json::Value reply = parsed(
      R"({"CMSearchResult":{"numOfMatches":9,"matchList":[7,{},{"searchMatchItem":{"trackID":5,
      "timeSpan":{"startTime":")" +
      longTime + R"(","endTime":"e"},"mediaSegmentDescriptor":
      {"contenType":"c","codecType":"d","playbackURI":"p"}}},{"searchMatchItem":7}]}})");
  int count = 0;
  std::vector<SearchMatchItem> items;
  EXPECT_EQ(getInfoFromSearchRsp(count, items, reply), 1);
  EXPECT_EQ(count, 9);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].trackID, 5);
  EXPECT_EQ(items[0].startTime, std::string(128, 't'));
  EXPECT_STREQ(items[0].endTime, "e");
  EXPECT_STREQ(items[0].contentType, "c");
  EXPECT_STREQ(items[0].codecType, "d");
  EXPECT_STREQ(items[0].playbackURI, "p");
  EXPECT_STREQ(items[1].startTime, "");
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "process json param fail 1."));
  EXPECT_TRUE(sortByBegintime(items[0], items[0]));
  EXPECT_TRUE(sortByBegintime(items[1], items[0]));
  EXPECT_FALSE(sortByBegintime(items[0], items[1]));
  for (const char* bad : {"7", "{}", R"({"CMSearchResult":{"numOfMatches":"1","matchList":[]}})",
                          R"({"CMSearchResult":{"numOfMatches":1,"matchList":{}}})"}) {
    EXPECT_EQ(getInfoFromSearchRsp(count, items, parsed(bad)), 0) << bad;
  }
  EXPECT_EQ(items.size(), 2u);
}

}  // namespace
}  // namespace QNKAVROProtocol
