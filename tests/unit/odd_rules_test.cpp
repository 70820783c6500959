// What the documents of maintenance, PTZ and recording do that their tables do not say at a glance.
#include <cctype>
#include <tuple>

#include "platform/wlog.h"
#include "record/record_operation.h"
#include "tests/unit/golden.h"

namespace QNKAVROProtocol {
namespace {

class OddRules : public PlatformTest {};

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
  constexpr const char* kInfo = "/KAVRO/System/deviceInfo";
  constexpr const char* kInputs = "/KAVRO/System/Video/inputs/channels";
  const auto expectLine = [](const char* url, const std::string& reply, const std::string& line,
                             int level = WLOG_ERROR) {
    fake::reset();
    EXPECT_EQ(answerTo({0, url}, reply).has_value(), level == WLOG_WARN) << reply;
    EXPECT_TRUE(fake::loggedIn(line.substr(0, line.find(' ')), level, line)) << line;
  };
  expectLine(kInfo, "{}", "covertDevinfoRsp fail 1.");
  expectLine(kInfo, R"({"DeviceInfo":[]})", "covertDevinfoRsp fail 2.");
  const Json::Value info = parsed(golden("device_info.json"));
  for (const auto& [number, member] : {std::pair{2, "deviceName"},
                                       {3, "deviceID"},
                                       {5, "serialNumber"},
                                       {6, "macAddress"},
                                       {7, "firmwareVersion"},
                                       {9, "deviceType"}}) {
    expectLine(kInfo, without(info, std::string("DeviceInfo.") + member),
               "covertDevinfoRsp fail " + std::to_string(number) + ".");
  }
  expectLine(kInputs, "{}", "covertVideoChannelRsp fail 1.");
  expectLine(kInputs, R"({"VideoInputChannelList":{}})",
             "covertVideoChannelRsp fail 2 and return null list.", WLOG_WARN);
  for (const auto& [number, entry] : {std::pair{3, "7"},
                                      {4, R"({"VideoInputChannel":{}})"},
                                      {5, R"({"VideoInputChannel":{"id":"1"}})"}}) {
    expectLine(kInputs, R"({"VideoInputChannelList":[)" + std::string(entry) + "]}",
               "covertVideoChannelRsp fail " + std::to_string(number) + ".");
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
    EXPECT_EQ(allInside("portNo", *answer), ports);
    EXPECT_EQ(answer->find("<enabled>false"), std::string::npos);
  }
  const Outcome outcome = get("/KAVRO/Security/adminAccesses");
  fake::config().present = false;
  fake::deviceBus().reply("{}");
  EXPECT_EQ(outcome.answer().status, 500);
  EXPECT_TRUE(fake::loggedIn("covertAdminAccessesRsp", WLOG_ERROR, "get networkCfg ptr error."));
}

TEST_F(OddRules, PtzRequests) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
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
  const std::pair<const char*, std::string> cases[] = {
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
  const std::tuple<int, std::vector<CKAVROPort>, const char*> cases[] = {
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
  // The value of "CMSearchResult", null for none.
  const std::pair<const char*, std::string> cases[] = {
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
  const std::tuple<std::string, int, std::string> cases[] = {
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
      {"rtsp://camera7.lan/dac/camera/" + id + "3/MAIN/?q", 1,
       "rtsp://camera7.lan/KAVRO/Streaming/tracks/301?q"},
      {"", 0, "before"},
      {"rtsp://h/dac/x", 0, ""},
      {"rtsp://h/dac/camera", 0, ""},
      {"rtsp://h/dac/camera/" + id + "3", 0, ""},
      {"rtsp://h/dac/camera/" + id + "3/main/?q", 0, ""},
      {"rtsp://h/dac/camera/" + id + "3/MAIN/", 0, ""},
  };
  for (const auto& [uri, result, out] : cases) {
    std::string found = "before";
    EXPECT_EQ(CRecordOperation::getPlaybackURI(found, uri), result) << uri;
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
  EXPECT_EQ(CRecordOperation::getInfoFromSearchRsp(count, items, reply), 1);
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
  EXPECT_TRUE(CRecordOperation::sortByBegintime(items[0], items[0]));
  EXPECT_TRUE(CRecordOperation::sortByBegintime(items[1], items[0]));
  EXPECT_FALSE(CRecordOperation::sortByBegintime(items[0], items[1]));
  for (const char* bad : {"7", "{}", R"({"CMSearchResult":{"numOfMatches":"1","matchList":[]}})",
                          R"({"CMSearchResult":{"numOfMatches":1,"matchList":{}}})"}) {
    EXPECT_EQ(CRecordOperation::getInfoFromSearchRsp(count, items, parsed(bad)), 0) << bad;
  }
  EXPECT_EQ(items.size(), 2u);
}

}  // namespace
}  // namespace QNKAVROProtocol
