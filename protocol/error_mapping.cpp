// Error codes to status documents, and the buses' small result codes to error codes.
#include <algorithm>

#include "json/text.h"
#include "platform/base_library.h"
#include "protocol/error_code.h"
#include "protocol/log.h"
#include "protocol/protocol_base.h"
#include "protocol/status_document.h"

namespace QNKAVROProtocol {
namespace {

// The longest document that getXMLString gives.
constexpr int kXmlTextMax = 20960;

struct BusCodeRow {
  int busCode;
  unsigned int errorCode;
};

// Ascending bus codes; any other gives ERROR_INTERNAL.
constexpr BusCodeRow kBusCodes[] = {
    {0, ERROR_OK},
    {BUS_PARAMETER, ERROR_NO_RESOURCES},
    {2, 0x40001007},
    {3, 0x400010EA},
    {4, ERROR_NO_RESOURCES},
    {5, 0x4000108D},
    {6, 0x40001054},
    {7, ERROR_NO_RESOURCES},
    {BUS_NO_RESOURCES, ERROR_NO_RESOURCES},
    {BUS_INTERNAL_FAILURE, ERROR_INTERNAL},
    {BUS_TOO_MANY_STREAMS, ERROR_TOO_MANY_STREAMS},
    {256, 0x6000005F},
    {257, ERROR_BUS_STOPPING},
    {258, 0x400010E7},
    {259, 0x400010E8},
    {260, ERROR_DEVICE_BUSY},
    {261, ERROR_NO_RESOURCES},
    {262, ERROR_NO_RESOURCES},
    {263, 0x40000008},
    {264, ERROR_NO_RESOURCES},
    {265, ERROR_NO_RESOURCES},
    {272, ERROR_NO_RESOURCES},
    {273, 0x40001187},
    {274, ERROR_RESOURCE_NOT_FOUND},
    {275, 0x6000000F},
    {512, ERROR_NO_RESOURCES},
    {513, ERROR_NO_RESOURCES},
    {514, 0x40001014},
    {515, ERROR_RESOURCE_NOT_FOUND},
    {516, ERROR_DEVICE_NOT_ALLOWED},
    {517, 0x40001014},
    {518, 0x40001014},
};
static_assert(std::ranges::adjacent_find(kBusCodes, std::ranges::greater_equal{},
                                         &BusCodeRow::busCode) == std::ranges::end(kBusCodes),
              "ascending, each bus code once");

bool isStatusDocument(const Json::Value& document) {
  return document.isObject() && document["statusCode"].isInt() &&
         document["statusString"].isString() && document["subStatusCode"].isString();
}

}  // namespace

unsigned int CProtocolBase::getPtoErrorCode(int busCode) {
  const auto* row = std::ranges::lower_bound(kBusCodes, busCode, {}, &BusCodeRow::busCode);
  const bool found = row != std::ranges::end(kBusCodes) && row->busCode == busCode;
  return found ? row->errorCode : ERROR_INTERNAL;
}

std::string CProtocolBase::getResponseByError(int errorCode, const std::string& url) {
  CXmlBase xml;
  beginResponseStatus(xml, url, "2.0");
  unsigned int httpStatus = 200;
  if (errorCode == ERROR_OK) {
    addStatusText(xml, {"1", "OK", "ok"});
  } else if (getResStatusByErrorNo(httpStatus, static_cast<unsigned int>(errorCode), xml) == 0) {
    QN_LOG(WLOG_ERROR, "[iErrorNo=%d] unkown error code.", errorCode);
  }
  return getXMLString(xml);
}

int CProtocolBase::getResStatusByErrorNo(unsigned int& httpStatus, unsigned int errorCode,
                                         CXmlBase& xml) {
  Json::Value document;
  int status = static_cast<int>(httpStatus);
  if (!getResponseStatusByErrorNo(errorCode, document, status)) {
    QN_LOG(WLOG_ERROR, "[error=%d] unkown error code", static_cast<int>(errorCode));
    return 0;
  }
  httpStatus = static_cast<unsigned int>(status);
  if (!isStatusDocument(document)) {
    QN_LOG(WLOG_ERROR, "[response=%s]json format error.", qn::json::writeJson(document).c_str());
    return -1;
  }
  addStatusText(xml, {std::to_string(document["statusCode"].asInt()),
                      document["statusString"].asString(), document["subStatusCode"].asString()});
  return 1;
}

std::string CProtocolBase::getXMLString(const CXmlBase& xml) {
  char buffer[kXmlTextMax];  // not zeroed: the writer reports what it wrote
  int length = 0;
  xml.WriteToBuf(buffer, kXmlTextMax, length);
  return std::string(buffer, static_cast<std::size_t>(length));
}

}  // namespace QNKAVROProtocol
