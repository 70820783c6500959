// The small result codes that stand for error codes inside the gateway.
#pragma once

#include "platform/error_codes.h"

namespace QNKAVROProtocol {

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
