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

class Feeds final : public FeedOpener {
 public:
  std::shared_ptr<AlarmFeed> open(const DeviceConfig& device, AlarmSink sink) override {
    sinks_[std::stoi(device.index)] = std::move(sink);
    return std::make_shared<Feed>();
  }
  void bring(int device, int number) {
    sinks_[device](R"({"EventNotificationAlert":{"eventType":"x","activePostCount":)" +
                   std::to_string(number) + R"(,"devIndex":")" + std::to_string(device) + R"("}})");
  }

 private:
  struct Feed final : AlarmFeed {
    void stop() override {}
  };
  std::map<int, AlarmSink> sinks_;
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

TEST(AlertOrder, IsTheDevicesOrderOnEveryStream) {
  Configuration configuration;
  for (int device = 0; device < kDevices; ++device) {
    configuration.devices.emplace_back().index = std::to_string(device);
  }
  configuration.buildIndexes();
  publishConfiguration(std::make_shared<const Configuration>(configuration));
  Feeds feeds;
  AlarmBus bus(feeds);
  bus.start();
  CEventPto pto;
  ASSERT_EQ(pto.start(), 0);
  std::vector<std::shared_ptr<Client>> clients;
  for (int i = 0; i < 2 * kDevices; ++i) {
    clients.push_back(std::make_shared<Client>());
    clients.back()->open(pto, std::to_string(i / 2));
  }
  onThreads(kDevices, [&](int device) {
    for (int number = 0; number < kAlarms; ++number) feeds.bring(device, number);
  });
  pto.stop();  // all jobs have run
  bus.stop();
  std::vector<int> sent(kAlarms);
  std::iota(sent.begin(), sent.end(), 0);
  for (const auto& client : clients) {
    EXPECT_EQ(client->numbers(), sent);
    client->close();
  }
  publishConfiguration(std::make_shared<const Configuration>());
}

}  // namespace
}  // namespace qn
