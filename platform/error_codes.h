// Every error code that has a name: those of the protocol, and the platform's own beside them,
// which the HTTP service and the device-configuration bus answer when the module or a device
// cannot. The top four bits are the class, which is the "statusCode" that clients see; the rest is
// the detail. Texts and HTTP statuses stand in the platform's status table (base_library.h).
#pragma once

enum ErrorCode : unsigned int {
  ERROR_OK = 1,
  ERROR_INTERNAL = 0x30000014,            // a handler failed, or a reply could not be translated
  ERROR_PICTURE_TYPE = 0x30002028,        // neither JPEG nor PNG nor BMP
  ERROR_UNAUTHORIZED = 0x40000003,        // login needed or refused
  ERROR_RESOURCE_NOT_FOUND = 0x40000006,  // no handler serves the URL
  ERROR_NOT_ACTIVATED = 0x40000007,       // no administrator account yet
  ERROR_DEVICE_NOT_ALLOWED = 0x40000009,  // the device refuses the operation
  ERROR_TOO_MANY_STREAMS = 0x4000118A,    // alert streams of one device
  ERROR_UPLOAD_FAILED = 0x400011E9,       // the picture store cannot be reached or refused
  ERROR_STORE_FULL = 0x40001275,          // the picture store has no room
  ERROR_DEVICE_NOT_FOUND = 0x40002064,    // the user's device is not configured
  ERROR_BAD_BODY = 0x50000002,            // a face-library body that is no JSON or lacks keys
  ERROR_NO_RESOURCES = 0x60000001,
  ERROR_BAD_REQUEST = 0x60000003,   // the request could not be translated
  ERROR_DEVICE_BUSY = 0x6000000B,   // the device's queue is full
  ERROR_BUS_STOPPING = 0x60000015,  // the device-configuration bus takes no new work
  // The platform's own.
  ERROR_DEVICE_TIMEOUT = 0x20000101,         // the device did not answer in time
  ERROR_DEVICE_UNREACHABLE = 0x20000102,     // no connection to the device
  ERROR_GATEWAY_STOPPING = 0x20000103,       // the gateway takes no new work
  ERROR_DEVICE_REPLY_UNUSABLE = 0x20000104,  // the device answered something that is not a reply
  ERROR_DEVICE_LOGIN_REFUSED = 0x20000105,   // the device refused the gateway's credentials
  ERROR_TOO_MANY_REQUESTS = 0x20000106,      // a queue is full
  ERROR_DEVICE_CERTIFICATE_EXPIRED = 0x20000107,  // the device's certificate; or not valid yet
  ERROR_DEVICE_CERTIFICATE_UNKNOWN_ISSUER = 0x20000108,
  ERROR_DEVICE_CERTIFICATE_WRONG_NAME = 0x20000109,
  ERROR_DEVICE_CERTIFICATE_WRONG_FINGERPRINT = 0x2000010A,  // another one is pinned
  ERROR_DEVICE_CERTIFICATE_REFUSED = 0x2000010B,            // for whatever else
  ERROR_MALFORMED_REQUEST = 0x60000101,
  ERROR_REQUEST_TOO_LARGE = 0x60000102,
  ERROR_HEAD_TOO_LARGE = 0x60000103,
  ERROR_REQUEST_TIMEOUT = 0x60000104,
  ERROR_METHOD_NOT_IMPLEMENTED = 0x60000105,
};
