// A sub-device's reply to the client's answer.
#include <memory>
#include <tuple>

#include "devcfg/dev_cfg_base.h"
#include "platform/base_library.h"
#include "platform/wlog.h"
#include "protocol/error_code.h"
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
  const std::string open = "<ResponseStatus>", close = "</ResponseStatus>";
  const std::tuple<int, bool, std::vector<std::string>> cases[] = {
      {200, true, {"{}", " \n [1] trailing", "7", " { \"a\" : 1.50 }\n", "[{\"statusCode\":4}]"}},
      {200,
       true,
       {R"({"errorCode":1,"statusCode":1})", R"({"statusCode":1})", R"({"data":{"statusCode":4}})",
        R"({"errorCode":"4","statusCode":"4"})" /* no integers */,
        R"({"errorCode":4294967296})" /* more than 32 bits */}},
      {503, true, {R"({"errorCode":1,"statusCode":2})"}},
      {500,
       true,
       {R"({"errorCode":0,"statusCode":3})", R"({"statusCode":-1})", R"({"errorCode":-1})"}},
      {404, true, {R"({"errorCode":1073741830,"statusCode":1})"}},
      {401, true, {R"({"statusCode":4,"errorCode":1073741827})"}},
      {403,
       true,
       {R"({"statusCode":4})", R"({"statusCode":20})" /* the low four bits count */,
        R"({"statusCode":4,"errorCode":"1073741830"})"}},
      {200,
       false,
       {"<DeviceInfo/>", "<ResponseStatus/>", open + "<statusCode>what</statusCode>" + close,
        "<Other><statusCode>4</statusCode></Other>", open + "<statusCode>4</statusCode>",
        // The search runs forward: this statusCode stands before the errorCode.
        open + "<statusCode>2</statusCode><errorCode>1</errorCode>" + close}},
      {403, false, {open + "<statusCode>4</statusCode>" + close}},
      {404,
       false,
       {open + "<errorCode>1073741830</errorCode>" + close,
        open + "<errorCode>1073741830</errorCode><statusCode>2</statusCode>" + close}},
      {503, false, {open + "<errorCode>1</errorCode><statusCode>2</statusCode>" + close}},
      {200,
       false,
       {"", "not found", R"({"errorCode":1073741830)", std::string("\0\xff\xfe", 3),
        std::string(5000, '[') /* deeper than the reader goes */,
        std::string("\xFF\xD8\xFF\0{\"statusCode\":4}", 20)}},
  };
  const auto expect = [](const char* url, const std::string& reply, int status, const char* type,
                         const std::string& body) {
    const fake::Answer answer = converse(url, reply);
    EXPECT_EQ(answer.count, 1) << reply;
    EXPECT_EQ(answer.status, status) << url << reply;
    EXPECT_EQ(answer.headers.at("Content-Type"), type) << url << reply;
    EXPECT_EQ(answer.body, body) << url;
  };
  for (const auto& [status, isJson, replies] : cases) {
    for (const std::string& reply : replies) {
      const bool translated = isJson && status == 200;
      expect(kUrl, reply, status, isJson && !translated ? kJson : kXml,
             translated ? kConverted : reply);
      expect("/KAVRO/System/time", reply, status, isJson ? kJson : kXml, reply);
    }
  }
}

TEST_F(Reply, PictureUrlPointsToTheGatewayAtAnyStatus) {
  const std::pair<std::string, std::string> cases[] = {
      // rewritten: empty: unchanged

      {"scheme://10.0.0.2:80/pic/a.jpg", "/NovGatewayStorage/pic/a.jpg"},
      {"http://host/", "/NovGatewayStorage/"},
      {"x/y://h//p?q=://r/s", "/NovGatewayStorage//p?q=://r/s"},
      {"http://host", ""},
      {"/pic/a.jpg", ""},
      {"", ""},
  };
  for (const auto& [url, rewritten] : cases) {
    const std::string reply = R"({"PictureData":{"url":")" + url + R"("},"statusCode":4})";
    const fake::Answer answer = converse(kUrl, reply);
    EXPECT_EQ(answer.status, 403);
    EXPECT_EQ(answer.headers.at("Content-Type"), kJson);
    EXPECT_EQ(answer.body, rewritten.empty() ? reply
                                             : R"({"PictureData":{"url":")" + rewritten +
                                                   "\"},\"statusCode\":4}\n");
  }
  for (const char* odd :
       {R"({"PictureData":"http://h/p","statusCode":4})",
        R"({"PictureData":{"url":7},"statusCode":4})", R"({"PictureData":{},"statusCode":4})"}) {
    EXPECT_EQ(converse(kUrl, odd).body, odd);
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

// The caller keeps the record exactly when the callback returns -1.
class ReplyRecord : public PlatformTest {
 protected:
  static std::unique_ptr<tagDEVCFG_USERDATA> record(int handle, const void* owner) {
    auto made = std::make_unique<tagDEVCFG_USERDATA>();
    made->httpHandle = handle;
    made->owner = owner;
    made->data = new char[3];
    made->dataLength = 3;
    return made;
  }
  char reply_[3] = {'{', '}', '!'};
};

TEST_F(ReplyRecord, NothingIsSentOrFreedWithoutOwnerOrReply) {
  const Outcome outcome = get(kUrl);
  EXPECT_EQ(CDevCfgBase::deviceCfgCallBack(reply_, 2, nullptr), -1);
  EXPECT_TRUE(fake::loggedIn("deviceCfgCallBack", WLOG_ERROR, "callback data error 1"));
  const auto ownerless = record(outcome.handle, nullptr);
  EXPECT_EQ(CDevCfgBase::deviceCfgCallBack(reply_, 2, ownerless.get()), -1);
  const auto owned = record(outcome.handle, this);
  EXPECT_EQ(CDevCfgBase::deviceCfgCallBack(nullptr, 2, owned.get()), -1);
  EXPECT_TRUE(fake::loggedIn("deviceCfgCallBack", WLOG_ERROR, "callback data error 2"));
  EXPECT_EQ(CDevCfgBase::deviceCfgCallBack(reply_, -1, owned.get()), -1);
  EXPECT_EQ(outcome.answer().count, 0);
}

TEST_F(ReplyRecord, NegativeHandleSendsNothingAndFreesTheRecord) {
  for (const int handle : {-1, -2}) {
    EXPECT_EQ(CDevCfgBase::deviceCfgCallBack(reply_, 2, record(handle, this).release()), 0);
    EXPECT_TRUE(fake::loggedIn("deviceCfgCallBack", WLOG_ERROR, "callback data error 4"));
  }
}

TEST_F(ReplyRecord, OwnerIsNotTouched) {
  const Outcome outcome = get(kUrl);
  const void* gone = reinterpret_cast<const void*>(1);
  EXPECT_EQ(CDevCfgBase::deviceCfgCallBack(reply_, 2, record(outcome.handle, gone).release()), 0);
  EXPECT_EQ(outcome.answer().body, kConverted);
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
