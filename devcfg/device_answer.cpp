#include "devcfg/device_answer.h"

#include <json/json.h>

#include <optional>

#include "devcfg/device_cfg_pto.h"
#include "document/json_text.h"
#include "platform/base_library.h"
#include "platform/xml_base.h"
#include "platform/zrt.h"
#include "protocol/error_code.h"
#include "protocol/protocol_base.h"

namespace QNKAVROProtocol {
namespace {

using OptionalInt = std::optional<int>;

int statusOfDeviceStatus(int statusCode) {
  return getHttpStatusCodeByErrorNo(errorCodeOfDeviceStatus(statusCode));
}

// "errorCode" decides; "statusCode" counts when there is none or when it stands for success.
int statusOfCodes(OptionalInt errorCode, OptionalInt statusCode) {
  int status = 200;
  if (errorCode) status = getHttpStatusCodeByErrorNo(static_cast<unsigned int>(*errorCode));
  if (status == 200 && statusCode) status = statusOfDeviceStatus(*statusCode);
  return status;
}

const Json::Value& memberOf(const Json::Value& value, const char* name) {
  return value.isObject() ? value[name] : Json::Value::nullSingleton();
}

OptionalInt integerMember(const Json::Value& reply, const char* name) {
  const Json::Value& member = memberOf(reply, name);
  return member.isInt() ? OptionalInt(member.asInt()) : std::nullopt;
}

int statusOfJson(const Json::Value& reply) {
  return statusOfCodes(integerMember(reply, "errorCode"), integerMember(reply, "statusCode"));
}

OptionalInt integerElement(QNBase::CXmlBase& xml, const char* name) {
  if (!xml.FindElem(name)) return std::nullopt;
  return ZRT_Atoi32(xml.GetData().c_str());
}

// The search runs forward, so a "statusCode" before the "errorCode" is not seen.
int statusOfXml(std::string_view reply) {
  QNBase::CXmlBase xml;
  if (!xml.Parse(reply) || !xml.FindElem("ResponseStatus") || !xml.IntoElem()) return 200;
  const OptionalInt errorCode = integerElement(xml, "errorCode");
  return statusOfCodes(errorCode, integerElement(xml, "statusCode"));
}

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
  const Json::Value& url = memberOf(memberOf(reply, "PictureData"), "url");
  if (!url.isString()) return false;
  const std::string text = url.asString();
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
    answer.status = statusOfXml(reply);
    return answer;
  }
  answer.status = statusOfJson(json);
  if (redirectPicture(json)) answer.body = writeJson(json);
  if (answer.status == 200) convertBody(answer, json, request);
  answer.isXml = answer.body != reply && !isJson(answer.body);
  return answer;
}

}  // namespace QNKAVROProtocol
