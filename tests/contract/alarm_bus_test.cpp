// What platform/alarm_bus.h promises, against scripted devices on loopback.
#include "gateway/alarmbus/alarm_bus.h"

#include <json/json.h>

#include <boost/asio/post.hpp>
#include <regex>

#include "tests/contract/devices_fixture.h"

namespace qn {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using devicebus::test::Peer;
using devicebus::test::ScriptedDevice;
using Clock = std::chrono::steady_clock;

constexpr char kHead[] = "HTTP/1.1 200 OK\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n";

std::string alarm(const std::string& id) {
  return R"({"EventNotificationAlert":{"devIndex":"whatever","eventType":")" + id + R"("}})";
}

std::string part(const std::string& body, const std::string& type = "application/json") {
  return "--b\r\nContent-Type: " + type + "\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body + "\r\n";
}

// A device that says what `bytes` gives for each connection, and keeps those that it accepts open.
ScriptedDevice::Script saying(std::function<std::string(int connection)> bytes) {
  return [bytes = std::move(bytes)](Peer& peer) {
    if (!peer.read()) return;
    const std::string said = bytes(peer.number());
    if (peer.write(said) && said.starts_with(kHead)) peer.waitForClose();
  };
}

// On each stream.
ScriptedDevice::Script keeping(const std::string& bytes) {
  return saying([bytes](int) { return kHead + bytes; });
}

std::string refusing(const std::string& more = {}) {
  return "HTTP/1.1 401 No\r\nWWW-Authenticate: Digest qop=\"auth\", realm=\"r\", nonce=\"n1\"" +
         more + "\r\nContent-Length: 0\r\n\r\n";
}

// A device that never pauses; each of its parts carries its number.
ScriptedDevice::Script storming() {
  return [](Peer& peer) {
    if (!peer.read() || !peer.write(kHead)) return;
    for (int i = 0; peer.write(part(alarm(std::to_string(i)))); ++i) {
    }
  };
}

// What one subscription was given, as "devIndex/eventType". Large alarms take it a while.
class Listener {
 public:
  void take(std::string_view text) {
    if (text.size() > 10000) std::this_thread::sleep_for(50ms);
    Json::Value root;
    EXPECT_TRUE(Json::Reader().parse(text.begin(), text.end(), root)) << text;
    const Json::Value& alert = root["EventNotificationAlert"];
    {
      const std::lock_guard lock(mutex_);
      alarms_.push_back(alert["devIndex"].asString() + "/" + alert["eventType"].asString());
    }
    if (Reactors::current() == Reactors::kNone) ++onWorkers;
    came.signal();
  }
  static int callback(void* data, int length, void* user) {
    static_cast<Listener*>(user)->take(
        {static_cast<const char*>(data), static_cast<std::size_t>(length)});
    return length;
  }
  std::vector<std::string> alarms() {
    const std::lock_guard lock(mutex_);
    return alarms_;
  }

  std::atomic<int> onWorkers{0};
  Events came;

 private:
  std::mutex mutex_;
  std::vector<std::string> alarms_;  // guarded by mutex_
};

using Alarms = std::vector<std::string>;

std::string requestFor(const std::string& devices) {
  return R"({"SubscribeDeviceMgmt":{"DevEventList":[)" + devices + "]}}";
}
std::string entry(const std::string& device) {
  return R"({"Dev":{"devIndex":")" + device + R"("}})";
}

// While it lives the reactors run nothing, so that no stream opens.
class ReactorsHeld {
 public:
  explicit ReactorsHeld(Reactors& reactors) {
    for (std::size_t i = 0; i < reactors.size(); ++i) {
      boost::asio::post(reactors.context(i), [released = released_] { released->wait(); });
    }
  }
  ~ReactorsHeld() { released_->signal(); }

 private:
  const std::shared_ptr<Events> released_ = std::make_shared<Events>();
};

class AlarmBusTest : public devicebus::test::DevicesTest {
 protected:
  explicit AlarmBusTest(std::size_t reactors = 2, FeedTimes times = {}, RefusalTimes refusals = {})
      : DevicesTest(reactors, refusals),
        bus_(std::make_unique<AlarmBus>(reactors_, workers_, directory_, times)) {
    bus_->start();
  }
  ~AlarmBusTest() override {
    if (bus_) bus_->stop();
  }

  // An alarm that comes before the start would rightly be lost, and devices here send some once.
  int subscribe(Listener& listener, const std::string& device) {
    const ReactorsHeld held(reactors_);
    std::string reply;
    int id = -7;
    EXPECT_EQ(QN_AlarmBus_Subscribe(reply, requestFor(entry(device)), Listener::callback, &listener,
                                    1, id),
              0)
        << reply;
    EXPECT_EQ(QN_AlarmBus_StartUploadData(id), 0);
    return id;
  }
  // A new listener, subscribed and started.
  Listener& hear(const std::string& device = "1") {
    Listener& listener = listeners_.emplace_back();
    subscribe(listener, device);
    return listener;
  }
  static int unsubscribe(int id) {
    std::string reply;
    return QN_AlarmBus_UnSubscribe(reply, id, 1);
  }

