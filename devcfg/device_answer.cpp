#include "devcfg/device_answer.h"

#include <optional>

#include "json/reader.h"
#include "json/text.h"
#include "platform/base_library.h"
#include "protocol/device_reply.h"
#include "protocol/error_code.h"
#include "protocol/protocol_base.h"

namespace QNKAVROProtocol {
namespace {

using qn::json::Value;

// The picture's path behind "scheme://host"; null when the URL has none.
const char* picturePath(const std::string& url) {
  const std::size_t scheme = url.find("://");
  if (scheme == std::string::npos) return nullptr;
  const std::size_t path = url.find('/', scheme + 3);
  return path == std::string::npos ? nullptr : url.c_str() + path + 1;
}

// A device names pictures by its own address; clients fetch them through the gateway. The reply
// with the gateway's address; nothing when the reply names no picture.
std::optional<Json::Value> redirectPicture(std::string_view text, const Value& reply) {
  const std::string url(reply.member("PictureData").member("url").text());
  const char* path = picturePath(url);
  Json::Value redirected;
  if (path == nullptr || !qn::json::parseJson(text, redirected)) return std::nullopt;
  redirected["PictureData"]["url"] = std::string("/NovGatewayStorage/") + path;
  return redirected;
}

void convertBody(DeviceAnswer& answer, const Value& reply, const RepliedRequest& request) {
  int result = translateReply(answer.body, reply, request);
  if (result == 0) return;
  if (result == kDeclined) result = BUS_INTERNAL_FAILURE;
  const unsigned int code = CProtocolBase::getPtoErrorCode(result);
  answer.body = CProtocolBase::getResponseByError(static_cast<int>(code), request.url);
  answer.status = getHttpStatusCodeByErrorNo(code);
}

}  // namespace

DeviceAnswer answerOfReply(std::string_view reply, const RepliedRequest& request) {
  DeviceAnswer answer;
  answer.body = reply;
  const qn::json::Reading reading(reply);
  if (!reading.isJson()) {
    answer.status = statusOfXmlReply(reply);
    return answer;
  }
  answer.status = statusOfJsonReply(reading.root());
  const auto redirected = redirectPicture(reply, reading.root());
  if (redirected) answer.body = qn::json::writeJson(*redirected);
  if (answer.status == 200) {
    convertBody(answer, redirected ? Value(*redirected) : reading.root(), request);
  }
  answer.isXml = answer.body != reply && !qn::json::Reading(answer.body).isJson();
  return answer;
}

}  // namespace QNKAVROProtocol
