// What both buses know of a device, and what devices that misbehave cannot do to them.

#include "gateway/alarmbus/alarm_bus.h"
#include "tests/contract/bus_fixture.h"

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
  DeviceLogin login(withLogin(), {.first = 200ms, .longest = 500ms});
  std::string authorization;
  const auto logIn = [&](bool right) {
    DeviceLogin::Ticket ticket;
    login.prepare(ticket, "GET", "/", authorization);
    EXPECT_TRUE(login.refused(ticket, kDigestChallenge));
    EXPECT_EQ(login.prepare(ticket, "GET", "/", authorization), DeviceLogin::Verdict::Send);
    EXPECT_TRUE(authorization.starts_with("Digest "));
    right ? login.accepted(ticket) : static_cast<void>(login.refused(ticket, kDigestChallenge));
  };
  // The pause, and whether the device accepts once more before.
  const std::pair<std::chrono::milliseconds, bool> steps[] = {
      {200ms, false}, {400ms, false}, {500ms, false}, {500ms, false}, {200ms, true}};
  for (const auto& [pause, accepted] : steps) {
    while (login.refusedFor()) std::this_thread::sleep_for(10ms);
    if (accepted) logIn(true);
    const auto before = std::chrono::steady_clock::now();
    logIn(false);
    DeviceLogin::Ticket another;
    const auto verdict = login.prepare(another, "GET", "/", authorization);
    const auto left = login.refusedFor().value_or(0ms);
    EXPECT_LE(left, pause);
    EXPECT_GE(left + (std::chrono::steady_clock::now() - before), pause);
    if (left > 0ms) {
      EXPECT_EQ(verdict, DeviceLogin::Verdict::Refused);
    }
  }
}

TEST(DeviceLogin, ShowsThePasswordOnlyWhereItIsWritten) {
  const std::string basic = "Basic realm=\"r\"";
  const std::string both = basic + ", " + kDigestChallenge;
  // What the device asks for, one after the other, and the scheme of the answer to the last one.
  const std::tuple<DeviceAuth, std::vector<std::string>, std::string> cases[] = {
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

// Names that the test answers for: "silent..." when it ends, others with loopback while they are
// known.
class Names {
 public:
  NameResolver::Addresses lookUp(const std::string& name) {
    ++asked_;
    const bool silent = name.starts_with("silent");
    if (silent) ended_.wait();
    if (silent) ++givenUp_;
    if (silent || !known) return {};
    return {boost::asio::ip::make_address("127.0.0.1")};
  }
  int asked() const { return asked_; }
  int givenUp() const { return givenUp_; }
  void end() { ended_.signal(); }

  std::atomic<bool> known{true};

 private:
  std::atomic<int> asked_{0};
  std::atomic<int> givenUp_{0};  // silent ones
  Events ended_;
};

class NamesTest : public BusTest {
 protected:
  NamesTest() : NamesTest(std::make_shared<Names>()) {}
  ~NamesTest() override { names_->end(); }

  void addNamed(const std::string& index, const std::string& name, uint16_t port) {
    addDevice(index, port);
    configuration_.devices.back().host = name;
    publish();
  }

  const std::shared_ptr<Names> names_;  // the resolver's threads may outlive the test

 private:
  explicit NamesTest(std::shared_ptr<Names> names)
      : BusTest(1, [names](const std::string& name) { return names->lookUp(name); }),
        names_(std::move(names)) {}
};

std::string hello(const DeviceRequest&) { return jsonReply("{}"); }

TEST_F(NamesTest, NameServersThatAreSilentDelayNoOtherDeviceAndNoStop) {
  ScriptedDevice device(ScriptedDevice::answering(hello));
  std::vector<SentPtr> lost;
  for (int i = 0; i < 8; ++i) {
    const std::string index = "silent" + std::to_string(i);
    addNamed(index, index, device.port());
    lost.push_back(send(index, 200ms));
  }
  addNamed("1", "camera", device.port());
  EXPECT_EQ(send("1")->text(), "{}");
  for (const auto& sent : lost) EXPECT_EQ(sent->error(), ERROR_DEVICE_TIMEOUT);
  bus_.stop();
  EXPECT_EQ(names_->givenUp(), 0) << "nobody waited for them";
}

TEST_F(NamesTest, LastGoodAddressServesWhileTheNameCannotBeFound) {
  auto device = std::make_unique<ScriptedDevice>(ScriptedDevice::answering(hello));
  const uint16_t port = device->port();
  addNamed("1", "camera", port);
  EXPECT_EQ(send("1")->text(), "{}");
  names_->known = false;
  device.reset();
  EXPECT_EQ(send("1")->error(), ERROR_DEVICE_UNREACHABLE);
  device = std::make_unique<ScriptedDevice>(ScriptedDevice::answering(hello), port);
  EXPECT_EQ(send("1")->text(), "{}");
}

TEST(NameResolver, AsksOnceHoweverManyWantToKnowAndBacksOff) {
  const auto names = std::make_shared<Names>();
  names->known = false;
  NameResolver resolver([names](const std::string& name) { return names->lookUp(name); });
  boost::asio::io_context context;
  int told = 0;
  int asking = 0;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(eventually([&] {
    ++asking;
    resolver.find("gone", context.get_executor(), [&](const auto& addresses) {
      ++told;
      EXPECT_TRUE(addresses.empty());
    });
    context.restart();
    context.run_for(5ms);
    return names->asked() == 2;
  }));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 1s) << "asked again after a second";
  EXPECT_TRUE(eventually([&] {
    context.restart();
    context.run_for(5ms);
    return told == asking;
  }));
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

  AlarmBus alarms_{reactors_, workers_, directory_};
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
