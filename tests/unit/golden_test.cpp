// Each document in each direction against a pair written by hand.
#include "tests/unit/golden.h"

#include "platform/wlog.h"
#include "tests/unit/cases.h"

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

// "file - path" and "file path = value" are the file with a member changed.
std::string replyOf(const std::string& given) {
  std::string file, path, mark, value;
  std::istringstream words(given);
  words >> file >> path >> mark >> value;
  if (!file.ends_with(".json")) return given;
  const Json::Value document = parsed(golden(file));
  return path == "-" ? without(document, mark) : with(document, path, parsed(value));
}

// Defaults, ranges, orders and what is logged: what the tables do not say at a glance.
TEST_F(Golden, OddReplies) {
  for (const auto& [head, given, expected] : casesOf("replies.txt")) {
    fake::reset();
    const auto answer = answerTo(requestOf(head), replyOf(given));
    const auto [outcome, line] = partedAt(expected, "|");
    if (outcome.empty() || outcome[0] == '<' || outcome == kFails) {
      EXPECT_EQ(answer.value_or(kFails), (answer ? kDeclaration : "") + outcome) << given;
    } else {
      const auto [element, content] = partedAt(outcome, ":");
      EXPECT_EQ(inside(element.c_str(), answer), content) << given;
    }
    const int level = answer ? WLOG_WARN : WLOG_ERROR;
    EXPECT_TRUE(line.empty() || fake::loggedIn(partedAt(line, " ").first, level, line)) << line;
  }
}

TEST_F(Golden, OddRequests) {
  for (const auto& [head, given, expected] : casesOf("requests.txt")) {
    fake::reset();
    fake::Request request = requestOf(head);
    request.body = given;
    const std::string sent = requestFor(request).value_or(kFails);
    const auto [outcome, line] = partedAt(expected, "|");
    if (outcome == kFails || outcome.empty()) {
      EXPECT_EQ(sent, outcome) << head << given;
    } else {
      EXPECT_EQ(parsed(sent), parsed(outcome)) << given;
    }
    EXPECT_TRUE(fake::logged(WLOG_ERROR, line) || line.empty()) << line;
  }
}

TEST_F(Golden, ListOfDisksToTheByte) {
  EXPECT_EQ(answerTo({0, "/KAVRO/ContentMgmt/Storage/hdd"}, "{}").value_or("") + "\n",
            golden("hdd_list.xml"));
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
