// Any reply of a device to any translated request: answered exactly once, with a body that is what
// its Content-Type says. The first byte, a letter, chooses the request; the rest is the reply.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "include/QNKAVROProtocol.h"
#include "json/text.h"
#include "tests/unit/fake/fake_platform.h"

namespace {

struct Choice {
  unsigned int method;
  const char* url;
};
constexpr Choice kRequests[] = {
    {0, "/KAVRO/System/deviceInfo"},
    {0, "/KAVRO/System/Video/inputs/channels"},
    {0, "/KAVRO/ContentMgmt/Storage/hdd"},
    {0, "/KAVRO/Security/adminAccesses"},
    {0, "/KAVRO/Image/channels/1/capabilities"},
    {0, "/KAVRO/Streaming/channels"},
    {0, "/KAVRO/Streaming/channels/101"},
    {0, "/KAVRO/Streaming/channels/101/capabilities"},
    {0, "/KAVRO/PTZCtrl/channels"},
    {0, "/KAVRO/PTZCtrl/channels/1/presets"},
    {0, "/KAVRO/Smart/capabilities"},
    {0, "/KAVRO/System/capabilities"},
    {0, "/KAVRO/System/IO"},
};

void Require(bool holds) {
  if (!holds) std::abort();
}

int Send(const Choice& choice) {
  const auto record = fake::http().open({choice.method, choice.url});
  int bodyIsXml = 0;
  int asyncReply = 0;
  std::string body;
  QN_Protocol_HTTPProcess(bodyIsXml, body, asyncReply, record);
  return record.exchange->getHttpHandle();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  fake::reset();
  const int handle = Send(kRequests[data[0] % std::size(kRequests)]);
  if (fake::deviceBus().pending.empty()) return 0;  // served by no handler
  const std::string_view reply(reinterpret_cast<const char*>(data) + 1, size - 1);
  Require(fake::deviceBus().reply(reply) == 0);

  const fake::Answer answer = fake::http().answer(handle);
  Require(answer.count == 1);
  Require(answer.status >= 200 && answer.status <= 599);
  Json::Value json;
  const bool isJson = qn::json::parseJson(answer.body, json);
  Require(answer.headers.at("Content-Type") != "application/json" || isJson);
  return 0;
}
