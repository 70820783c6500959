// See request_head.h.
#include "gateway/devicebus/request_head.h"

#include <array>
#include <charconv>

namespace qn::devicebus {
namespace {

std::string_view contentType(std::string_view body) {
  const std::size_t first = body.find_first_not_of(" \t\r\n");
  const char start = first == body.npos ? '\0' : body[first];
  if (start == '{' || start == '[') return "application/json";
  if (start == '<') return "application/xml";
  return "application/octet-stream";
}

void appendNumber(std::string& text, std::size_t number) {
  std::array<char, 20> digits;
  const auto end = std::to_chars(digits.begin(), digits.end(), number).ptr;
  text.append(digits.data(), static_cast<std::size_t>(end - digits.data()));
}

bool announcesEmptyBody(std::string_view method) {
  return method == "PUT" || method == "POST" || method == "PATCH";
}

}  // namespace

void appendTarget(std::string& text, const Device& device, const BusRequest& request) {
  text += device.config.basePath;
  text += request.url;
}

void writeRequestHead(std::string& head, const Device& device, const BusRequest& request,
                      std::string_view authorization) {
  head.assign(request.method);
  head += ' ';
  appendTarget(head, device, request);
  head += device.requestLineEnd;
  if (!authorization.empty()) {
    head += "Authorization: ";
    head += authorization;
    head += "\r\n";
  }
  if (!request.body.empty()) {
    head += "Content-Type: ";
    head += contentType(request.body);
    head += "\r\n";
  }
  if (!request.body.empty() || announcesEmptyBody(request.method)) {
    head += "Content-Length: ";
    appendNumber(head, request.body.size());
    head += "\r\n";
  }
  head += "\r\n";
}

}  // namespace qn::devicebus
