// One request on its way through the bus. Whoever holds the unique_ptr answers it: a lane's queue,
// a connection, or the job that hands the answer over. So it is answered exactly once.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "gateway/devicebus/device.h"
#include "platform/device_cfg_bus.h"

namespace qn::devicebus {

enum class Origin { kDevice, kGateway };  // who wrote the answer

// Takes the answer of one request.
class Recipient {
 public:
  virtual ~Recipient() = default;
  // Not null, valid during the call. Any thread; must not block.
  virtual void take(std::string_view answer, Origin origin) noexcept = 0;
  // Whether taking a long answer takes long.
  virtual bool isTranslator() const = 0;
};

struct BusRequest {
  Admission admission;  // first member, last to go
  std::string_view method;
  std::string url;  // path and query
  std::string body;
  std::unique_ptr<Recipient> recipient;
  std::chrono::steady_clock::time_point deadline;
  std::shared_ptr<Device> device;
  std::optional<DeviceLogin::Ticket> login{std::in_place};  // at `device`
  bool needsFreshConnection = false;  // a reused one broke; not tried again after this
};

using RequestPtr = std::unique_ptr<BusRequest>;

// Whether sending it twice does the same as sending it once.
inline bool isIdempotent(std::string_view method) { return method != "POST" && method != "PATCH"; }

}  // namespace qn::devicebus
