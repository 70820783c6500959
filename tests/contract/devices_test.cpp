// What both buses know of a device, and what devices that misbehave cannot do to them.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "gateway/alarmbus/alarm_bus.h"
#include "tests/contract/bus_fixture.h"
#include "tests/contract/events.h"
#include "tests/contract/scripted_device.h"

namespace qn::devicebus::test {
namespace {

using namespace std::chrono_literals;

std::string unauthorized(const std::string& challenge) {
  return "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: " + challenge +
         "\r\nContent-Length: 0\r\n\r\n";
}

const std::string kDigestChallenge = R"(Digest realm="r", nonce="n", qop="auth")";

DeviceConfig withLogin() {
  DeviceConfig config;
  config.index = "1";
  config.username = "user";
  config.password = "secret";
  return config;
}

TEST(DeviceLogin, RefusedCredentialsRestTwiceAsLongEachTimeUntilOneIsAccepted) {
  DeviceLogin login(withLogin(), {.first = 50ms, .longest = 120ms});
  std::string authorization;
  const auto logIn = [&](bool right) {
    DeviceLogin::Ticket ticket;
    login.prepare(ticket, "GET", "/", authorization);
    EXPECT_TRUE(login.refused(ticket, kDigestChallenge));
    EXPECT_EQ(login.prepare(ticket, "GET", "/", authorization), DeviceLogin::Verdict::Send);
    EXPECT_TRUE(authorization.starts_with("Digest "));
    right ? login.accepted(ticket) : static_cast<void>(login.refused(ticket, kDigestChallenge));
  };
  for (const bool accepted : {false, true}) {
    if (accepted) logIn(true);
    for (const auto pause : {50ms, 100ms, 120ms, 120ms}) {
      // After an acceptance the first refusal is of credentials that go out with the request.
      logIn(false);
      const auto left = login.refusedFor();
      ASSERT_TRUE(left.has_value());
      EXPECT_LE(*left, pause);
      EXPECT_GT(*left, pause - 40ms);
      DeviceLogin::Ticket another;
      EXPECT_EQ(login.prepare(another, "GET", "/", authorization), DeviceLogin::Verdict::Refused);
      std::this_thread::sleep_for(*left + 1ms);
      EXPECT_FALSE(login.refusedFor().has_value());
    }
  }
}

TEST(DeviceLogin, ShowsThePasswordOnlyWhereItIsWritten) {
  const std::string basic = "Basic realm=\"r\"";
  const std::string both = basic + ", " + kDigestChallenge;
  const struct {
    DeviceAuth auth;
    std::vector<std::string> challenges;  // what the device asks for, one after the other
    std::string sent;                     // the scheme of the answer to the last one
  } cases[] = {
      {DeviceAuth::Digest, {basic}, ""},
      {DeviceAuth::Digest, {both}, "Digest"},
      {DeviceAuth::Basic, {kDigestChallenge}, ""},
      {DeviceAuth::Basic, {both}, "Basic"},
      {DeviceAuth::Any, {basic}, "Basic"},
      {DeviceAuth::Any, {both}, "Digest"},
      {DeviceAuth::Any, {kDigestChallenge, basic}, ""},
  };
  for (const auto& [auth, challenges, sent] : cases) {
    ClientLogin login("user", "secret", auth);
    bool understood = false;
    for (const std::string& each : challenges) understood = login.takeChallenge(each);
    const std::string scheme = understood ? login.authorization("GET", "/") : std::string();
    EXPECT_EQ(scheme.substr(0, scheme.find(' ')), sent) << challenges.back();
  }
}

// Both buses on one device.
class BothBusesTest : public BusTest {
 protected:
  BothBusesTest() { alarms_.start(); }
  ~BothBusesTest() override { alarms_.stop(); }

  int subscribe(const std::string& device) {
    int id = -1;
    const auto ignore = [](void*, int, void*) { return 0; };
    EXPECT_TRUE(alarms_.subscribe({device}, ignore, nullptr, id));
    return id;
  }

  AlarmBus alarms_{reactors_, directory_};
};

TEST_F(BothBusesTest, CredentialsThatOneFoundRefusedTheOtherDoesNotSend) {
  for (const bool feedFirst : {false, true}) {
    std::atomic<int> sent{0};
    Events refused;
    ScriptedDevice device(ScriptedDevice::answering([&](const DeviceRequest& request) {
      sent += request.field("Authorization").empty() ? 0 : 1;
      if (sent > 0) refused.signal();
      return unauthorized(kDigestChallenge);
    }));
    configuration_.devices.clear();
    addDevice("1", device.port(), "user");
    int id = -1;
    if (feedFirst) {
      id = subscribe("1");
      ASSERT_TRUE(refused.wait());
    }
    EXPECT_EQ(send("1")->error(), ERROR_DEVICE_LOGIN_REFUSED);
    if (!feedFirst) id = subscribe("1");
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(sent, 1);
    alarms_.unsubscribe(id);
  }
}

}  // namespace
}  // namespace qn::devicebus::test
