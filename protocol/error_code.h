// The error codes that the module itself answers with, and the small result codes that stand for
// them inside the gateway. Texts and HTTP statuses come from the platform's status table.
#pragma once

namespace QNKAVROProtocol {

// Top four bits: the class, which is the "statusCode" that clients see; the rest: the detail.
enum ErrorCode : unsigned int {
  ERROR_OK = 1,
  ERROR_INTERNAL = 0x30000014,            // a handler failed, or a reply could not be translated
  ERROR_UNAUTHORIZED = 0x40000003,        // login needed or refused
  ERROR_RESOURCE_NOT_FOUND = 0x40000006,  // no handler serves the URL
  ERROR_NOT_ACTIVATED = 0x40000007,       // no administrator account yet
  ERROR_DEVICE_NOT_FOUND = 0x40002064,    // the user's device is not configured
  ERROR_NO_RESOURCES = 0x60000001,
  ERROR_BAD_REQUEST = 0x60000003,    // the request could not be translated
  ERROR_BAD_BODY = 0x50000002,       // a face-library body that is no JSON or lacks keys
  ERROR_PICTURE_TYPE = 0x30002028,   // neither JPEG nor PNG nor BMP
  ERROR_UPLOAD_FAILED = 0x400011E9,  // the picture store cannot be reached or refused
  ERROR_STORE_FULL = 0x40001275,     // the picture store has no room
};

// Arguments of CProtocolBase::getPtoErrorCode that the module produces itself.
enum BusCode : int {
  BUS_PARAMETER = 1,
  BUS_NO_RESOURCES = 8,
  BUS_INTERNAL_FAILURE = 9,
  BUS_TOO_MANY_STREAMS = 10,
};

// The code for a sub-device's own numeric "statusCode".
constexpr unsigned int errorCodeOfDeviceStatus(int statusCode) {
  return (static_cast<unsigned int>(statusCode) << 28) | 1U;
}

}  // namespace QNKAVROProtocol
