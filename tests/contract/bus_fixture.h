// A started device-configuration bus over scripted devices, and the words its tests are told in.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "gateway/config/configuration.h"
#include "gateway/devicebus/device_bus.h"
#include "gateway/net/reactors.h"
#include "gateway/net/worker_pool.h"
#include "platform/device_cfg_bus.h"
#include "platform/error_codes.h"

namespace qn::devicebus::test {

using std::chrono::milliseconds;

enum Method : unsigned char { GET, PUT, POST, DELETE, HEAD, OPTIONS, PATCH };

struct Answer {
  std::string text;
  int calls = 0;     // of the callback, so far
  int reactor = -1;  // that the callback ran on
};

inline unsigned int errorCode(const std::string& document) {
  Json::Value value;
  if (!Json::Reader().parse(document, value) || !value.isObject()) return 0;
  return value["errorCode"].isInt() ? value["errorCode"].asUInt() : 0;
}

// One request and its answer.
class Sent {
 public:
  Sent(unsigned char method, const std::string& url, const std::string& body,
       milliseconds timeout) {
    auto own = std::make_unique<std::shared_ptr<State>>(state_);
    refusal_ = QN_DeviceCfgBus_ProcessAsyn(method, url, body, &Sent::take, own.get(),
                                           static_cast<int>(timeout.count()));
    if (refusal_ == DEVCFGBUS_OK) own.release();  // the callback's
  }

  int refusal() const { return refusal_; }
  // Fails the test when none comes.
  Answer answer() {
    std::unique_lock lock(state_->mutex);
    const bool came = state_->came.wait_for(lock, std::chrono::seconds(30),
                                            [this] { return state_->answer.calls > 0; });
    EXPECT_TRUE(came) << "no answer";
    return state_->answer;
  }
  std::string text() { return answer().text; }
  unsigned int error() { return errorCode(text()); }
  int calls() const {
    std::lock_guard lock(state_->mutex);
    return state_->answer.calls;
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable came;
    Answer answer;
  };

  static int take(void* data, int length, void* userData) {
    const std::unique_ptr<std::shared_ptr<State>> own(
        static_cast<std::shared_ptr<State>*>(userData));
    State& state = **own;
    std::lock_guard lock(state.mutex);
    EXPECT_NE(data, nullptr);
    state.answer.text.assign(static_cast<char*>(data), static_cast<std::size_t>(length));
    state.answer.reactor = Reactors::current();
    ++state.answer.calls;
    state.came.notify_all();
    return 0;
  }

  const std::shared_ptr<State> state_ = std::make_shared<State>();
  int refusal_ = -1;
};

using SentPtr = std::unique_ptr<Sent>;

class BusTest : public ::testing::Test {
 protected:
  explicit BusTest(std::size_t reactors = 1)
      : reactors_(reactors), bus_(reactors_, workers_, directory_) {
    reactors_.start();
    bus_.start();
  }
  ~BusTest() override { bus_.stop(); }

  void addDevice(const std::string& index, uint16_t port, const std::string& username = {}) {
    DeviceConfig device;
    device.index = index;
    device.host = "127.0.0.1";
    device.port = port;
    device.username = username;
    device.password = "secret";
    configuration_.devices.push_back(device);
    publish();
  }
  void publish() { publishConfiguration(std::make_shared<const Configuration>(configuration_)); }

  static std::string url(const std::string& device) {
    return "/KAVRO/System/deviceInfo?format=json&devIndex=" + device;
  }
  static SentPtr send(const std::string& device, milliseconds timeout = milliseconds(20000),
                      unsigned char method = GET, const std::string& body = {}) {
    return std::make_unique<Sent>(method, url(device), body, timeout);
  }
  static std::vector<SentPtr> sendMany(int count, const std::string& device,
                                       milliseconds timeout = milliseconds(20000)) {
    std::vector<SentPtr> all;
    for (int i = 0; i < count; ++i) all.push_back(send(device, timeout));
    return all;
  }

  Configuration configuration_;  // publish() puts it in force
  Reactors reactors_;
  WorkerPool workers_{2, 64};
  DeviceDirectory directory_;
  DeviceBus bus_;
};

}  // namespace qn::devicebus::test
