#include "gateway/devices/status_documents.h"

#include <json/json.h>

#include "gateway/log/log.h"
#include "platform/base_library.h"

namespace qn {
namespace {

constexpr unsigned int kCodes[] = {ERROR_DEVICE_TIMEOUT,
                                   ERROR_DEVICE_UNREACHABLE,
                                   ERROR_GATEWAY_STOPPING,
                                   ERROR_DEVICE_REPLY_UNUSABLE,
                                   ERROR_DEVICE_LOGIN_REFUSED,
                                   ERROR_TOO_MANY_REQUESTS,
                                   ERROR_MALFORMED_REQUEST,
                                   ERROR_REQUEST_TOO_LARGE,
                                   ERROR_METHOD_NOT_IMPLEMENTED,
                                   ERROR_RESOURCE_NOT_FOUND,
                                   ERROR_DEVICE_NOT_ALLOWED,
                                   ERROR_OK,
                                   ERROR_DEVICE_CERTIFICATE_EXPIRED,
                                   ERROR_DEVICE_CERTIFICATE_UNKNOWN_ISSUER,
                                   ERROR_DEVICE_CERTIFICATE_WRONG_NAME,
                                   ERROR_DEVICE_CERTIFICATE_WRONG_FINGERPRINT,
                                   ERROR_DEVICE_CERTIFICATE_REFUSED};

std::string documentText(unsigned int code) {
  Json::Value document;
  int httpStatus = 0;
  if (!getResponseStatusByErrorNo(code, document, httpStatus)) {
    logError("the status table lacks 0x{:08x}", code);
    document["statusCode"] = static_cast<int>(code >> 28);
    document["errorCode"] = static_cast<Json::Int>(code);
  }
  return Json::FastWriter().write(document);
}

}  // namespace

StatusDocuments::StatusDocuments() {
  for (const unsigned int code : kCodes) texts_.emplace(code, documentText(code));
}

std::string_view StatusDocuments::of(unsigned int errorCode) const { return texts_.at(errorCode); }

unsigned int errorOfHttpStatus(int status) {
  switch (status) {
    case 401:
    case 407:
      return ERROR_DEVICE_LOGIN_REFUSED;
    case 403:
      return ERROR_DEVICE_NOT_ALLOWED;
    case 404:
      return ERROR_RESOURCE_NOT_FOUND;
    case 405:
    case 501:
      return ERROR_METHOD_NOT_IMPLEMENTED;
    case 408:
    case 504:
      return ERROR_DEVICE_TIMEOUT;
    case 413:
      return ERROR_REQUEST_TOO_LARGE;
    case 503:
      return ERROR_DEVICE_UNREACHABLE;
    default:
      return status >= 500 ? ERROR_DEVICE_REPLY_UNUSABLE : ERROR_MALFORMED_REQUEST;
  }
}

}  // namespace qn
