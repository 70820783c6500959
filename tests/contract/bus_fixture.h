// A started device-configuration bus over scripted devices, and the words its tests are told in.
#pragma once

#include <json/json.h>

#include <future>

#include "gateway/devicebus/device_bus.h"
#include "platform/device_cfg_bus.h"
#include "platform/error_codes.h"
#include "tests/contract/devices_fixture.h"

namespace qn::devicebus::test {

using std::chrono::milliseconds;

enum Method : unsigned char { GET, PUT, POST, DELETE, HEAD, OPTIONS, PATCH };

struct Answer {
  std::string text;
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
    const bool came = answer_.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
    EXPECT_TRUE(came) << "no answer";
    return came ? answer_.get() : Answer();
  }
  std::string text() { return answer().text; }
  unsigned int error() { return errorCode(text()); }
  int calls() const { return state_->calls; }

 private:
  struct State {
    std::promise<Answer> answer;
    std::atomic<int> calls{0};
  };

  static int take(void* data, int length, void* userData) {
    const std::unique_ptr<std::shared_ptr<State>> own(
        static_cast<std::shared_ptr<State>*>(userData));
    const std::string text(static_cast<char*>(data), static_cast<std::size_t>(length));
    if ((*own)->calls++ == 0) (*own)->answer.set_value({text, Reactors::current()});
    return 0;
  }

  const std::shared_ptr<State> state_ = std::make_shared<State>();
  std::shared_future<Answer> answer_ = state_->answer.get_future();
  int refusal_ = -1;
};

using SentPtr = std::unique_ptr<Sent>;

class BusTest : public DevicesTest {
 protected:
  explicit BusTest(std::size_t reactors = 1,
                   NameResolver::Lookup lookup = NameResolver::systemLookup)
      : DevicesTest(reactors, {}, std::move(lookup)) {
    bus_.start();
  }
  ~BusTest() override { bus_.stop(); }

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

  DeviceBus bus_{reactors_, workers_, directory_};
};

}  // namespace qn::devicebus::test
