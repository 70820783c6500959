#include "gateway/alarmbus/alarm_bus.h"

#include <json/json.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "gateway/devices/status_documents.h"
#include "gateway/log/log.h"

namespace qn {
namespace {

std::atomic<AlarmBus*> startedBus{nullptr};

// The bus's status text; 0 for success, -1 otherwise.
int answer(std::string& reply, bool success) {
  static const StatusDocuments documents;
  reply = documents.of(success ? ERROR_OK : ERROR_RESOURCE_NOT_FOUND);
  return success ? 0 : -1;
}

const Json::Value& member(const Json::Value& value, const char* name) {
  return value.isObject() ? value[name] : Json::Value::nullSingleton();
}

// The devices of a subscription request; none when it is malformed.
std::vector<std::string> requestedDevices(const std::string& request) {
  Json::Value root;
  try {
    if (!Json::Reader().parse(request, root, false)) return {};
  } catch (const std::exception&) {  // nested too deeply
    return {};
  }
  std::vector<std::string> devices;
  const Json::Value& list = member(member(root, "SubscribeDeviceMgmt"), "DevEventList");
  if (!list.isArray()) return {};
  for (const Json::Value& entry : list) {
    const Json::Value& index = member(member(entry, "Dev"), "devIndex");
    if (!index.isString()) return {};
    devices.push_back(index.asString());
  }
  return devices;
}

}  // namespace

AlarmBus::AlarmBus(Reactors& reactors, WorkerPool& workers, DeviceDirectory& directory,
                   FeedTimes times)
    : own_(std::make_unique<DeviceFeeds>(reactors, workers, directory, times)), opener_(*own_) {}

AlarmBus::~AlarmBus() { stop(); }

void AlarmBus::start() {
  QN_DeviceMgr_NotifyAttach(deviceChanged, this);
  startedBus = this;
  started_ = true;
}

void AlarmBus::stop() {
  if (!std::exchange(started_, false)) return;
  startedBus = nullptr;
  QN_DeviceMgr_NotifyDetach(deviceChanged);
  std::vector<int> ids;
  {
    const MutexLock lock(subscriptions_->mutex);
    for (const auto& [id, subscription] : subscriptions_->byId) ids.push_back(id);
  }
  for (const int id : ids) unsubscribe(id);
}

bool AlarmBus::subscribe(const std::vector<std::string>& devices, AlarmDataCallBack callback,
                         void* user, int& subscribeId) {
  if (devices.empty() || !callback) return false;
  const MutexLock lock(subscriptions_->mutex);
  if (subscriptions_->byId.size() >= kMaxSubscriptions) return false;
  auto subscription = std::make_shared<Subscription>(callback, user);
  for (const auto& device : devices) {
    if (!openFeed(device)) {
      for (const auto& opened : subscription->devices) closeUnusedFeed(opened);
      return false;
    }
    subscription->devices.insert(device);
  }
  subscribeId = ++lastId_;
  subscriptions_->byId.emplace(subscribeId, std::move(subscription));
  return true;
}

bool AlarmBus::unsubscribe(int subscribeId) {
  SharedSubscription subscription;
  {
    const MutexLock lock(subscriptions_->mutex);
    const auto found = subscriptions_->byId.find(subscribeId);
    if (found == subscriptions_->byId.end()) return false;
    subscription = std::move(found->second);
    subscriptions_->byId.erase(found);
    for (const auto& device : subscription->devices) closeUnusedFeed(device);
  }
  const ExclusiveLock wait(subscription->running);
  subscription->ended = true;
  return true;
}

bool AlarmBus::startUpload(int subscribeId) {
  const MutexLock lock(subscriptions_->mutex);
  const auto subscription = find(subscribeId);
  if (subscription) subscription->started = true;
  return subscription != nullptr;
}

bool AlarmBus::addDevice(int subscribeId, const std::string& devIndex) {
  const MutexLock lock(subscriptions_->mutex);
  const auto subscription = find(subscribeId);
  if (!subscription || !openFeed(devIndex)) return false;
  subscription->devices.insert(devIndex);
  return true;
}

bool AlarmBus::deleteDevice(int subscribeId, const std::string& devIndex) {
  const MutexLock lock(subscriptions_->mutex);
  const auto subscription = find(subscribeId);
  if (!subscription) return false;
  if (subscription->devices.erase(devIndex) != 0) closeUnusedFeed(devIndex);
  return true;
}

bool AlarmBus::isValid(int subscribeId) {
  const MutexLock lock(subscriptions_->mutex);
  return find(subscribeId) != nullptr;
}

AlarmBus::SharedSubscription AlarmBus::find(int subscribeId) {
  const auto found = subscriptions_->byId.find(subscribeId);
  return found == subscriptions_->byId.end() ? nullptr : found->second;
}

// False when there is no such device. One feed serves all subscriptions.
bool AlarmBus::openFeed(const std::string& devIndex) {
  if (feeds_.contains(devIndex)) return true;
  const auto& current = configuration();
  const DeviceConfig* device = current->findDevice(devIndex);
  if (!device) return false;
  auto turn = turnOf(devIndex);
  const unsigned number = ++turn->feeds;
  auto feed = opener_.open(
      *device, [subscriptions = subscriptions_, devIndex, turn, number](const std::string& alarm) {
        const MutexLock lock(turn->mutex);
        if (turn->feeds == number) subscriptions->deliver(devIndex, alarm);
      });
  feeds_.emplace(devIndex, OpenFeed{std::move(turn), std::move(feed)});
  return true;
}

// The last feed's, as long as that may deliver.
std::shared_ptr<AlarmBus::Turn> AlarmBus::turnOf(const std::string& devIndex) {
  std::erase_if(closed_, [](const auto& entry) { return entry.second.expired(); });
  const auto found = closed_.find(devIndex);
  auto turn = found == closed_.end() ? nullptr : found->second.lock();
  return turn ? turn : std::make_shared<Turn>();
}

void AlarmBus::closeFeed(const std::string& devIndex) {
  const auto found = feeds_.find(devIndex);
  if (found == feeds_.end()) return;
  found->second.feed->stop();
  closed_[devIndex] = found->second.turn;
  feeds_.erase(found);
}

void AlarmBus::closeUnusedFeed(const std::string& devIndex) {
  if (!subscriptions_->want(devIndex)) closeFeed(devIndex);
}

bool AlarmBus::Subscriptions::want(const std::string& devIndex) const {
  return std::any_of(byId.begin(), byId.end(),
                     [&](const auto& entry) { return entry.second->devices.contains(devIndex); });
}

std::vector<AlarmBus::SharedSubscription> AlarmBus::Subscriptions::of(const std::string& devIndex) {
  std::vector<SharedSubscription> subscribers;
  const MutexLock lock(mutex);
  for (const auto& [id, subscription] : byId) {
    if (subscription->started && subscription->devices.contains(devIndex)) {
      subscribers.push_back(subscription);
    }
  }
  return subscribers;
}

void AlarmBus::Subscriptions::remember(const std::string& devIndex, const std::string& alarm) {
  if (alarm.find("Heart Beat") != std::string::npos) return;
  recent.add([&](RecentAlarm& entry) {
    entry.time = std::chrono::system_clock::now();
    entry.device = devIndex;
    entry.text.assign(alarm, 0, alarm.size() <= RecentAlarm::kText ? alarm.size() : 0);
  });
}

void AlarmBus::Subscriptions::deliver(const std::string& devIndex, const std::string& alarm) {
  remember(devIndex, alarm);
  const ThreadLoan loan;  // ends when the subscription may end
  for (const auto& subscription : of(devIndex)) {
    const SharedLock running(subscription->running);
    if (subscription->ended) continue;
    try {
      subscription->callback(const_cast<char*>(alarm.data()), static_cast<int>(alarm.size()),
                             subscription->user);
    } catch (const std::exception& error) {
      logError("an alarm callback has thrown: {}", error.what());
    } catch (...) {
      logError("an alarm callback has thrown");
    }
  }
}

void AlarmBus::deviceChanged(tagNotifyType type, void* devIndex, const void* user) {
  auto* const bus = const_cast<AlarmBus*>(static_cast<const AlarmBus*>(user));
  bus->deviceChanged(type, static_cast<const char*>(devIndex));
}

// A subscription keeps a removed device, so that its alarms flow again when it is configured again.
void AlarmBus::deviceChanged(tagNotifyType type, const std::string& devIndex) {
  const MutexLock lock(subscriptions_->mutex);
  closeFeed(devIndex);
  if (type == DEVICE_REMOVED) return;
  if (subscriptions_->want(devIndex)) openFeed(devIndex);
}

}  // namespace qn

