// Any reply of a device and any body of a client through the converters: what comes out can be read
// again. The first byte, a letter, chooses the resource; the rest is the reply or the body.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "include/QNKAVROProtocol.h"
#include "json/text.h"
#include "platform/xml_base.h"
#include "tests/unit/fake/fake_platform.h"

namespace {

struct Resource {
  unsigned int method;
  const char* url;
  bool takesBody;  // the input is the client's body, else the device's reply
};
constexpr Resource kResources[] = {
    {0, "/KAVRO/System/deviceInfo", false},
    {0, "/KAVRO/System/Video/inputs/channels", false},
    {0, "/KAVRO/Streaming/channels/101", false},
    {0, "/KAVRO/Streaming/channels", false},
    {0, "/KAVRO/System/Audio/channels", false},
    {0, "/KAVRO/PTZCtrl/channels", false},
    {2, "/KAVRO/ContentMgmt/search", false},
    {0, "/KAVRO/Smart/capabilities", false},
    {0, "/KAVRO/System/IO", false},
    {1, "/KAVRO/Streaming/channels/101", true},
    {1, "/KAVRO/PTZCtrl/channels/1/continuous", true},
    {1, "/KAVRO/PTZCtrl/channels/1/presets/1", true},
    {2, "/KAVRO/ContentMgmt/search", true},
    {1, "/KAVRO/System/IO/outputs/1/trigger", true},
};
constexpr std::string_view kSearch = "<CMSearchDescription/>";

void Require(bool holds) {
  if (!holds) std::abort();
}

int Send(const Resource& resource, std::string_view body) {
  const auto record = fake::http().open({resource.method, resource.url, std::string(body)});
  int bodyIsXml = 0;
  int asyncReply = 0;
  std::string answer;
  QN_Protocol_HTTPProcess(bodyIsXml, answer, asyncReply, record);
  return record.exchange->getHttpHandle();
}

// One whole document; a single channel is cut at 102400 bytes, XML over 1 MiB is refused by the
// reader, and a resource that the device does not have is answered with the declaration alone.
void RequireXml(const std::string& text) {
  constexpr std::size_t kCut = 102400;
  if (text.size() >= kCut || text == R"(<?xml version="1.0" encoding="UTF-8"?>)") return;
  Require(QNBase::CXmlBase().Parse(text));
}

void CheckReply(const Resource& resource, std::string_view reply) {
  Json::Value json;
  if (!qn::json::parseJson(reply, json)) return;  // goes to the client as it is
  const int handle = Send(resource, kSearch);
  Require(fake::deviceBus().reply(reply) == 0);
  const fake::Answer answer = fake::http().answer(handle);
  Require(answer.count == 1);
  if (answer.headers.at("Content-Type") == "application/xml") RequireXml(answer.body);
}

void CheckBody(const Resource& resource, std::string_view body) {
  Send(resource, body);
  if (fake::deviceBus().seen.empty()) return;  // refused
  Json::Value json;
  Require(qn::json::parseJson(fake::deviceBus().seen.back().body, json));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  fake::reset();
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  const Resource& resource =
      kResources[static_cast<unsigned char>(data[0] - 'a') % std::size(kResources)];
  if (resource.takesBody) {
    CheckBody(resource, text);
  } else {
    CheckReply(resource, text);
  }
  return 0;
}