  std::list<Listener> listeners_;  // outlive the subscriptions
  std::unique_ptr<AlarmBus> bus_;
};

TEST_F(AlarmBusTest, EachDeviceHasItsOwnStreamAndName) {
  std::atomic<int> wrong{0};
  const auto script = [&wrong](Peer& peer) {
    const auto request = peer.read();
    if (!request) return;
    const std::string target = request->target;
    const std::string wanted = "/KAVRO/Event/notification/alertStream?format=json&devIndex=";
    if (request->method != "GET" || (target != "/base" + wanted + "1" && target != wanted + "2")) {
      ++wrong;
    }
    peer.write(kHead + part(alarm("of-" + target.substr(target.size() - 1))) +
               part("JPEG", "image/jpeg") + part("") + part("no alarm") + part(alarm("last")));
    peer.waitForClose();
  };
  ScriptedDevice first(script);
  ScriptedDevice second(script);
  addDevice("1", first.port());
  configuration_.devices[0].basePath = "/base";
  addDevice("2", second.port());
  Listener& listener = listeners_.emplace_back();
  const int id = subscribe(listener, "1");
  ASSERT_TRUE(listener.came.wait(2));
  EXPECT_EQ(listener.alarms(), (Alarms{"1/of-1", "1/last"}));
  std::string reply;
  EXPECT_EQ(QN_AlarmBus_AddDevice(reply, id, "2", "{}"), 0);
  ASSERT_TRUE(listener.came.wait(4));
  EXPECT_EQ(listener.alarms().at(2), "2/of-2");
  EXPECT_EQ(QN_AlarmBus_AddDevice(reply, id, "2", "{}"), 0) << "present";
  EXPECT_EQ(second.connections(), 1);
  EXPECT_EQ(wrong, 0);
}

TEST_F(AlarmBusTest, UnusableCallsAreRefusedAndHarmless) {
  ScriptedDevice device(keeping(""));
  addDevice("1", device.port());
  Listener& listener = listeners_.emplace_back();
  std::string reply;
  const auto expectRefused = [&](const std::string& request) {
    int id = -7;
    EXPECT_NE(QN_AlarmBus_Subscribe(reply, request, Listener::callback, &listener, 1, id), 0)
        << request;
    EXPECT_EQ(id, -7);
    Json::Value status;
    EXPECT_TRUE(Json::Reader().parse(reply, status) && status.isObject()) << reply;
  };
  for (const std::string& request :
       {""s, "7"s, "{"s, "{}"s, "[]"s, R"({"SubscribeDeviceMgmt":[]})"s, std::string(5000, '[')}) {
    expectRefused(request);
  }
  for (const std::string& devices : {""s, "7"s, "{}"s, R"({"Dev":{"devIndex":1}})"s, entry("9"),
                                     entry("1") + "," + entry("9")}) {
    expectRefused(requestFor(devices));
  }
  const int id = subscribe(listener, "1");
  EXPECT_NE(QN_AlarmBus_AddDevice(reply, id, "9", ""), 0);
  EXPECT_EQ(unsubscribe(id), 0);
  for (std::size_t i = 0; i < AlarmBus::kMaxSubscriptions; ++i) subscribe(listener, "1");
  expectRefused(requestFor(entry("1")));  // too many
  bus_->stop();
  expectRefused(requestFor(entry("1")));
}

TEST_F(AlarmBusTest, LogsInWithDigest) {
  std::atomic<bool> right{false};
  ScriptedDevice device([&right](Peer& peer) {
    const auto request = peer.read();
    if (!request) return;
    const std::string login = request->field("Authorization");
    right = login.find("username=\"u\"") != login.npos &&
            login.find("uri=\"" + request->target + "\"") != login.npos;
    peer.write(login.empty() ? refusing() : kHead + part(alarm("in")));
    if (!login.empty()) peer.waitForClose();
  });
  addDevice("1", device.port(), "u");
  ASSERT_TRUE(hear().came.wait());
  EXPECT_TRUE(right);
  EXPECT_EQ(device.connections(), 2);
}

// Whatever the refusal looks like, a camera's account is not tried until it locks.
TEST_F(AlarmBusTest, RefusedCredentialsAreNotHammered) {
  for (const char* more : {"", ", stale=true"}) {
    Events refused;
    ScriptedDevice device(saying([&](int) {
      refused.signal();
      return refusing(more);
    }));
    configuration_.devices.clear();
    addDevice("1", device.port(), "u");
    const int id = subscribe(listeners_.emplace_back(), "1");
    ASSERT_TRUE(refused.wait(2));
    EXPECT_FALSE(refused.wait(4, 1200ms)) << more;
    unsubscribe(id);
  }
}

// Each time a little later, whatever the device says; and operators are told once.
TEST_F(AlarmBusTest, ADeviceThatStartsOrSendsTooMuchIsAskedAgainSoon) {
  const auto attempt = [this](std::vector<Clock::time_point>& asked) {
    std::mutex mutex;
    ScriptedDevice device(saying([&](int connection) -> std::string {
      const std::lock_guard lock(mutex);
      asked.push_back(Clock::now());
      const char* const starting[] = {"404 X", "503 X", "404 X", "403 X"};
      if (connection < 4) {
        return std::string("HTTP/1.1 ") + starting[connection] + "\r\nContent-Length: 0\r\n\r\n";
      }
      if (connection == 4) return std::string(kHead) + "--b\r\nContent-Length: 99999999\r\n\r\n";
      return kHead + part(alarm("up"));
    }));
    configuration_.devices.clear();
    addDevice("1", device.port());
    testing::internal::CaptureStderr();
    const int id = subscribe(listeners_.emplace_back(), "1");
    EXPECT_TRUE(listeners_.back().came.wait());
    const std::string log = testing::internal::GetCapturedStderr();
    for (const std::string what : {"broken: ", "open again"}) {
      const std::regex line("warning \\[gateway\\] alert stream of device 1 " + what);
      const auto begin = std::sregex_iterator(log.begin(), log.end(), line);
      EXPECT_EQ(std::distance(begin, std::sregex_iterator()), 2) << log;
    }
    unsubscribe(id);
  };
  constexpr Clock::duration kDelays[] = {250ms, 500ms, 1000ms, 2000ms, 2000ms};
  std::array<bool, std::size(kDelays)> soon{};
  for (int i = 0; i < 5 && !std::ranges::all_of(soon, std::identity()); ++i) {
    std::vector<Clock::time_point> asked;
    attempt(asked);
    ASSERT_EQ(asked.size(), 6u);
    for (std::size_t n = 0; n < std::size(kDelays); ++n) {
      EXPECT_GE(asked[n + 1] - asked[n], kDelays[n] * 3 / 4) << n;
      soon[n] = soon[n] || asked[n + 1] - asked[n] <= kDelays[n] + 400ms;
    }
  }
  EXPECT_TRUE(std::ranges::all_of(soon, std::identity())) << "each, once that nothing holds it up";
}

// In the order of the device's alarms, however long the one before takes.
TEST_F(AlarmBusTest, LargeAlarmsAreTakenOffTheReactorInTheirOrder) {
  const std::string large =
      R"({"EventNotificationAlert":{"eventType":"b","x":")" + std::string(100000, 'x') + R"("}})";
  Events ask;
  ScriptedDevice device([&](Peer& peer) {
    if (!peer.read() || !peer.write(kHead + part(alarm("a"))) || !ask.wait()) return;
    peer.write(part(large) + part(alarm("c")) + part(large) + part(alarm("d")));
    peer.waitForClose();
  });
  addDevice("1", device.port());
  Listener& listener = hear();
  ASSERT_TRUE(listener.came.wait());
  EXPECT_EQ(listener.onWorkers, 0);
  ask.signal();
  ASSERT_TRUE(listener.came.wait(5));
  EXPECT_EQ(listener.alarms(), (Alarms{"1/a", "1/b", "1/c", "1/b", "1/d"}));
  EXPECT_GE(listener.onWorkers, 2);
}

TEST_F(AlarmBusTest, AnAlarmOfTooManyValuesOrBytesBreaksTheStream) {
  const auto alarmOf = [](std::size_t bytes, const std::string& filling) {
    std::string list;
    while (list.size() < bytes) list += filling + ",";
    return R"({"EventNotificationAlert":{"eventType":"x","list":[)" + list + "1]}}";
  };
  ScriptedDevice device(saying([&](int connection) -> std::string {
    const std::string bodies[] = {alarmOf(220'000, "{}"), alarmOf(300'000, "12345678"),
                                  alarmOf(250'000, "12345678")};
    return kHead + part(bodies[std::min(connection, 2)]);
  }));
  addDevice("1", device.port());
  Listener& listener = hear();
  ASSERT_TRUE(listener.came.wait());
  EXPECT_EQ(device.connections(), 3);
}

TEST_F(AlarmBusTest, ARemovedDeviceIsLeftAndHeardAgainWhenItComesBack) {
  Events closed;
  ScriptedDevice device([&closed](Peer& peer) {
    if (!peer.read() || !peer.write(kHead + part(alarm("on")))) return;
    peer.waitForClose();
    closed.signal();
  });
  ScriptedDevice other(keeping(part(alarm("other"))));
  addDevice("1", device.port());
  addDevice("2", other.port());
  Listener& listener = listeners_.emplace_back();
  const int id = subscribe(listener, "1");
  std::string reply;
  QN_AlarmBus_AddDevice(reply, id, "2", "");
  ASSERT_TRUE(listener.came.wait(2));
  const auto removed = configuration_.devices.front();
  configuration_.devices.erase(configuration_.devices.begin());
  publish();
  EXPECT_TRUE(closed.wait());
  EXPECT_NE(QN_AlarmBus_CheckIDValid(id), 0);
  EXPECT_EQ(other.connections(), 1);
  configuration_.devices.push_back(removed);
  publish();
  EXPECT_TRUE(listener.came.wait(3));
}

TEST_F(AlarmBusTest, NoCallbackAfterUnSubscribe) {
  ScriptedDevice device(storming());
  addDevice("1", device.port());
  Listener& witness = hear();
  for (int round = 0; round < 5; ++round) {
    auto listener = std::make_unique<Listener>();
    const int id = subscribe(*listener, "1");
    ASSERT_TRUE(listener->came.wait(20));
    EXPECT_EQ(unsubscribe(id), 0);
    listener.reset();  // a late callback would be a use after free
    ASSERT_TRUE(witness.came.wait(witness.came.count() + 50));
  }
}

TEST_F(AlarmBusTest, ACallbackThatThrowsLosesItsAlarmOnly) {
  ScriptedDevice device([](Peer& peer) {
    if (!peer.read() || !peer.write(kHead)) return;
    while (peer.write(part(alarm("again")))) std::this_thread::sleep_for(1ms);
  });
  addDevice("1", device.port());
  static std::atomic<int> calls;
  calls = 0;
  const auto throwing = [](void*, int, void*) -> int {
    ++calls;
    throw std::runtime_error("no good");
  };
  std::string reply;
  int id = -1;
  ASSERT_EQ(QN_AlarmBus_Subscribe(reply, requestFor(entry("1")), throwing, nullptr, 1, id), 0);
  ASSERT_EQ(QN_AlarmBus_StartUploadData(id), 0);
  Listener& listener = hear();
  ASSERT_TRUE(listener.came.wait(3));
  EXPECT_GE(calls, 1);
  bus_.reset();  // in the middle of alarms
}

class SilentDeviceTest : public AlarmBusTest {
 protected:
  SilentDeviceTest() : AlarmBusTest(2, {.silence = 300ms}, {.first = 200ms, .longest = 200ms}) {}
};

TEST_F(SilentDeviceTest, ASilentStreamIsOpenedAnew) {
  ScriptedDevice device(
      saying([](int connection) { return kHead + part(alarm(std::to_string(connection))); }));
  addDevice("1", device.port());
  Listener& listener = hear();
  EXPECT_TRUE(listener.came.wait(3));
}

TEST_F(SilentDeviceTest, RefusedCredentialsAreTriedAgainAfterAWhile) {
  ScriptedDevice device(saying([](int connection) {
    return connection < 4 ? refusing() : kHead + part(alarm("unlocked"));
  }));
  addDevice("1", device.port(), "u");
  EXPECT_TRUE(hear().came.wait());
}

class OneReactorTest : public AlarmBusTest {
 protected:
  OneReactorTest() : AlarmBusTest(1) {}
};

TEST_F(OneReactorTest, AStormDelaysNoOtherDevice) {
  ScriptedDevice storm(storming());
  Events ask;
  std::atomic<Clock::duration::rep> sentAt{0};
  ScriptedDevice quiet([&](Peer& peer) {
    if (!peer.read() || !peer.write(kHead)) return;
    for (int i = 1; i <= 10; ++i) {
      if (!ask.wait(i)) return;
      sentAt = Clock::now().time_since_epoch().count();
      if (!peer.write(part(alarm("quiet")))) return;
    }
    peer.waitForClose();
  });
  addDevice("1", storm.port());
  addDevice("2", quiet.port());
  Listener& stormy = hear("1");
  Listener& calm = hear("2");
  ASSERT_TRUE(stormy.came.wait(100));
  Clock::duration shortest = 1h;
  for (int i = 1; i <= 10; ++i) {
    ask.signal();
    ASSERT_TRUE(calm.came.wait(i));
    shortest = std::min(shortest, Clock::now().time_since_epoch() - Clock::duration(sentAt.load()));
  }
  EXPECT_LT(shortest, 1s);
}

}  // namespace
}  // namespace qn
