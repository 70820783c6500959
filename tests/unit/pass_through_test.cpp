// What is handed to the device as it came, and what becomes of the device's answer.
#include "passthrough/device_kavro_pto.h"
#include "platform/base_library.h"
#include "platform/wlog.h"
#include "protocol/device_reply.h"
#include "tests/unit/cases.h"

namespace QNKAVROProtocol {
namespace {

constexpr const char* kUrl = "/KAVRO/System/time";

class PassThrough : public PlatformTest {};

TEST_F(PassThrough, ForwardsAsItCameWithTheDeviceAndTheResourcesTime) {
  for (const auto& [head, given, expected] : casesOf("passed_through.txt")) {
    fake::reset();
    const fake::Request request = requestOf(given);
    const auto [added, timeoutMs] = partedAt(expected, " ");
    EXPECT_EQ(process(request).asyncReply, 1) << given;
    ASSERT_EQ(fake::deviceBus().seen.size(), 1u) << given;
    const fake::BusRequest& sent = fake::deviceBus().seen[0];
    EXPECT_EQ(sent.method, request.method) << given;
    EXPECT_EQ(sent.url, request.url + added);
    EXPECT_EQ(sent.body, request.body) << given;
    EXPECT_EQ(std::to_string(sent.timeoutMs), timeoutMs) << given;
  }
}

TEST_F(PassThrough, UrlIsForwardedUpToItsLimit) {
  const std::string longest = "/KAVRO/" + std::string(2048 - 7 - 11, 'x');
  EXPECT_EQ(get(longest).asyncReply, 1);
  ASSERT_EQ(fake::deviceBus().seen.size(), 1u);
  EXPECT_EQ(fake::deviceBus().seen[0].url.size(), 2048u);

  const Outcome outcome = get(longest + "x");
  EXPECT_EQ(outcome.asyncReply, 0);
  EXPECT_EQ(fake::deviceBus().seen.size(), 1u);
  EXPECT_EQ(outcome.body, CProtocolBase::getResponseByError(0x60000001, longest + "x"));
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "param error"));
}

TEST_F(PassThrough, TextRepliesAreLoggedAndPicturesAreNot) {
  converse(kUrl, "{\"a\":1}");
  EXPECT_TRUE(fake::logged(WLOG_INFO, "response data [rsp = {\"a\":1}]"));
  converse(kUrl, std::string("secret\0picture", 14));
  EXPECT_TRUE(fake::logged(WLOG_INFO, "response data [rsp = ]"));
}

TEST_F(PassThrough, NoExchangeAndNoMemoryAreNoResources) {
  CDeviceKAVROPto handler;
  const auto refuse = [&](const stHttpRes& request, const char* url) {
    const Outcome outcome = processBy(handler, request);
    EXPECT_EQ(outcome.status, getHttpStatusCodeByErrorNo(0x60000001));
    EXPECT_EQ(outcome.body, CProtocolBase::getResponseByError(0x60000001, url));
  };
  refuse({}, "");
  const auto record = fake::http().open({QNHttpService::HTTP_GET, kUrl});
  {
    const fake::FailNothrowAllocations noMemory;
    refuse(record, kUrl);
  }
  EXPECT_TRUE(fake::deviceBus().seen.empty());
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "No resouce."));
}

// The callback with records that procProtocol would not make.
TEST_F(PassThrough, CallbackAnswersWhomItCan) {
  const auto record = fake::http().open({QNHttpService::HTTP_GET, kUrl});
  const int handle = record.exchange->getHttpHandle();
  char reply[] = "{\"statusCode\":4}";
  const int length = sizeof reply - 1;
  const auto call = [&](int httpHandle, const void* owner) {
    auto* data = new tagDEVCFG_USERDATA;
    data->httpHandle = httpHandle;
    data->owner = owner;
    return CDeviceKAVROPto::deviceKAVROCallBack(reply, length, data);
  };
  EXPECT_EQ(call(-1, &reply), 0);
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "callback data error 2"));
  EXPECT_EQ(fake::http().answer(handle).count, 0);
  EXPECT_EQ(call(handle, nullptr), 0);  // without a handler the reply is not looked at
  const fake::Answer answer = fake::http().answer(handle);
  EXPECT_EQ(answer.count, 1);
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.headers.at("Content-Type"), "application/xml");
  EXPECT_EQ(answer.body, reply);

  tagDEVCFG_USERDATA kept;
  kept.httpHandle = handle;
  EXPECT_EQ(CDeviceKAVROPto::deviceKAVROCallBack(nullptr, 1, &kept), -1);
  EXPECT_EQ(CDeviceKAVROPto::deviceKAVROCallBack(reply, -1, &kept), -1);
  EXPECT_EQ(CDeviceKAVROPto::deviceKAVROCallBack(reply, length, nullptr), -1);
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "callback data error 1"));
}

}  // namespace
}  // namespace QNKAVROProtocol
