// See alarm_feed.h.
#include "subdevice/alarm_feed.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <utility>

#include "subdevice/json_text.h"

namespace subdevice {
namespace {

using std::chrono::steady_clock;

// What a device without orders raises, in turn; the first three are of the kinds that become XML.
constexpr std::array<const char*, 4> kOwnAlarms{
    R"({"eventType": "motion", "eventDescription": "Motion alarm", "channelID": "1",
        "channelName": "Camera 1"})",
    R"({"eventType": "fieldDetection", "eventDescription": "Intrusion alarm", "channelID": "1",
        "DetectionRegionList": [{"DetectionRegionEntry": {"regionID": "1", "sensitivityLevel": 50,
          "RegionCoordinatesList": [{"RegionCoordinates": {"positionX": 100, "positionY": 100}},
                                    {"RegionCoordinates": {"positionX": 900, "positionY": 700}}],
          "detectionTarget": "human",
          "TargetRect": {"X": 0.25, "Y": 0.5, "width": 0.125, "height": 0.25}}}]})",
    R"({"eventType": "audioException", "eventDescription": "Sound alarm", "channelID": "1",
        "AudioExceptionDetection": {"alarmType": "rise", "audioDecibel": 72}})",
    R"({"eventType": "AccessControllerEvent", "eventDescription": "Door opened",
        "AccessControllerEvent": {"doorNo": 1, "employeeNo": "1001"}})"};

std::string timeNow() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  gmtime_r(&now, &parts);
  std::array<char, 32> text{};
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text.data();
}

}  // namespace

AlarmFeed::AlarmFeed(boost::asio::io_context& io, std::chrono::milliseconds interval)
    : io_(io), interval_(interval), ownTimer_(io), heartbeatTimer_(io) {}

void AlarmFeed::start() {
  if (interval_.count() > 0) scheduleOwn();
  scheduleHeartbeat();
}

void AlarmFeed::stop() {
  ownTimer_.cancel();
  heartbeatTimer_.cancel();
  orders_.clear();
  closeStreams();
}

void AlarmFeed::closeStreams() {
  for (const auto& stream : streams_) stream->close();
  streams_.clear();
}

bool AlarmFeed::attach(boost::beast::tcp_stream&& stream) {
  if (streams_.size() >= kStreams) return false;
  streams_.push_back(
      std::make_shared<AlertStream>(std::move(stream), framing_, [this](AlertStream* ended) {
        std::erase_if(streams_, [ended](const auto& one) { return one.get() == ended; });
      }));
  streams_.back()->start();
  return true;
}

bool AlarmFeed::order(const Json::Value& order) {
  const uint64_t count = order.get("count", 1).asUInt64();
  const unsigned perSecond = order.get("perSecond", 1000).asUInt();
  const Json::Value alert = order.get("alert", Json::objectValue);
  if (orders_.size() >= kOrders || count == 0 || count > kMostAlarms || perSecond == 0 ||
      perSecond > kMostPerSecond || !alert.isObject())
    return false;
  Order& added = orders_.emplace_back(io_);
  added.begin = steady_clock::now();
  added.alert = alert;
  added.raw = order.get("raw", "").asString();
  added.count = count;
  added.perSecond = perSecond;
  run(std::prev(orders_.end()));
  return true;
}

// Sends what is due since the order began, so that the rate holds however late a timer fires.
void AlarmFeed::run(Orders::iterator order) {
  const auto elapsed = steady_clock::now() - order->begin;
  const double seconds = std::chrono::duration<double>(elapsed).count();
  const uint64_t due = std::min(order->count, 1 + uint64_t(seconds * order->perSecond));
  for (; order->sent < due; ++order->sent)
    raise(order->raw.empty() ? writeJson(alertDocument(order->alert)) : order->raw);
  if (order->sent == order->count) {
    orders_.erase(order);
    return;
  }
  const auto step = std::chrono::nanoseconds(1'000'000'000 / order->perSecond);
  order->timer.expires_after(
      std::max<std::chrono::nanoseconds>(step, std::chrono::milliseconds(1)));
  order->timer.async_wait([this, order](boost::system::error_code error) {
    if (!error) run(order);
  });
}

void AlarmFeed::setFraming(const Json::Value& framing) {
  framing_.lengths = framing.get("lengths", true).asBool();
  framing_.chunked = framing.get("chunked", false).asBool();
  framing_.split = framing.get("split", 0).asUInt();
}

void AlarmFeed::scheduleOwn() {
  ownTimer_.expires_after(interval_);
  ownTimer_.async_wait([this](boost::system::error_code error) {
    if (error) return;
    const char* members = kOwnAlarms[ownAlarms_++ % kOwnAlarms.size()];
    raise(writeJson(alertDocument(parseJson(members).value())));
    scheduleOwn();
  });
}

void AlarmFeed::scheduleHeartbeat() {
  heartbeatTimer_.expires_after(kHeartbeat);
  heartbeatTimer_.async_wait([this](boost::system::error_code error) {
    if (error) return;
    Json::Value members;
    members["eventType"] = "heartBeat";
    members["eventDescription"] = "Heart Beat";
    send(writeJson(alertDocument(members)));
    scheduleHeartbeat();
  });
}

// The members given, after the ones that every alarm has; null takes one away.
Json::Value AlarmFeed::alertDocument(const Json::Value& members) {
  Json::Value document;
  Json::Value& alert = document["EventNotificationAlert"];
  alert["dateTime"] = timeNow();
  alert["activePostCount"] = ++postCount_;
  alert["eventType"] = "motion";
  alert["eventState"] = "active";
  alert["eventDescription"] = "Alarm";
  for (const auto& name : members.getMemberNames()) {
    if (members[name].isNull())
      alert.removeMember(name);
    else
      alert[name] = members[name];
  }
  return document;
}

void AlarmFeed::raise(std::string_view text) {
  ++counters_.raised;
  send(text);
}

void AlarmFeed::send(std::string_view text) {
  for (const auto& stream : streams_) ++(stream->push(text) ? counters_.sent : counters_.dropped);
}

}  // namespace subdevice
