// Alarms of a device reach each of its streams in the device's order, whichever threads deliver
// them: from the alarm bus through the module and its pool to the queues of the streams.
#include <map>
#include <numeric>

#include "alert/event_pto.h"
#include "gateway/alarmbus/alarm_bus.h"
#include "gateway/http/exchange.h"
#include "tests/contract/events.h"

namespace qn {
namespace {

using QNKAVROProtocol::CEventPto;
using QNKAVROProtocol::stHttpRes;

constexpr int kDevices = 40;  // more than the pool has threads, so that jobs wait in its queue, too
constexpr int kAlarms = 400;  // of each

std::string alarmOf(int device, int number) {
  return R"({"EventNotificationAlert":{"eventType":"x","activePostCount":)" +
         std::to_string(number) + R"(,"devIndex":")" + std::to_string(device) + R"("}})";
}

class Feeds final : public FeedOpener {
 public:
  std::shared_ptr<AlarmFeed> open(const DeviceConfig& device, AlarmSink sink) override {
    sinks_[std::stoi(device.index)].push_back(std::move(sink));
    return std::make_shared<Feed>();
  }
  // By the device's first feed, or a later one.
  void bring(int device, int number, std::size_t feed = 0) {
    sinks_[device].at(feed)(alarmOf(device, number));
  }

 private:
  struct Feed final : AlarmFeed {
    void stop() override {}
  };
  std::map<int, std::vector<AlarmSink>> sinks_;
};

// A client's stream. It is held up now and then while a part is pushed, so that jobs move to other
// threads.
class Client final : public AnswerLink, public std::enable_shared_from_this<Client> {
 public:
  void open(CEventPto& pto, const std::string& device) {
    RequestHead head;
    head.method = QNHttpService::HTTP_GET;
    head.target = "/KAVRO/Event/notification/alertStream";
    exchange_ = QNHttpService::ExchangeState::create(head, {"", 80, weak_from_this()});
    stHttpRes request;
    request.exchange = std::make_shared<QNHttpService::CHttpExchange>(exchange_);
    std::string body;
    int asynchronous = 0;
    EXPECT_EQ(pto.procAlertStream(body, asynchronous, request, device), 200);
  }
  void close() { exchange_->detach(); }
  std::vector<int> numbers() {
    const std::lock_guard lock(mutex_);
    return numbers_;
  }

  void deliver(const ExchangePtr&, std::string_view) override { ADD_FAILURE(); }
  void openStream(const ExchangePtr&) override {}
  void wakeStream() override {
    if (++wakes_ % 50 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(wakes_ % 30));
    const std::lock_guard lock(mutex_);
    std::string parts;
    if (!exchange_->takeParts(parts)) return;
    exchange_->partsSent();
    constexpr std::string_view kElement = "<activePostCount>";
    for (auto at = parts.find(kElement); at != parts.npos; at = parts.find(kElement, at + 1)) {
      numbers_.push_back(std::stoi(parts.substr(at + kElement.size())));
    }
  }
  bool sendParts(Sending) override { return true; }
  void partDropped() override { ADD_FAILURE(); }

 private:
  ExchangePtr exchange_;
  std::atomic<int> wakes_{0};
  std::mutex mutex_;
  std::vector<int> numbers_;  // guarded by mutex_
};

class AlertOrder : public testing::Test {
 protected:
  AlertOrder() {
    Configuration configuration;
    for (int device = 0; device < kDevices; ++device) {
      configuration.devices.emplace_back().index = std::to_string(device);
    }
    configuration.buildIndexes();
    publishConfiguration(std::make_shared<const Configuration>(configuration));
    bus_.start();
  }
  ~AlertOrder() override {
    bus_.stop();
    publishConfiguration(std::make_shared<const Configuration>());
  }

  Feeds feeds_;
  AlarmBus bus_{feeds_};
};

TEST_F(AlertOrder, IsTheDevicesOrderOnEveryStream) {
  CEventPto pto;
  ASSERT_EQ(pto.start(), 0);
  std::vector<std::shared_ptr<Client>> clients;
  for (int i = 0; i < 2 * kDevices; ++i) {
    clients.push_back(std::make_shared<Client>());
    clients.back()->open(pto, std::to_string(i / 2));
  }
  onThreads(kDevices, [&](int device) {
    for (int number = 0; number < kAlarms; ++number) feeds_.bring(device, number);
  });
  pto.stop();  // all jobs have run
  bus_.stop();
  std::vector<int> sent(kAlarms);
  std::iota(sent.begin(), sent.end(), 0);
  for (const auto& client : clients) {
    EXPECT_EQ(client->numbers(), sent);
    client->close();
  }
}

// The first alarm's delivery takes long; meanwhile the device's feed is opened anew.
TEST_F(AlertOrder, HoldsForAlarmsOfAFeedThatWasReplaced) {
  struct Listener {
    Events begun, goOn, came;
    std::vector<std::string> alarms;

    static int callback(void* data, int length, void* user) {
      auto& self = *static_cast<Listener*>(user);
      const std::string alarm(static_cast<const char*>(data), std::size_t(length));
      self.begun.signal();
      if (alarm == alarmOf(1, 1)) self.goOn.wait();
      self.alarms.push_back(alarm);
      self.came.signal();
      return length;
    }
  } listener;
  int id = -1;
  ASSERT_TRUE(bus_.subscribe({"0", "1"}, Listener::callback, &listener, id));
  ASSERT_TRUE(bus_.startUpload(id));
  std::jthread earlier([&] { feeds_.bring(1, 1); });
  ASSERT_TRUE(listener.begun.wait());
  ASSERT_TRUE(bus_.deleteDevice(id, "1") && bus_.addDevice(id, "1"));
  std::jthread later([&] { feeds_.bring(1, 3, 1); });
  EXPECT_FALSE(listener.came.wait(1, std::chrono::milliseconds(30)));
  listener.goOn.signal();
  EXPECT_TRUE(listener.came.wait(2));
  feeds_.bring(1, 2);  // it was replaced
  EXPECT_EQ(listener.alarms, (std::vector{alarmOf(1, 1), alarmOf(1, 3)}));
}

}  // namespace
}  // namespace qn
