#include "protocol/device_reply.h"

#include <optional>

#include "document/json_member.h"
#include "platform/base_library.h"
#include "platform/xml_base.h"
#include "platform/zrt.h"
#include "protocol/error_code.h"
#include "protocol/plain_json.h"

namespace QNKAVROProtocol {
namespace {

using OptionalInt = std::optional<int>;

int statusOfCodes(OptionalInt errorCode, OptionalInt statusCode) {
  int status = 200;
  if (errorCode) status = getHttpStatusCodeByErrorNo(static_cast<unsigned int>(*errorCode));
  if (status == 200 && statusCode) {
    status = getHttpStatusCodeByErrorNo(errorCodeOfDeviceStatus(*statusCode));
  }
  return status;
}

OptionalInt integerMember(const Json::Value& reply, const char* name) {
  const Json::Value* member = jsonMember(reply, name);
  return member != nullptr && member->isInt() ? OptionalInt(member->asInt()) : std::nullopt;
}

OptionalInt integerElement(QNBase::CXmlBase& xml, const char* name) {
  if (!xml.FindElem(name)) return std::nullopt;
  return ZRT_Atoi32(xml.GetData().c_str());
}

}  // namespace

int statusOfJsonReply(const Json::Value& reply) {
  return statusOfCodes(integerMember(reply, "errorCode"), integerMember(reply, "statusCode"));
}

std::optional<int> statusOfPlainJson(std::string_view reply) {
  const auto codes = codesOfPlainJson(reply);
  if (!codes) return std::nullopt;
  return statusOfCodes(codes->errorCode, codes->statusCode);
}

int statusOfXmlReply(std::string_view reply) {
  QNBase::CXmlBase xml;
  if (!xml.Parse(reply) || !xml.FindElem("ResponseStatus") || !xml.IntoElem()) return 200;
  const OptionalInt errorCode = integerElement(xml, "errorCode");
  return statusOfCodes(errorCode, integerElement(xml, "statusCode"));
}

}  // namespace QNKAVROProtocol
