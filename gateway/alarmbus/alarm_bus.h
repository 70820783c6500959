// The alarm bus: who has subscribed to which devices, and one feed for each such device. Made by
// the host; the operations of platform/alarm_bus.h act on the started one.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "gateway/alarmbus/device_feed.h"
#include "gateway/devices/device.h"
#include "gateway/metrics/recent.h"
#include "gateway/net/reactors.h"
#include "gateway/sync/mutex.h"
#include "platform/alarm_bus.h"
#include "platform/device_mgr.h"

namespace qn {

// An alarm for the operator's page; heartbeats are none.
struct RecentAlarm {
  std::chrono::system_clock::time_point time;  // of its arrival
  std::string device;
  std::string text;  // the document; empty when it is longer than kText

  static constexpr std::size_t kText = 4096;
};

class AlarmBus {
 public:
  static constexpr std::size_t kRecentAlarms = 64;
  using RecentAlarms = Recent<RecentAlarm, kRecentAlarms>;

  // All outlive the bus; reactors and workers also what is left of its feeds, so the workers are
  // stopped before the reactors.
  AlarmBus(Reactors& reactors, WorkerPool& workers, DeviceDirectory& directory,
           FeedTimes times = {});
  // With feeds from elsewhere; it outlives the bus.
  explicit AlarmBus(FeedOpener& opener) : opener_(opener) {}
  ~AlarmBus();  // stops
  AlarmBus(const AlarmBus&) = delete;
  AlarmBus& operator=(const AlarmBus&) = delete;

  void start();
  // Ends all subscriptions; no callback runs afterwards. Harmless when repeated.
  void stop();

  // See platform/alarm_bus.h. The devices must be configured.
  bool subscribe(const std::vector<std::string>& devices, AlarmDataCallBack callback, void* user,
                 int& subscribeId);
  bool unsubscribe(int subscribeId);
  bool startUpload(int subscribeId);
  bool addDevice(int subscribeId, const std::string& devIndex);
  bool deleteDevice(int subscribeId, const std::string& devIndex);
  bool isValid(int subscribeId);

  static constexpr std::size_t kMaxSubscriptions = 16;

  const RecentAlarms& recent() const { return subscriptions_->recent; }

 private:
  struct Subscription {
    Subscription(AlarmDataCallBack routine, void* userData) : callback(routine), user(userData) {}

    const AlarmDataCallBack callback;
    void* const user;
    std::atomic<bool> started{false};
    SharedMutex running;  // shared by running callbacks, exclusive to end them
    bool ended QN_GUARDED_BY(running) = false;
    std::set<std::string> devices;  // guarded by the mutex of Subscriptions
  };
  using SharedSubscription = std::shared_ptr<Subscription>;

  // So that no alarm of a device passes one that an earlier feed of it has begun to deliver.
  struct Turn {
    Mutex mutex;                     // held while an alarm is delivered
    std::atomic<unsigned> feeds{0};  // so far; only the last one's alarms are delivered
  };
  struct OpenFeed {
    std::shared_ptr<Turn> turn;
    std::shared_ptr<AlarmFeed> feed;
  };

  // Shared with the feeds, whose last alarm may come when the bus is gone.
  struct Subscriptions {
    Mutex mutex;
    std::map<int, SharedSubscription> byId QN_GUARDED_BY(mutex);
    RecentAlarms recent;

    void remember(const std::string& devIndex, const std::string& alarm);
    void deliver(const std::string& devIndex, const std::string& alarm);
    std::vector<SharedSubscription> of(const std::string& devIndex);
    bool want(const std::string& devIndex) const QN_REQUIRES(mutex);
  };

  static void deviceChanged(tagNotifyType type, void* devIndex, const void* user);
  void deviceChanged(tagNotifyType type, const std::string& devIndex);

  bool openFeed(const std::string& devIndex) QN_REQUIRES(subscriptions_->mutex);
  std::shared_ptr<Turn> turnOf(const std::string& devIndex) QN_REQUIRES(subscriptions_->mutex);
  void closeFeed(const std::string& devIndex) QN_REQUIRES(subscriptions_->mutex);
  void closeUnusedFeed(const std::string& devIndex) QN_REQUIRES(subscriptions_->mutex);
  SharedSubscription find(int subscribeId) QN_REQUIRES(subscriptions_->mutex);

  const std::unique_ptr<FeedOpener> own_;
  FeedOpener& opener_;
  const std::shared_ptr<Subscriptions> subscriptions_ = std::make_shared<Subscriptions>();
  std::map<std::string, OpenFeed> feeds_ QN_GUARDED_BY(subscriptions_->mutex);
  // Of feeds that were closed and may not have ended yet.
  std::map<std::string, std::weak_ptr<Turn>> closed_ QN_GUARDED_BY(subscriptions_->mutex);
  int lastId_ QN_GUARDED_BY(subscriptions_->mutex) = -1;
  bool started_ = false;  // host's thread only
};

}  // namespace qn
