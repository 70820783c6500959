#include "protocol/device_reply.h"

#include <optional>

#include "platform/base_library.h"
#include "platform/xml_base.h"
#include "platform/zrt.h"
#include "protocol/error_code.h"
#include "protocol/log.h"

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

OptionalInt integerMember(const qn::json::Value& reply, std::string_view name) {
  const qn::json::Value member = reply.member(name);
  return member.isInt() ? OptionalInt(member.asInt()) : std::nullopt;
}

OptionalInt integerElement(QNBase::CXmlBase& xml, const char* name) {
  if (!xml.FindElem(name)) return std::nullopt;
  return ZRT_Atoi32(xml.GetData().c_str());
}

constexpr std::size_t kLoggedBytes = 8192;  // a line takes no more

}  // namespace

int statusOfJsonReply(const qn::json::Value& reply) {
  return statusOfCodes(integerMember(reply, "errorCode"), integerMember(reply, "statusCode"));
}

int statusOfXmlReply(std::string_view reply) {
  QNBase::CXmlBase xml;
  if (!xml.Parse(reply) || !xml.FindElem("ResponseStatus") || !xml.IntoElem()) return 200;
  const OptionalInt errorCode = integerElement(xml, "errorCode");
  return statusOfCodes(errorCode, integerElement(xml, "statusCode"));
}

void logReply(const char* callback, std::string_view reply) {
  reply = reply.substr(0, kLoggedBytes);
  const bool isText = reply.find('\0') == std::string_view::npos;
  QN_LOG_IN(callback, WLOG_INFO, "response data [rsp = %.*s]",
            isText ? static_cast<int>(reply.size()) : 0, reply.data());
}

void sendReply(QNHttpService::CHttpExchange& exchange, int status, bool isXml,
               std::string_view body) {
  exchange.setHead("Content-Type", isXml ? "application/xml" : "application/json");
  exchange.setStatus(status);
  exchange.response(body.data(), static_cast<int>(body.size()));
}

}  // namespace QNKAVROProtocol
