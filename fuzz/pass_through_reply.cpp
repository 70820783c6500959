// Any reply to a request that is passed through: the client gets it once and unchanged, as JSON if
// and only if a full reader takes it for JSON, and then with the status that it finds.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "include/QNKAVROProtocol.h"
#include "json/text.h"
#include "protocol/device_reply.h"
#include "tests/unit/fake/fake_platform.h"

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fake::reset();
  const auto record = fake::http().open({QNHttpService::HTTP_GET, "/KAVRO/Any/thing"});
  const int handle = record.exchange->getHttpHandle();
  int bodyIsXml = 0;
  int asyncReply = 0;
  std::string body;
  Require(QN_Protocol_HTTPProcess(bodyIsXml, body, asyncReply, record) == 200 && asyncReply == 1);

  const std::string_view reply(reinterpret_cast<const char*>(data), size);
  Require(fake::deviceBus().reply(reply) == 0);
  const fake::Answer answer = fake::http().answer(handle);
  Require(answer.count == 1 && answer.body == reply);
  Require(answer.status >= 200 && answer.status <= 599);
  Json::Value json;
  const bool isJson = qn::json::parseJson(reply, json);
  const char* expected = isJson ? "application/json" : "application/xml";
  Require(answer.headers.at("Content-Type") == expected);
  Require(!isJson || answer.status == QNKAVROProtocol::statusOfJsonReply(json));
  return 0;
}
