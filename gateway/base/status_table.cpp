// The status table: what a client is told for each error code. Read by the module's error documents
// and by the HTTP service and the device-configuration bus for their own.
#include <algorithm>
#include <array>
#include <string_view>

#include "platform/base_library.h"
#include "platform/error_codes.h"

namespace {

struct StatusRow {
  unsigned int code;
  int httpStatus;
  std::string_view statusString;
  std::string_view subStatusCode;
};

// Sorted by code. "busErrorN": a result N of the gateway's buses that only other gateways' buses
// give; the number is all that can be said about it.
constexpr StatusRow kRows[] = {
    {ERROR_OK, 200, "OK", "ok"},
    {ERROR_DEVICE_TIMEOUT, 504, "The device did not answer in time", "deviceTimeout"},
    {ERROR_DEVICE_UNREACHABLE, 503, "The device cannot be reached", "deviceUnreachable"},
    {ERROR_GATEWAY_STOPPING, 503, "The gateway is stopping", "gatewayStopping"},
    {ERROR_DEVICE_REPLY_UNUSABLE, 502, "The device's reply is unusable", "deviceReplyUnusable"},
    {ERROR_DEVICE_LOGIN_REFUSED, 502, "The device refused the gateway's login",
     "deviceLoginRefused"},
    {ERROR_TOO_MANY_REQUESTS, 503, "Too many requests", "tooManyRequests"},
    {ERROR_DEVICE_CERTIFICATE_EXPIRED, 502, "The device's certificate has expired",
     "deviceCertificateExpired"},
    {ERROR_DEVICE_CERTIFICATE_UNKNOWN_ISSUER, 502,
     "The device's certificate is from an unknown issuer", "deviceCertificateUnknownIssuer"},
    {ERROR_DEVICE_CERTIFICATE_WRONG_NAME, 502, "The device's certificate is for another name",
     "deviceCertificateWrongName"},
    {ERROR_DEVICE_CERTIFICATE_WRONG_FINGERPRINT, 502,
     "The device's certificate has another fingerprint", "deviceCertificateWrongFingerprint"},
    {ERROR_DEVICE_CERTIFICATE_REFUSED, 502, "The device's certificate is not acceptable",
     "deviceCertificateRefused"},
    {ERROR_INTERNAL, 500, "Internal error", "internalError"},
    {ERROR_PICTURE_TYPE, 415, "Picture format not supported", "pictureFormatNotSupported"},
    {ERROR_UNAUTHORIZED, 401, "Unauthorized", "badAuthorization"},
    {ERROR_RESOURCE_NOT_FOUND, 404, "Resource not found", "resourceNotFound"},
    {ERROR_NOT_ACTIVATED, 403, "The gateway is not activated", "notActivated"},
    {0x40000008, 403, "Operation refused", "busError263"},
    {ERROR_DEVICE_NOT_ALLOWED, 403, "Not allowed for this device", "deviceNotAllowed"},
    {0x40001007, 403, "Operation refused", "busError2"},
    {0x40001014, 403, "Operation refused", "busError514"},
    {0x40001054, 403, "Operation refused", "busError6"},
    {0x4000108D, 403, "Operation refused", "busError5"},
    {0x400010E7, 403, "Operation refused", "busError258"},
    {0x400010E8, 403, "Operation refused", "busError259"},
    {0x400010EA, 403, "Operation refused", "busError3"},
    {0x40001187, 403, "Operation refused", "busError273"},
    {ERROR_TOO_MANY_STREAMS, 403, "Too many alert streams on this device", "tooManyAlertStreams"},
    {ERROR_UPLOAD_FAILED, 503, "The picture store is not available", "pictureStoreNotAvailable"},
    {ERROR_STORE_FULL, 503, "The picture store is full", "pictureStoreFull"},
    {ERROR_DEVICE_NOT_FOUND, 404, "The user's device does not exist", "deviceNotFound"},
    {ERROR_BAD_BODY, 400, "The JSON body is not usable", "badJsonBody"},
    {ERROR_NO_RESOURCES, 400, "The request cannot be carried out", "noResources"},
    {ERROR_BAD_REQUEST, 400, "The request cannot be converted", "badRequestContent"},
    {ERROR_DEVICE_BUSY, 503, "Too many requests wait for the device", "deviceBusy"},
    {0x6000000F, 400, "Request refused", "busError275"},
    {ERROR_BUS_STOPPING, 503, "The device bus is stopping", "busStopping"},
    {0x6000005F, 400, "Request refused", "busError256"},
    {ERROR_MALFORMED_REQUEST, 400, "Malformed request", "malformedRequest"},
    {ERROR_REQUEST_TOO_LARGE, 413, "Request too large", "requestTooLarge"},
    {ERROR_HEAD_TOO_LARGE, 431, "Request head too large", "headTooLarge"},
    {ERROR_REQUEST_TIMEOUT, 408, "The request did not arrive in time", "requestTimeout"},
    {ERROR_METHOD_NOT_IMPLEMENTED, 501, "Method not implemented", "methodNotImplemented"},
};

constexpr bool inOrder(const StatusRow& left, const StatusRow& right) {
  return left.code < right.code;
}
constexpr bool notInOrder(const StatusRow& left, const StatusRow& right) {
  return !inOrder(left, right);
}
static_assert(std::adjacent_find(std::begin(kRows), std::end(kRows), notInOrder) == std::end(kRows),
              "codes must be sorted and unique");

const StatusRow* rowOf(unsigned int code) {
  const StatusRow* row =
      std::lower_bound(std::begin(kRows), std::end(kRows), StatusRow{code, 0, {}, {}}, inOrder);
  return row != std::end(kRows) && row->code == code ? row : nullptr;
}

constexpr unsigned int classOf(unsigned int code) { return code >> 28; }

int httpStatusOfClass(unsigned int codeClass) {
  constexpr std::array kStatuses = {200, 200, 503, 500, 403, 400, 400};
  return codeClass < kStatuses.size() ? kStatuses[codeClass] : 500;
}

Json::Value textValue(std::string_view text) {
  return Json::Value(text.data(), text.data() + text.size());
}

}  // namespace

bool getResponseStatusByErrorNo(unsigned int errorCode, Json::Value& document, int& httpStatus) {
  const StatusRow* row = rowOf(errorCode);
  if (row == nullptr) return false;
  // Success is 1 to every client, though its code is of class 0.
  const unsigned int statusCode = std::max(classOf(errorCode), 1u);
  Json::Value filled(Json::objectValue);
  filled["statusCode"] = static_cast<int>(statusCode);
  filled["statusString"] = textValue(row->statusString);
  filled["subStatusCode"] = textValue(row->subStatusCode);
  filled["errorCode"] = static_cast<int>(errorCode);
  document = std::move(filled);
  httpStatus = row->httpStatus;
  return true;
}

int getHttpStatusCodeByErrorNo(unsigned int errorCode) {
  const StatusRow* row = rowOf(errorCode);
  return row != nullptr ? row->httpStatus : httpStatusOfClass(classOf(errorCode));
}
