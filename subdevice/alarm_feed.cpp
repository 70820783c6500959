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

struct AlarmType {
  std::string_view name;
  const char* members;
};

// The first ones are what a device without orders raises, in turn; three of them become XML.
constexpr std::size_t kOwnAlarms = 4;
constexpr std::array<AlarmType, 14> kTypes{{
    {"motion", R"({"eventDescription": "Motion alarm", "channelID": "1",
        "channelName": "Camera 1"})"},
    {"fieldDetection", R"({"eventDescription": "Intrusion alarm", "channelID": "1",
        "DetectionRegionList": [{"DetectionRegionEntry": {"regionID": "1", "sensitivityLevel": 50,
          "RegionCoordinatesList": [{"RegionCoordinates": {"positionX": 100, "positionY": 100}},
                                    {"RegionCoordinates": {"positionX": 900, "positionY": 700}}],
          "detectionTarget": "human",
          "TargetRect": {"X": 0.25, "Y": 0.5, "width": 0.125, "height": 0.25}}}]})"},
    {"audioException", R"({"eventDescription": "Sound alarm", "channelID": "1",
        "AudioExceptionDetection": {"alarmType": "rise", "audioDecibel": 72}})"},
    {"AccessControllerEvent", R"({"eventDescription": "Door opened",
        "AccessControllerEvent": {"doorNo": 1, "employeeNo": "1001"}})"},
    {"lineDetection", R"({"eventDescription": "Line crossed", "channelID": "1"})"},
    {"videoLoss", R"({"eventDescription": "No picture", "channelID": "1"})"},
    {"IO", R"({"eventDescription": "Input switched", "inputIOPortID": 1})"},
    {"batteryStatus", R"({"batteryStatus": {"percent": 15}})"},
    {"devStatusChanged", R"({"devStatusChanged": {"status": "offline"}})"},
    {"FaceTemperatureMeasurementEvent",
     R"({"FaceTemperatureMeasurementEvent": {"currTemperature": 36.5}})"},
    {"LocalUserChange", R"({"LocalUserChange": {"user": "guest", "action": "add"}})"},
    {"IDCardInfoEvent", R"({"IDCardInfoEvent": {"cardNo": "9000000001"}})"},
    {"QRCodeEvent", R"({"QRCodeEvent": {"text": "visit 17"}})"},
    {"devXmlEvent", R"({"devXmlEvent": {"text": "<event/>"}})"},
}};

Json::Value membersOf(const AlarmType& type) {
  Json::Value members = parseJson(type.members).value();
  members["eventType"] = std::string(type.name);
  return members;
}

std::string timeNow() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  gmtime_r(&now, &parts);
  std::array<char, 32> text{};
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text.data();
}

}  // namespace

std::vector<std::string_view> alarmTypes() {
  std::vector<std::string_view> names(kTypes.size());
  std::ranges::transform(kTypes, names.begin(), &AlarmType::name);
  return names;
}

AlarmFeed::AlarmFeed(boost::asio::io_context& io, std::chrono::milliseconds interval)
    : io_(io), interval_(interval), ownTimer_(io), heartbeatTimer_(io) {}

void AlarmFeed::start() {
  if (interval_.count() > 0) scheduleOwn();
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

bool AlarmFeed::attach(ClientStream&& stream) {
  if (streams_.size() >= kStreams) return false;
  streams_.push_back(
      std::make_shared<AlertStream>(std::move(stream), framing_, [this](AlertStream* ended) {
        std::erase_if(streams_, [ended](const auto& one) { return one.get() == ended; });
      }));
  streams_.back()->setLink(bytesPerSecond_);
  streams_.back()->start();
  if (streams_.size() == 1) scheduleHeartbeat();
  return true;
}

bool AlarmFeed::order(const Json::Value& order) {
  if (orders_.size() >= kOrders) return false;
  Order& added = orders_.emplace_back(io_);
  added.begin = steady_clock::now();
  added.alert = Json::objectValue;
  const std::string name = order.get("type", "").asString();
  const auto* type = std::ranges::find(kTypes, name, &AlarmType::name);
  if (type != kTypes.end()) added.alert = membersOf(*type);
  const Json::Value changes = order.get("alert", Json::objectValue);
  for (const auto& member : changes.getMemberNames()) added.alert[member] = changes[member];
  added.raw = order.get("raw", "").asString();
  added.count = order.get("count", 1).asUInt64();
  added.perSecond = order.get("perSecond", 1000).asUInt();
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

void AlarmFeed::setLink(std::size_t bytesPerSecond) {
  bytesPerSecond_ = bytesPerSecond;
  for (const auto& stream : streams_) stream->setLink(bytesPerSecond);
}

void AlarmFeed::scheduleOwn() {
  ownTimer_.expires_after(interval_);
  ownTimer_.async_wait([this](boost::system::error_code error) {
    if (error) return;
    raise(writeJson(alertDocument(membersOf(kTypes[ownAlarms_++ % kOwnAlarms]))));
    scheduleOwn();
  });
}

void AlarmFeed::scheduleHeartbeat() {
  heartbeatTimer_.expires_after(kHeartbeat);
  heartbeatTimer_.async_wait([this](boost::system::error_code error) {
    if (error || streams_.empty()) return;
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
