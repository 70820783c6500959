#include "devcfg/device_answer.h"

#include <json/json.h>

#include "devcfg/device_cfg_pto.h"
#include "document/json_member.h"
#include "document/json_text.h"
#include "platform/base_library.h"
#include "protocol/device_reply.h"
#include "protocol/error_code.h"
#include "protocol/protocol_base.h"

namespace QNKAVROProtocol {
namespace {

// The picture's path behind "scheme://host"; null when the URL has none.
const char* picturePath(const std::string& url) {
  const std::size_t scheme = url.find("://");
  if (scheme == std::string::npos) return nullptr;
  const std::size_t path = url.find('/', scheme + 3);
  return path == std::string::npos ? nullptr : url.c_str() + path + 1;
}

// A device names pictures by its own address; clients fetch them through the gateway. True when the
// reply named one.
bool redirectPicture(Json::Value& reply) {
  const Json::Value* picture = jsonMember(reply, "PictureData");
  const Json::Value* url = picture == nullptr ? nullptr : jsonMember(*picture, "url");
  if (url == nullptr || !url->isString()) return false;
  const std::string text = url->asString();
  const char* path = picturePath(text);
  if (path == nullptr) return false;
  reply["PictureData"]["url"] = std::string("/NovGatewayStorage/") + path;
  return true;
}

void convertBody(DeviceAnswer& answer, const Json::Value& reply, const RepliedRequest& request) {
  CDeviceCfgPto dispatcher;
  int result =
      dispatcher.covertRspBody(answer.body, reply, request.url, request.method, request.exchange);
  if (result == 0) return;
  if (result == DECLINED) result = BUS_INTERNAL_FAILURE;
  const unsigned int code = CProtocolBase::getPtoErrorCode(result);
  answer.body = CProtocolBase::getResponseByError(static_cast<int>(code), request.url);
  answer.status = getHttpStatusCodeByErrorNo(code);
}

bool isJson(std::string_view text) {
  Json::Value value;
  return parseJson(text, value);
}

}  // namespace

DeviceAnswer answerOfReply(std::string_view reply, const RepliedRequest& request) {
  DeviceAnswer answer;
  answer.body = reply;
  Json::Value json;
  if (!parseJson(reply, json)) {
    answer.status = statusOfXmlReply(reply);
    return answer;
  }
  answer.status = statusOfJsonReply(json);
  if (redirectPicture(json)) answer.body = writeJson(json);
  if (answer.status == 200) convertBody(answer, json, request);
  answer.isXml = answer.body != reply && !isJson(answer.body);
  return answer;
}

}  // namespace QNKAVROProtocol
