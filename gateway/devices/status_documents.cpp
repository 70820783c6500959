#include "gateway/devices/status_documents.h"

#include <json/json.h>

#include "gateway/log/log.h"
#include "platform/base_library.h"

namespace qn {
namespace {

constexpr unsigned int kCodes[] = {
    kDeviceTimeout,      kDeviceUnreachable, kGatewayStopping, kDeviceReplyUnusable,
    kDeviceLoginRefused, kMalformedRequest,  kRequestTooLarge, kMethodNotImplemented,
    kNotFound,           kNotAllowed,        kSuccess};

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
      return kDeviceLoginRefused;
    case 403:
      return kNotAllowed;
    case 404:
      return kNotFound;
    case 405:
    case 501:
      return kMethodNotImplemented;
    case 408:
    case 504:
      return kDeviceTimeout;
    case 413:
      return kRequestTooLarge;
    case 503:
      return kDeviceUnreachable;
    default:
      return status >= 500 ? kDeviceReplyUnusable : kMalformedRequest;
  }
}

}  // namespace qn
