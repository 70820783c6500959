// See message.h.
#include "subdevice/message.h"

#include <array>

#include "subdevice/json_text.h"

namespace subdevice {
namespace {

struct StatusText {
  unsigned http;
  const char* text;
};

// Indexed by Status; there is no status 0.
constexpr std::array<StatusText, 7> kStatusTexts{{{500, ""},
                                                  {200, "OK"},
                                                  {503, "Device busy"},
                                                  {500, "Device error"},
                                                  {403, "Refused"},
                                                  {400, "Bad format"},
                                                  {400, "Bad content"}}};

}  // namespace

std::string_view Request::parameter(std::string_view name) const {
  std::string_view rest = target;
  const auto mark = rest.find('?');
  rest.remove_prefix(mark == std::string_view::npos ? rest.size() : mark + 1);
  while (!rest.empty()) {
    const std::string_view pair = rest.substr(0, rest.find('&'));
    if (pair.substr(0, pair.find('=')) == name && pair.size() > name.size())
      return pair.substr(name.size() + 1);
    rest.remove_prefix(std::min(rest.size(), pair.size() + 1));
  }
  return {};
}

Reply documentReply(const Json::Value& document) {
  Reply reply;
  reply.body = writeJson(document);
  return reply;
}

Reply okReply() { return statusReply(Status::Ok, "ok"); }

Reply statusReply(Status status, std::string_view reason) {
  const auto& row = kStatusTexts[static_cast<std::size_t>(status)];
  Json::Value document;
  document["statusCode"] = static_cast<int>(status);
  document["statusString"] = row.text;
  document["subStatusCode"] = std::string(reason);
  Reply reply = documentReply(document);
  reply.status = row.http;
  return reply;
}

Reply unknownResource() {
  Reply reply = statusReply(Status::Refused, "unknownResource");
  reply.status = 404;
  return reply;
}

}  // namespace subdevice