int QN_AlarmBus_Subscribe(std::string& reply, const std::string& request,
                          AlarmDataCallBack callback, void* user, int /*option*/,
                          int& subscribeId) {
  auto* const bus = qn::startedBus.load();
  return qn::answer(
      reply, bus && bus->subscribe(qn::requestedDevices(request), callback, user, subscribeId));
}

int QN_AlarmBus_UnSubscribe(std::string& reply, int subscribeId, int /*option*/) {
  auto* const bus = qn::startedBus.load();
  return qn::answer(reply, bus && bus->unsubscribe(subscribeId));
}

int QN_AlarmBus_StartUploadData(int subscribeId) {
  auto* const bus = qn::startedBus.load();
  return bus && bus->startUpload(subscribeId) ? 0 : -1;
}

int QN_AlarmBus_AddDevice(std::string& reply, int subscribeId, const std::string& devIndex,
                          const std::string& /*request*/) {
  auto* const bus = qn::startedBus.load();
  return qn::answer(reply, bus && bus->addDevice(subscribeId, devIndex));
}

int QN_AlarmBus_DeleteDevice(std::string& reply, int subscribeId, const std::string& devIndex) {
  auto* const bus = qn::startedBus.load();
  return qn::answer(reply, bus && bus->deleteDevice(subscribeId, devIndex));
}

int QN_AlarmBus_CheckIDValid(int subscribeId) {
  auto* const bus = qn::startedBus.load();
  return bus && bus->isValid(subscribeId) ? 1 : 0;
}
