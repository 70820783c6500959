// The reference implementation behind platform/*.h, with scripted devices and a client of its own;
// see platform_fake.h for the same words on the fake.
#pragma once

#include <map>

#include "gateway/alarmbus/alarm_bus.h"
#include "gateway/devicebus/device_bus.h"
#include "platform/config_mgr.h"
#include "tests/contract/http_fixture.h"
#include "tests/contract/scripted_device.h"

namespace qn {

class Platform : public HttpFixture {
 protected:
  Platform() {
    leaving();
    start();
    bus_.start();
    alarms_.start();
    configuration_.users.push_back({"admin", "", "1", {}});
    publish();
  }
  ~Platform() override {
    ended_ = true;
    for (auto& [index, alarm] : alarmsOf_) alarm.second.signal();
    alarms_.stop();
    bus_.stop();
    client_.reset();
    stop();
    publishConfiguration(std::make_shared<const Configuration>());
  }

  // A device that gives this reply to every request, or none; with a port of its own.
  void addDevice(const std::string& index, const char* reply, uint16_t httpPort = 0) {
    auto& [alarm, raised] = alarmsOf_[index];
    auto& device = devices_.emplace_back([this, reply, &alarm, &raised](Peer& peer) {
      while (const auto request = peer.read()) {
        if (request->target.find("alertStream") == std::string::npos) {
          if (reply != nullptr) peer.write(devicebus::test::jsonReply(reply));
          continue;
        }
        peer.write("HTTP/1.1 200 OK\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n");
        for (int n = 1; raised.wait(n) && !ended_; ++n) {
          peer.write("--b\r\nContent-Type: application/json\r\nContent-Length: " +
                     std::to_string(alarm.size()) + "\r\n\r\n" + alarm + "\r\n");
        }
      }
    });
    DeviceConfig config;
    config.index = index;
    config.host = "127.0.0.1";
    config.port = device.port();
    config.httpPort = httpPort;
    configuration_.devices.push_back(config);
    publish();
  }
  void removeDevices() {
    configuration_.devices.clear();
    publish();
  }
  void setRealm(const std::string& realm) {
    configuration_.kavro.realm = realm;
    publish();
  }
  void raise(const std::string& index, const std::string& alarm) {
    alarmsOf_[index].first = alarm;
    alarmsOf_[index].second.signal();
  }
  void stopDeviceBus() { bus_.stop(); }

  // A client's GET /a?b=1 with the header "X-One: v"; its handle.
  int open() {
    client_ = std::make_unique<RawClient>(port());
    client_->send("GET /a?b=1 HTTP/1.1\r\nHost: h\r\nX-One: v\r\n\r\n");
    return waitForHandle();
  }
  // What the client got: status, the header X-Good, body.
  std::string received(int /*handle*/) {
    const HttpAnswer got = client_->answer();
    const std::size_t at = got.head.find("x-good: ") + 8;
    return std::to_string(got.status) + " " + got.head.substr(at, got.head.find('\r', at) - at) +
           " " + got.body;
  }
  std::string receivedParts(int /*handle*/, std::size_t bytes) {
    client_->answer();
    return client_->read(bytes);
  }
  void clientGoes(int /*handle*/) { client_->reset(); }

  static bool comesTrue(const std::function<bool()>& holds) { return eventually(holds); }
  static void pass(std::chrono::milliseconds time) { std::this_thread::sleep_for(time); }

 private:
  using Peer = devicebus::test::Peer;
  void publish() {
    configuration_.buildIndexes();
    publishConfiguration(std::make_shared<const Configuration>(configuration_));
  }

  Configuration configuration_;
  std::atomic<bool> ended_{false};
  std::map<std::string, std::pair<std::string, Events>> alarmsOf_;
  std::list<devicebus::test::ScriptedDevice> devices_;
  DeviceDirectory directory_;
  devicebus::DeviceBus bus_{reactors_, pool_, directory_};
  AlarmBus alarms_{reactors_, pool_, directory_, {}};
  std::unique_ptr<RawClient> client_;
};

}  // namespace qn
