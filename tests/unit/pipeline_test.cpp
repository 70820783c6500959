// The pipeline to a sub-device: what goes out, what comes back, and every way to fail.
#include <tuple>

#include "devcfg/dev_cfg_base.h"
#include "platform/base_library.h"
#include "platform/wlog.h"
#include "protocol/error_code.h"
#include "tests/unit/conversation.h"

namespace QNKAVROProtocol {
namespace {

constexpr const char* kUrl = "/KAVRO/Image/channels/1/capabilities";

class Pipeline : public PlatformTest {};

TEST_F(Pipeline, RequestGoesOutAndIsAnsweredByTheReply) {
  const Outcome outcome = get(kUrl);
  EXPECT_EQ(outcome.status, 200);
  EXPECT_EQ(outcome.body, "");
  EXPECT_EQ(outcome.asyncReply, 1);
  EXPECT_EQ(outcome.answer().count, 0);

  ASSERT_EQ(fake::deviceBus().seen.size(), 1u);
  const fake::BusRequest& sent = fake::deviceBus().seen[0];
  EXPECT_EQ(sent.method, 0);
  EXPECT_EQ(sent.url, "/KAVRO/Streaming/channels/101?format=json&devIndex=1");
  EXPECT_EQ(sent.body, "");
  EXPECT_EQ(sent.timeoutMs, 10000);
  EXPECT_TRUE(fake::loggedIn("procProtocol", WLOG_INFO,
                             "[url=" + sent.url + ",handle=" + std::to_string(outcome.handle) +
                                 "]QN_DeviceCfgBus_ProcessAsyn start"));

  EXPECT_EQ(fake::deviceBus().reply("{}"), 0);
  EXPECT_EQ(outcome.answer().count, 1);
  EXPECT_TRUE(fake::loggedIn("deviceCfgCallBack", WLOG_INFO, "response data [rsp = {}]"));
}

TEST_F(Pipeline, ReplyInsideTheBusCallAnswersOnce) {
  fake::deviceBus().replyInside = "{}";
  const Outcome outcome = get(kUrl);
  EXPECT_EQ(outcome.asyncReply, 1);
  EXPECT_EQ(outcome.answer().count, 1);
}

TEST_F(Pipeline, RefusalOfTheBusIsTheAnswer) {
  const std::pair<int, unsigned int> cases[] = {
      {DEVCFGBUS_QUEUE_FULL, 0x6000000B}, {DEVCFGBUS_UNKNOWN_DEVICE, 0x40000006}, {-1, 0x30000014}};
  for (const auto& [refusal, code] : cases) {
    fake::deviceBus().refusal = refusal;
    for (const char* url : {kUrl, "/KAVRO/System/time"}) {
      const Outcome outcome = get(url);
      EXPECT_EQ(outcome.status, getHttpStatusCodeByErrorNo(code)) << url;
      EXPECT_EQ(outcome.body, CProtocolBase::getResponseByError(static_cast<int>(code), url));
      EXPECT_EQ(outcome.asyncReply, 0) << url;
      EXPECT_EQ(outcome.answer().count, 0) << url;
    }
  }
}

// A handler whose steps do as told.
class Probe final : public CDevCfgBase {
 public:
  int conversion = 0;
  int acceptance = 1;

  int covertRspBody(std::string& /*body*/, const Json::Value& /*reply*/, const std::string& /*url*/,
                    int /*method*/, const CHttpExchange& /*exchange*/) override {
    return 0;
  }
  int covertUrlandBody(std::string& jsonUrl, std::string& jsonBody, const stHttpRes& /*request*/,
                       const std::string& /*devIndex*/) override {
    jsonUrl = "/device";
    jsonBody = "{}";
    return conversion;
  }
  int createUserData(tagDEVCFG_USERDATA& userData, std::string& jsonBody, int& timeoutMs,
                     const CHttpExchange& /*exchange*/) override {
    userData.data = new char[4];
    userData.dataLength = 4;
    jsonBody = "changed";
    timeoutMs = 7;
    return acceptance;
  }
};

Outcome probe(Probe& handler) {
  return processBy(handler, fake::http().open({QNHttpService::HTTP_PUT, kUrl}));
}

void expectError(const Outcome& outcome, unsigned int code) {
  EXPECT_EQ(outcome.status, getHttpStatusCodeByErrorNo(code));
  EXPECT_EQ(outcome.body, CProtocolBase::getResponseByError(static_cast<int>(code), kUrl));
  EXPECT_EQ(outcome.asyncReply, 0);
  EXPECT_TRUE(fake::deviceBus().seen.empty());
}

TEST_F(Pipeline, HandlersDataTimeoutAndBodyGoWithTheRequest) {
  Probe handler;
  EXPECT_EQ(probe(handler).asyncReply, 1);
  const fake::BusRequest& sent = fake::deviceBus().seen.at(0);
  EXPECT_EQ(sent.method, QNHttpService::HTTP_PUT);
  EXPECT_EQ(sent.body, "changed");
  EXPECT_EQ(sent.timeoutMs, 7);
}

TEST_F(Pipeline, WhatCannotBeMadeARequestIsAnsweredAtOnce) {
  const std::tuple<int, int, unsigned int> cases[] = {
      {-1, 1, 0x60000003}, {1, 1, 0x60000003}, {9, 1, 0x60000003}, {0, 0, 0x60000001}};
  for (const auto& [conversion, acceptance, code] : cases) {
    Probe handler;
    handler.conversion = conversion;
    handler.acceptance = acceptance;
    expectError(probe(handler), code);
  }
  EXPECT_TRUE(fake::loggedIn("procProtocol", WLOG_ERROR, "no resouce."));
  fake::reset();
  Probe handler;
  Outcome withoutMemory;
  {
    const fake::FailNothrowAllocations failure;
    withoutMemory = probe(handler);
  }
  expectError(withoutMemory, 0x60000001);
  EXPECT_TRUE(fake::loggedIn("procProtocol", WLOG_ERROR, "no resouce."));
}

// Whichever allocation fails, the request is either with the bus or the caller knows.
TEST_F(Pipeline, EveryFailedAllocationLeavesNothingInFlight) {
  bool sent = false;
  const int count = forEachFailedAllocation([&](int n, const Failing& failing) {
    fake::reset();
    const auto record = fake::http().open({QNHttpService::HTTP_GET, kUrl});
    Outcome outcome;
    const bool returned = failing([&] { outcome.take(record, QN_Protocol_HTTPProcess); });
    sent = outcome.asyncReply == 1;
    EXPECT_EQ(fake::deviceBus().pending.size(), sent ? 1u : 0u) << n;
    EXPECT_TRUE(returned || !sent);
    if (returned && !sent) expectError(outcome, 0x60000001);
  });
  EXPECT_TRUE(sent);
  EXPECT_GT(count, 5);
}

TEST_F(Pipeline, BaseServesNothing) {
  Probe handler;
  EXPECT_EQ(handler.checkUrlAndMethod(kUrl, 0), kDeclined);
}

}  // namespace
}  // namespace QNKAVROProtocol
