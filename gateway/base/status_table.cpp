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
    {0x00000001, 200, "OK", "ok"},
    {qn::kDeviceTimeout, 504, "The device did not answer in time", "deviceTimeout"},
    {qn::kDeviceUnreachable, 503, "The device cannot be reached", "deviceUnreachable"},
    {qn::kGatewayStopping, 503, "The gateway is stopping", "gatewayStopping"},
    {qn::kDeviceReplyUnusable, 502, "The device's reply is unusable", "deviceReplyUnusable"},
    {qn::kDeviceLoginRefused, 502, "The device refused the gateway's login", "deviceLoginRefused"},
    {qn::kTooManyRequests, 503, "Too many requests", "tooManyRequests"},
    {0x30000014, 500, "Internal error", "internalError"},
    {0x30002028, 415, "Picture format not supported", "pictureFormatNotSupported"},
    {0x40000003, 401, "Unauthorized", "badAuthorization"},
    {0x40000006, 404, "Resource not found", "resourceNotFound"},
    {0x40000007, 403, "The gateway is not activated", "notActivated"},
    {0x40000008, 403, "Operation refused", "busError263"},
    {0x40000009, 403, "Not allowed for this device", "deviceNotAllowed"},
    {0x40001007, 403, "Operation refused", "busError2"},
    {0x40001014, 403, "Operation refused", "busError514"},
    {0x40001054, 403, "Operation refused", "busError6"},
    {0x4000108D, 403, "Operation refused", "busError5"},
    {0x400010E7, 403, "Operation refused", "busError258"},
    {0x400010E8, 403, "Operation refused", "busError259"},
    {0x400010EA, 403, "Operation refused", "busError3"},
    {0x40001187, 403, "Operation refused", "busError273"},
    {0x4000118A, 403, "Too many alert streams on this device", "tooManyAlertStreams"},
    {0x400011E9, 503, "The picture store is not available", "pictureStoreNotAvailable"},
    {0x40001275, 503, "The picture store is full", "pictureStoreFull"},
    {0x40002064, 404, "The user's device does not exist", "deviceNotFound"},
    {0x50000002, 400, "The JSON body is not usable", "badJsonBody"},
    {0x60000001, 400, "The request cannot be carried out", "noResources"},
    {0x60000003, 400, "The request cannot be converted", "badRequestContent"},
    {0x6000000B, 503, "Too many requests wait for the device", "deviceBusy"},
    {0x6000000F, 400, "Request refused", "busError275"},
    {0x60000015, 503, "The device bus is stopping", "busStopping"},
    {0x6000005F, 400, "Request refused", "busError256"},
    {qn::kMalformedRequest, 400, "Malformed request", "malformedRequest"},
    {qn::kRequestTooLarge, 413, "Request too large", "requestTooLarge"},
    {qn::kHeadTooLarge, 431, "Request head too large", "headTooLarge"},
    {qn::kRequestTimeout, 408, "The request did not arrive in time", "requestTimeout"},
    {qn::kMethodNotImplemented, 501, "Method not implemented", "methodNotImplemented"},
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
