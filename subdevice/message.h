// A request as the handlers see it, a reply as they give it, and the status documents that a device
// answers with when it has nothing else to say.
#pragma once

#include <json/json.h>

#include <string>
#include <string_view>

namespace subdevice {

struct Request {
  std::string method;
  std::string target;  // path and query as they were sent
  std::string path;
  std::string contentType;
  std::string authorization;
  std::string body;

  // The value of the first query parameter with this name, not decoded; empty when absent.
  std::string_view parameter(std::string_view name) const;
};

struct Reply {
  unsigned status = 200;
  std::string contentType = "application/json";
  std::string body;
  std::string challenge;  // WWW-Authenticate, when not empty
};

// The values are the "statusCode" of the document.
enum class Status { Ok = 1, Busy = 2, DeviceError = 3, Refused = 4, BadFormat = 5, BadContent = 6 };

Reply documentReply(const Json::Value& document);
Reply okReply();
// `reason` becomes the "subStatusCode".
Reply statusReply(Status status, std::string_view reason);
Reply unknownResource();

}  // namespace subdevice
