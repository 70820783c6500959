// Error codes of the platform's own, beside those of the protocol: what the HTTP service and the
// device-configuration bus answer when the module or a device cannot. The top four bits are the
// class, as for every code; the status table knows all of them.
#pragma once

namespace qn {

enum ErrorCode : unsigned int {
  kDeviceTimeout = 0x20000101,        // the device did not answer in time
  kDeviceUnreachable = 0x20000102,    // no connection to the device
  kGatewayStopping = 0x20000103,      // the gateway takes no new work
  kDeviceReplyUnusable = 0x20000104,  // the device answered something that is not a reply
  kDeviceLoginRefused = 0x20000105,   // the device refused the gateway's credentials
  kTooManyRequests = 0x20000106,      // a queue is full
  kMalformedRequest = 0x60000101,
  kRequestTooLarge = 0x60000102,
  kHeadTooLarge = 0x60000103,
  kRequestTimeout = 0x60000104,
  kMethodNotImplemented = 0x60000105,
};

}  // namespace qn
