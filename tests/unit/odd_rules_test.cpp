// What the documents of maintenance, PTZ and recording do that their tables do not say at a glance.
#include <cctype>
#include <tuple>

#include "platform/wlog.h"
#include "record/record_operation.h"
#include "tests/unit/cases.h"
#include "tests/unit/golden.h"

namespace QNKAVROProtocol {
namespace {

class OddRules : public PlatformTest {};

TEST_F(OddRules, WithoutAMacAddressOneIsMade) {
  const Json::Value document = parsed(golden("device_info.json"));
  const fake::Request request{0, "/KAVRO/System/deviceInfo"};
  const std::string noMac = with(document, "DeviceInfo.macAddress", "");
  const std::string mac = inside("macAddress", answerTo(request, noMac));
  ASSERT_EQ(mac.size(), 17u);
  for (std::size_t i = 0; i < mac.size(); ++i) {
    EXPECT_TRUE(i % 3 == 2 ? mac[i] == ':' : std::isxdigit(mac[i]) != 0) << mac;
  }
  EXPECT_NE(inside("macAddress", answerTo(request, noMac)), mac);
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
    std::tie(config.mode, config.portMapping, config.httpsEnabled) =
        std::tuple(mode, mapping, true);
    std::tie(config.extHttpPort, config.extHttpsPort, config.extRtspPort) =
        std::tuple(18080, 10443, 10554);
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

TEST(PlaybackUri, Rewriting) {
  for (auto [head, uri, rewritten] : casesOf("playback_uris.txt")) {
    for (std::string* text : {&uri, &rewritten}) {
      const std::size_t at = text->find('@');
      if (at != text->npos) text->replace(at, 1, std::string(36, 'i'));
    }
    const bool isOne = rewritten.starts_with("rtsp:");
    std::string found = "(none)";
    EXPECT_EQ(CRecordOperation::getPlaybackURI(found, uri), isOne ? 1 : 0) << uri;
    EXPECT_EQ(found, rewritten) << uri;
  }
}

TEST_F(OddRules, SearchMatchItems) {
  int count = 0;
  std::vector<SearchMatchItem> items;
  const auto read = [&](const std::string& result) {
    return CRecordOperation::getInfoFromSearchRsp(count, items,
                                                  parsed(R"({"CMSearchResult":{)" + result + "}}"));
  };
  EXPECT_EQ(read(R"("numOfMatches":9,"matchList":[7,{},{"searchMatchItem":{"trackID":5,"timeSpan":
      {"startTime":")" +
                 std::string(200, 't') + R"(","endTime":"e"},"mediaSegmentDescriptor":
      {"contenType":"c","codecType":"d","playbackURI":"p"}}},{"searchMatchItem":7}])"),
            1);
  ASSERT_EQ(items.size(), 2u);
  const SearchMatchItem& item = items[0];
  EXPECT_EQ(std::tuple(count, item.trackID), std::tuple(9, 5));
  EXPECT_EQ(item.startTime, std::string(128, 't'));
  EXPECT_EQ(std::string(item.endTime) + item.contentType + item.codecType + item.playbackURI,
            "ecdp");
  EXPECT_STREQ(items[1].startTime, "");
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "process json param fail 1."));
  EXPECT_TRUE(CRecordOperation::sortByBegintime(items[0], items[0]));
  EXPECT_TRUE(CRecordOperation::sortByBegintime(items[1], items[0]));
  EXPECT_FALSE(CRecordOperation::sortByBegintime(items[0], items[1]));
  for (const char* bad :
       {"", R"("numOfMatches":"1","matchList":[])", R"("numOfMatches":1,"matchList":{})"}) {
    EXPECT_EQ(read(bad), 0) << bad;
  }
  EXPECT_EQ(items.size(), 2u);
}

}  // namespace
}  // namespace QNKAVROProtocol
