#include "gateway/devicebus/device_bus.h"

#include <algorithm>
#include <array>
#include <boost/asio/post.hpp>
#include <exception>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>

#include "gateway/config/configuration.h"
#include "gateway/devicebus/device_url.h"
#include "gateway/log/log.h"
#include "gateway/log/request_id.h"
#include "gateway/sync/mutex.h"
#include "platform/rest_protocol.h"
#include "text/bytes.h"

namespace qn::devicebus {
namespace {

std::atomic<DeviceBus*> startedBus{nullptr};

// Where the answer and the thread that waits for it meet; the latter may have gone.
class Meeting {
 public:
  void bring(std::string_view answer, Origin origin) {
    const MutexLock lock(mutex_);
    origin_ = origin;
    answer_ = answer;
    brought_.notifyOne();
  }

  bool waitForReply(std::chrono::steady_clock::time_point deadline, std::string& reply) {
    const MutexLock lock(mutex_);
    while (!origin_ && brought_.waitUntil(mutex_, deadline)) {
    }
    if (origin_ != Origin::Device) return false;
    reply = std::move(answer_);
    return true;
  }

 private:
  Mutex mutex_;
  Condition brought_;
  std::optional<Origin> origin_ QN_GUARDED_BY(mutex_);
  std::string answer_ QN_GUARDED_BY(mutex_);
};

// Keeps off the worker pool: the thread that waits may be a worker.
class WaitingRecipient final : public Recipient {
 public:
  explicit WaitingRecipient(std::shared_ptr<Meeting> meeting) : meeting_(std::move(meeting)) {}
  void take(std::string_view answer, Origin origin) noexcept override {
    meeting_->bring(answer, origin);
  }
  bool isTranslator() const override { return false; }

 private:
  const std::shared_ptr<Meeting> meeting_;
};

// One of the threads that wait for a device.
class Awaiting {
 public:
  explicit Awaiting(Device& device)
      : awaited_(device.awaited), allowed_(++awaited_ <= DeviceBus::kAwaited) {}
  ~Awaiting() { --awaited_; }
  Awaiting(const Awaiting&) = delete;
  Awaiting& operator=(const Awaiting&) = delete;

  bool isAllowed() const { return allowed_; }

 private:
  std::atomic<std::size_t>& awaited_;
  const bool allowed_;
};

class CallbackRecipient final : public Recipient {
 public:
  CallbackRecipient(DeviceCfgCallBack callback, void* userData)
      : callback_(callback), userData_(userData) {}

  void take(std::string_view answer, Origin) noexcept override {
    try {
      callback_(const_cast<char*>(answer.data()), static_cast<int>(answer.size()), userData_);
    } catch (const std::exception& exception) {
      logError("device bus: a callback has thrown: {}", exception.what());
    } catch (...) {
      logError("device bus: a callback has thrown");
    }
  }
  bool isTranslator() const override { return true; }

