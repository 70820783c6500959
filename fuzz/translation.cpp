// Any reply of a device to any request, answered exactly once with what its Content-Type says, and
// any body of a client: what comes out can be read again, and tables write as the libraries would.
// The first byte, a letter, chooses the resource; the rest is the reply or the body.
#include "fuzz/require.h"
#include "include/QNKAVROProtocol.h"
#include "json/text.h"
#include "platform/xml_base.h"
#include "protocol/device_reply.h"
#include "tests/unit/documents.h"
#include "tests/unit/fake/fake_platform.h"

namespace {

// Without a pair: fixed, made of another document, or passed through as they are.
constexpr const char* kOthers[] = {
    "/KAVRO/Streaming/channels",
    "/KAVRO/ContentMgmt/Storage/hdd",
    "/KAVRO/Image/channels/1/capabilities",
    "/KAVRO/Streaming/channels/101/capabilities",
    "/KAVRO/PTZCtrl/channels/1/presets",
    "/KAVRO/System/capabilities",
    "/KAVRO/Any/thing",
};
constexpr std::size_t kReplies = std::size(kGoldenReplies);
constexpr std::size_t kRequests = std::size(kGoldenRequests);

// The one document with a line break in it that no table has written.
constexpr const char* kChannelStart = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n";

int Send(unsigned int method, const char* url, std::string_view body) {
  const auto record = fake::http().open({method, url, std::string(body)});
  int bodyIsXml = 0;
  int asyncReply = 0;
  std::string answer;
  QN_Protocol_HTTPProcess(bodyIsXml, answer, asyncReply, record);
  return record.exchange->getHttpHandle();
}

fake::Answer AnswerTo(const GoldenPair& resource, std::string_view reply) {
  const int handle = Send(resource.method, resource.url, bodyFor(resource));
  Require(fake::deviceBus().reply(reply) == 0);
  const fake::Answer answer = fake::http().answer(handle);
  Require(answer.count == 1 && answer.status >= 200 && answer.status <= 599);
  return answer;
}

// XML is one whole document when the reply was JSON; a single channel is cut at 102400 bytes, and a
// resource that the device does not have is answered with the declaration alone.
void CheckReply(const GoldenPair& resource, std::string_view reply) {
  const fake::Answer answer = AnswerTo(resource, reply);
  Json::Value json;
  const bool jsonReply = qn::json::parseJson(reply, json);
  if (answer.headers.at("Content-Type") == "application/json") {
    Require(qn::json::parseJson(answer.body, json));
  } else if (jsonReply && answer.body.size() < 102400 &&
             answer.body != R"(<?xml version="1.0" encoding="UTF-8"?>)") {
    QNBase::CXmlBase xml;
    Require(xml.Parse(answer.body));
    const bool byTable = resource.xml != nullptr && !answer.body.starts_with(kChannelStart);
    Require(!byTable || xml.GetChildren() == answer.body);
  }
}

// JSON if and only if a full reader takes it for JSON, and then with the status that it finds.
void CheckPassedThrough(const GoldenPair& resource, std::string_view reply) {
  const fake::Answer answer = AnswerTo(resource, reply);
  Json::Value json;
  const bool isJson = qn::json::parseJson(reply, json);
  Require(answer.body == reply);
  Require((answer.headers.at("Content-Type") == "application/json") == isJson);
  Require(!isJson || answer.status == QNKAVROProtocol::statusOfJsonReply(json));
}

void CheckBody(const GoldenPair& resource, std::string_view body) {
  Send(resource.method, resource.url, body);
  if (fake::deviceBus().seen.empty()) return;  // refused
  Json::Value json;
  const std::string& made = fake::deviceBus().seen.back().body;
  Require(qn::json::parseJson(made, json));
  Require(made.empty() || qn::json::writeJson(json) == made);
}

}  // namespace

void fuzz(std::string_view input) {
  if (input.empty()) return;
  fake::reset();
  const std::string_view text = input.substr(1);
  const std::size_t chosen =
      static_cast<unsigned char>(input[0] - 'a') % (kReplies + kRequests + std::size(kOthers));
  if (chosen < kReplies) {
    CheckReply(kGoldenReplies[chosen], text);
  } else if (chosen < kReplies + kRequests) {
    CheckBody(kGoldenRequests[chosen - kReplies], text);
  } else {
    const char* url = kOthers[chosen - kReplies - kRequests];
    const GoldenPair resource{0, url, nullptr, nullptr};
    CheckReply(resource, text);
    if (chosen + 1 == kReplies + kRequests + std::size(kOthers)) CheckPassedThrough(resource, text);
  }
}
