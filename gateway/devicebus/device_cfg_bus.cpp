// The functions of platform/device_cfg_bus.h on the bus that is started.
#include "platform/device_cfg_bus.h"

#include <chrono>
#include <exception>
#include <memory>
#include <string_view>
#include <utility>

#include "gateway/devicebus/device_bus.h"
#include "platform/wlog.h"

namespace {

using qn::DeviceBus;

class CallbackRecipient final : public qn::devicebus::Recipient {
 public:
  CallbackRecipient(DeviceCfgCallBack callback, void* userData)
      : callback_(callback), userData_(userData) {}

  void take(std::string_view answer, qn::devicebus::Origin) noexcept override {
    try {
      callback_(const_cast<char*>(answer.data()), static_cast<int>(answer.size()), userData_);
    } catch (const std::exception& exception) {
      wlog_format(WLOG_ERROR, "QNW", "device bus: a callback has thrown: %s", exception.what());
    } catch (...) {
      wlog_format(WLOG_ERROR, "QNW", "device bus: a callback has thrown");
    }
  }
  bool isTranslator() const override { return true; }

 private:
  const DeviceCfgCallBack callback_;
  void* const userData_;
};

// Runs a call on the started bus; what it throws is a want of resources.
template <typename Action>
int onStartedBus(Action action) noexcept {
  DeviceBus* const bus = DeviceBus::started();
  if (!bus) return DEVCFGBUS_STOPPING;
  try {
    return action(*bus);
  } catch (const std::exception& exception) {
    wlog_format(WLOG_ERROR, "QNW", "device bus: %s", exception.what());
    return DEVCFGBUS_QUEUE_FULL;
  }
}

}  // namespace

int QN_DeviceCfgBus_ProcessAsyn(unsigned char method, std::string jsonUrl,
                                const std::string& jsonBody, DeviceCfgCallBack callback,
                                void* userData, int timeoutMs) {
  return onStartedBus([&](DeviceBus& bus) {
    return bus.send({method, std::move(jsonUrl), jsonBody, std::chrono::milliseconds(timeoutMs)},
                    std::make_unique<CallbackRecipient>(callback, userData));
  });
}

int QN_DeviceCfgBus_ProcessSyn(unsigned char method, std::string jsonUrl,
                               const std::string& jsonBody, std::string& reply, int timeoutMs) {
  return onStartedBus([&](DeviceBus& bus) {
    return bus.ask({method, std::move(jsonUrl), jsonBody, std::chrono::milliseconds(timeoutMs)},
                   reply);
  });
}