 private:
  const DeviceCfgCallBack callback_;
  void* const userData_;
};

// Runs a call on the started bus; what it throws is a want of resources.
template <typename Action>
int onStartedBus(Action action) noexcept {
  DeviceBus* const bus = startedBus;
  if (!bus) return DEVCFGBUS_STOPPING;
  try {
    return action(*bus);
  } catch (const std::exception& exception) {
    logError("device bus: {}", exception.what());
    return DEVCFGBUS_QUEUE_FULL;
  }
}

std::chrono::milliseconds bounded(std::chrono::milliseconds timeout) {
  return std::clamp(timeout, std::chrono::milliseconds(0), DeviceBus::kLongestTimeout);
}

// Looks instead of being told: who leaves the tally touches nothing of the bus afterwards.
template <typename Condition>
bool holdsBefore(std::chrono::steady_clock::time_point deadline, Condition condition) {
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace

DeviceBus::DeviceBus(Reactors& reactors, WorkerPool& workers, DeviceDirectory& directory)
    : answers_(workers, counts_), directory_(directory) {
  for (std::size_t i = 0; i < reactors.size(); ++i) {
    shards_.push_back(
        std::make_unique<Shard>(reactors.context(i), answers_, directory_, reactors.size()));
  }
}

DeviceBus::~DeviceBus() {
  stop();
  DeviceBus* self = this;
  startedBus.compare_exchange_strong(self, nullptr);
}

void DeviceBus::start() { startedBus = this; }

void DeviceBus::stop() {
  if (std::exchange(stopped_, true)) return;
  tally_.close();
  const auto deadline = std::chrono::steady_clock::now() + kStopTime;
  for (const auto& shard : shards_) {
    boost::asio::post(shard->reactor(), [&shard = *shard] { shard.shutDown(); });
  }
  // The handlers that ended the requests may still be running when the tally is empty.
  const auto handlersLeft = std::make_shared<std::atomic<std::size_t>>(shards_.size());
  const bool ended = holdsBefore(deadline, [this] { return tally_.empty(); });
  for (const auto& shard : shards_) {
    boost::asio::post(shard->reactor(), [handlersLeft] { --*handlersLeft; });
  }
  if (!ended || !holdsBefore(deadline, [&] { return *handlersLeft == 0; })) {
    logError("device bus: some requests have not ended");
  }
}

Shard* DeviceBus::currentShard() {
  const int current = Reactors::current();
  return current == Reactors::kNone ? nullptr : shards_[static_cast<std::size_t>(current)].get();
}

std::shared_ptr<Device> DeviceBus::findDevice(const std::string& url) {
  const std::string index = namedDevice(url);
  if (Shard* const shard = currentShard()) return shard->device(index);
  const DeviceConfig* const config = configuration()->findDevice(index);
  return config ? directory_.find(*config) : nullptr;
}

int DeviceBus::send(Call call, std::unique_ptr<Recipient> recipient) {
  auto request = std::make_unique<BusRequest>(replies_);
  const int refusal = admit(call, *request);
  if (refusal != DEVCFGBUS_OK) {
    BusCounts& counts = counts_.here();
    (refusal == DEVCFGBUS_QUEUE_FULL ? counts.refusedFull : counts.refusedOther).add();
    return refusal;
  }
  const std::string_view id = RequestIdScope::current();
  if (!id.empty()) text::appendAll(request->idLine, {kRequestIdField, id, "\r\n"});
  request->url = std::move(call.url);
  request->body = call.body;
  request->recipient = std::move(recipient);
  request->accepted = std::chrono::steady_clock::now();
  request->deadline = request->accepted + bounded(call.timeout);
  dispatch(std::move(request));
  return DEVCFGBUS_OK;
}

// Gives the request its method, its device and its place, or says why not.
int DeviceBus::admit(const Call& call, BusRequest& request) {
  request.method = QNBase::CRESTfulProtocol::GetMethod(call.method);
  if (request.method.empty() || !isRequestTarget(call.url)) return DEVCFGBUS_BAD_ARGUMENT;
  request.device = findDevice(call.url);
  if (!request.device) return DEVCFGBUS_UNKNOWN_DEVICE;
  switch (request.place.enter(tally_, request.device, configuration()->bus,
                              call.url.size() + call.body.size())) {
    case Place::Refusal::Stopping:
      return DEVCFGBUS_STOPPING;
    case Place::Refusal::Full:
      request.device->counts.turnedAway.add();
      return DEVCFGBUS_QUEUE_FULL;
    case Place::Refusal::None:
      break;
  }
  return DEVCFGBUS_OK;
}

void DeviceBus::dispatch(RequestPtr request) {
  if (Shard* const shard = currentShard()) return shard->accept(std::move(request));
  Shard& shard = *shards_[nextShard_++ % shards_.size()];
  boost::asio::post(shard.reactor(), [&shard, request = std::move(request)]() mutable {
    shard.acceptPosted(std::move(request));
  });
}

int DeviceBus::ask(Call call, std::string& reply) {
  if (Reactors::current() != Reactors::kNone) {
    logError("device bus: a reactor may not wait for a device");
    return -1;
  }
  const std::shared_ptr<Device> device = findDevice(call.url);
  if (!device) return DEVCFGBUS_UNKNOWN_DEVICE;
  const Awaiting awaiting(*device);
  if (!awaiting.isAllowed()) return DEVCFGBUS_QUEUE_FULL;
  const auto deadline = std::chrono::steady_clock::now() + bounded(call.timeout);
  const auto meeting = std::make_shared<Meeting>();
  const int refusal = send(std::move(call), std::make_unique<WaitingRecipient>(meeting));
  if (refusal != DEVCFGBUS_OK) return refusal;
  return meeting->waitForReply(deadline, reply) ? 0 : -1;
}

}  // namespace qn::devicebus

int QN_DeviceCfgBus_ProcessAsyn(unsigned char method, std::string jsonUrl,
                                const std::string& jsonBody, DeviceCfgCallBack callback,
                                void* userData, int timeoutMs) {
  return qn::devicebus::onStartedBus([&](qn::DeviceBus& bus) {
    return bus.send({method, std::move(jsonUrl), jsonBody, std::chrono::milliseconds(timeoutMs)},
                    std::make_unique<qn::devicebus::CallbackRecipient>(callback, userData));
  });
}

int QN_DeviceCfgBus_ProcessSyn(unsigned char method, std::string jsonUrl,
                               const std::string& jsonBody, std::string& reply, int timeoutMs) {
  return qn::devicebus::onStartedBus([&](qn::DeviceBus& bus) {
    return bus.ask({method, std::move(jsonUrl), jsonBody, std::chrono::milliseconds(timeoutMs)},
                   reply);
  });
}
