// The fake platform of the unit tests, in the same words as platform_real.h.
#pragma once

#include <gtest/gtest.h>

#include <chrono>

#include "tests/unit/fake/fake_platform.h"

namespace qn {

using QNHttpService::CHttpExchange;
using QNHttpService::HTTP_LINK_BROKEN;
using namespace std::chrono_literals;

class Platform : public testing::Test {
 protected:
  Platform() {
    fake::reset();
    fake::config().devices.clear();
  }
  ~Platform() override { fake::reset(); }

  void addDevice(const std::string& index, const char* reply, uint16_t httpPort = 0) {
    fake::config().devices.insert(index);
    if (httpPort != 0) fake::config().ports.emplace_back(index, httpPort, 0);
    reply_ = reply;
    if (reply) fake::deviceBus().syncReplies["/a?devIndex=" + index] = reply;
    fake::announceDevice(DEVICE_ADDED, index);
  }
  void removeDevices() {
    for (const auto& index : std::exchange(fake::config().devices, {})) {
      fake::announceDevice(DEVICE_REMOVED, index);
    }
    fake::config().ports.clear();
  }
  void setRealm(const std::string& realm) { fake::config().realm = realm; }
  void raise(const std::string& /*index*/, const std::string& alarm) {
    fake::alarmBus().raise(alarm);
  }
  void stopDeviceBus() { fake::resetBuses(); }

  int open() {
    const auto record =
        fake::http().open({QNHttpService::HTTP_GET, "/a?b=1", "", {{"Host", "h"}, {"X-One", "v"}}});
    return record.exchange->getHttpHandle();
  }
  std::string received(int handle) {
    fake::Answer got = fake::http().answer(handle);
    return std::to_string(got.status) + " " + got.headers["X-Good"] + " " + got.body;
  }
  std::string receivedParts(int handle, std::size_t /*bytes*/) {
    std::string all;
    for (const auto& part : fake::http().answer(handle).parts) all += part;
    return all;
  }
  void clientGoes(int handle) { fake::http().forget(handle); }

  bool comesTrue(const std::function<bool()>& holds) {
    for (int i = 0; i < 1000 && !holds(); ++i) pass(1ms);
    return holds();
  }
  void pass(std::chrono::milliseconds time) {
    if (reply_ != nullptr) fake::deviceBus().reply(reply_);
    fake::runtime().advance(static_cast<uint64_t>(time.count()));
    fake::runtime().runJobs();
  }

 private:
  const char* reply_ = nullptr;
};

}  // namespace qn
