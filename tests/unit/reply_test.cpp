// A sub-device's reply to the client's answer.
#include <memory>

#include "devcfg/dev_cfg_base.h"
#include "platform/base_library.h"
#include "platform/wlog.h"
#include "protocol/error_code.h"
#include "tests/unit/cases.h"
#include "tests/unit/golden.h"

namespace QNKAVROProtocol {
namespace {

constexpr const char* kUrl = "/KAVRO/Image/channels/1/capabilities";
constexpr const char* kXml = "application/xml";
constexpr const char* kJson = "application/json";
// What the handler of the URL answers to any good reply.
const std::string kConverted = R"(<?xml version="1.0" encoding="UTF-8"?><ImageChannel/>)";

class Reply : public PlatformTest {};

// What is translated is so only for good JSON; everything else, and all that is passed through,
// goes to the client as it is, with the status of its codes.
TEST_F(Reply, StatusContentTypeAndBody) {
  std::vector<Case> cases = casesOf("reply_status.txt");
  for (const auto& reply :
       {std::string("\0\xff\xfe", 3), std::string("\xFF\xD8\xFF\0{\"statusCode\":4}", 20),
        std::string(5000, '[') /* deeper than the reader goes */}) {
    cases.push_back({"", reply, "200 xml"});
  }
  cases.push_back({"", " \n [1]\n", "200 json"});
  for (const auto& [head, reply, expected] : cases) {
    const auto [status, type] = partedAt(expected, " ");
    for (const char* url : {kUrl, "/KAVRO/System/time"}) {
      const bool translated = url == kUrl && expected == "200 json";
      const fake::Answer answer = converse(url, reply);
      EXPECT_EQ(answer.count, 1) << reply;
      EXPECT_EQ(std::to_string(answer.status), status) << url << reply;
      EXPECT_EQ(answer.headers.at("Content-Type"), translated ? kXml : "application/" + type);
      EXPECT_EQ(answer.body, translated ? kConverted : reply) << url;
    }
  }
}

TEST_F(Reply, PictureUrlPointsToTheGatewayAtAnyStatus) {
  for (const auto& [head, reply, rewritten] : casesOf("picture_urls.txt")) {
    const fake::Answer answer = converse(kUrl, reply);
    EXPECT_EQ(answer.status, 403);
    EXPECT_EQ(answer.headers.at("Content-Type"), kJson);
    EXPECT_EQ(answer.body, rewritten.empty() ? reply : rewritten + "\n");
  }
}

TEST_F(Reply, FailedConversionIsAnInternalError) {
  const fake::Answer answer = converse("/KAVRO/System/deviceInfo", "{}");
  EXPECT_EQ(answer.status, getHttpStatusCodeByErrorNo(0x30000014));
  EXPECT_EQ(answer.headers.at("Content-Type"), kXml);
  EXPECT_EQ(answer.body, CProtocolBase::getResponseByError(0x30000014, "/KAVRO/System/deviceInfo"));
}

TEST_F(Reply, GoneClientHarmsNobody) {
  const Outcome broken = get(kUrl);
  const Outcome forgotten = get(kUrl);
  fake::http().breakLink(broken.handle);
  fake::http().forget(forgotten.handle);
  EXPECT_EQ(fake::deviceBus().reply("{}"), 0);
  EXPECT_EQ(fake::deviceBus().reply("{}"), 0);
  EXPECT_EQ(broken.answer().count, 0);
}

// The caller keeps the record exactly when the callback returns -1, and then nothing is sent.
TEST_F(Reply, RecordsOfTheCallback) {
  char text[] = "{}!";
  char* const none = nullptr;
  // Not to be looked at.
  const void* owner = reinterpret_cast<const void*>(1);
  const struct {
    bool live;
    int handle;
    const void* owner;
    char* reply;
    int length;
    int result;
    const char* line;
  } cases[] = {
      {false, 0, owner, text, 2, -1, "callback data error 1"},
      {true, 0, nullptr, text, 2, -1, "callback data error 1"},
      {true, 0, owner, none, 2, -1, "callback data error 2"},
      {true, 0, owner, text, -1, -1, "callback data error 2"},
      {true, -1, owner, text, 2, 0, "callback data error 4"},
      {true, -2, owner, text, 2, 0, "callback data error 4"},
      {true, 0, owner, text, 2, 0, ""},
  };
  for (const auto& [live, handle, of, reply, length, result, line] : cases) {
    fake::reset();
    const Outcome outcome = get(kUrl);
    auto record = std::make_unique<tagDEVCFG_USERDATA>();
    record->httpHandle = handle < 0 ? handle : outcome.handle;
    record->owner = of;
    record->data = new char[3];
    record->dataLength = 3;
    EXPECT_EQ(CDevCfgBase::deviceCfgCallBack(reply, length, live ? record.get() : nullptr), result);
    if (result == 0) static_cast<void>(record.release());
    EXPECT_TRUE(*line == '\0' || fake::loggedIn("deviceCfgCallBack", WLOG_ERROR, line)) << line;
    EXPECT_EQ(outcome.answer().body, *line == '\0' ? kConverted : "");
  }
}

// Whichever allocation fails, the client gets one answer, the right one or a 500, and nothing
// leaks.
TEST_F(Reply, EveryFailedAllocationStillAnswersOnce) {
  const std::pair<std::string, int> cases[] = {
      {with(parsed(golden("device_info.json")), "PictureData", parsed(R"({"url":"http://h/p"})")),
       200},
      {"<ResponseStatus><statusCode>4</statusCode></ResponseStatus>", 403}};
  for (const auto& [reply, status] : cases) {
    fake::Answer answer;
    const int count = forEachFailedAllocation([&](int n, const Failing& failing) {
      const Outcome outcome = get("/KAVRO/System/deviceInfo");
      failing([&] { EXPECT_EQ(fake::deviceBus().reply(reply), 0); });
      answer = outcome.answer();
      ASSERT_EQ(answer.count, 1) << n;
      EXPECT_TRUE(answer.status == status || answer.status == 500) << answer.status;
    });
    EXPECT_EQ(answer.status, status) << "when no allocation fails";
    EXPECT_GT(count, 5);
  }
}

}  // namespace
}  // namespace QNKAVROProtocol
