// The platform that costs nothing: one exchange without a network, logins that always succeed, a
// bus that keeps the request, a log that is off. For measuring the module alone.
#pragma once

#include "platform/device_cfg_bus.h"
#include "platform/http_service.h"

namespace null_platform {

// The only exchange; `url` must outlive its use.
QNHttpService::stHttpRes open(const char* url);

// Gives up the last accepted request's record; null when there is none.
struct Pending {
  DeviceCfgCallBack callback;
  void* userData;
};
Pending takePending();

// Bytes of the last answer.
int answeredBytes();

}  // namespace null_platform
