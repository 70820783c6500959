// Each document in each direction against a pair written by hand.
#include "tests/unit/golden.h"

namespace QNKAVROProtocol {
namespace {

class Golden : public PlatformTest {};

TEST_F(Golden, Replies) {
  for (const GoldenPair& pair : kGoldenReplies) {
    const auto body = answerTo({pair.method, pair.url, bodyFor(pair)}, golden(pair.json));
    ASSERT_TRUE(body) << pair.json;
    EXPECT_EQ(flat(*body), flat(golden(pair.xml))) << pair.xml;
  }
}

TEST_F(Golden, Requests) {
  for (const GoldenPair& pair : kGoldenRequests) {
    const auto request = requestFor({pair.method, pair.url, golden(pair.xml)});
    ASSERT_TRUE(request) << pair.xml;
    EXPECT_EQ(parsed(*request), parsed(golden(pair.json))) << *request;
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
  const auto expectDone = [](const fake::Request& request) {
    EXPECT_EQ(
        answerTo(request, R"({"result":"failed"})"),
        R"(<?xml version="1.0" encoding="UTF-8"?><ResponseStatus version="2.0"><requestURL>)" +
            request.url +
            "</requestURL><statusCode>1</statusCode><statusString>OK</statusString>"
            "<subStatusCode>ok</subStatusCode></ResponseStatus>");
  };
  for (const GoldenPair& pair : kGoldenRequests) {
    if (pair.method == QNHttpService::HTTP_PUT) expectDone({1, pair.url, golden(pair.xml)});
  }
  expectDone({1, "/KAVRO/PTZCtrl/channels/1/presets/2/goto"});
  expectDone({3, "/KAVRO/PTZCtrl/channels/1/presets/2"});
  expectDone({1, "/KAVRO/PTZCtrl/channels/1/homeposition/goto"});
}

}  // namespace
}  // namespace QNKAVROProtocol
