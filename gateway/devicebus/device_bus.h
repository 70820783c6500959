// The device-configuration bus: HTTP/1.1 to the sub-devices over pooled keep-alive connections, on
// the reactors. The functions of platform/device_cfg_bus.h act on the started one.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "gateway/devicebus/shard.h"
#include "gateway/net/reactors.h"
#include "gateway/net/worker_pool.h"
#include "platform/device_cfg_bus.h"

namespace qn::devicebus {

// A request stays on the reactor whose thread makes it; those of other threads are dealt out.
// Recipients run on that reactor, or on a worker for a long reply.
class DeviceBus {
 public:
  struct Call {
    unsigned char method = 0;  // a code of CHttpExchange::getMethod()
    std::string url;
    const std::string& body;
    std::chrono::milliseconds timeout{0};  // from the call on, at most kLongestTimeout
  };

  static constexpr std::chrono::milliseconds kLongestTimeout{60000};
  static constexpr std::size_t kAwaited = 8;

  // All outlive the bus; reactors and workers run until it has stopped.
  DeviceBus(Reactors& reactors, WorkerPool& workers, DeviceDirectory& directory);
  ~DeviceBus();  // stops; no call may be under way
  DeviceBus(const DeviceBus&) = delete;
  DeviceBus& operator=(const DeviceBus&) = delete;

  // From now on the platform's functions come here. One bus at a time.
  void start();
  // Refuses new requests, ends those in flight with the document of a stopping gateway and returns
  // when every recipient has returned, after kStopTime at the latest. Never call it on a reactor.
  // Harmless when repeated.
  void stop();

  // DEVCFGBUS_OK: the recipient takes one answer. Otherwise a refusal, and it takes none.
  int send(Call call, std::unique_ptr<Recipient> recipient);
  // Waits for the device's reply: 0, a refusal, or -1 when there is none. Never on a reactor.
  // Refused like a full queue when kAwaited threads wait for the device already: one that hangs
  // must not keep every worker.
  int ask(Call call, std::string& reply);

  const Sharded<BusCounts>& counts() const { return counts_; }
  std::size_t bytes() const { return tally_.bytes; }  // that its requests hold
  // What long replies hold of their budget. Any thread.
  std::size_t replyMemory() const { return replies_.held(); }

 private:
  static constexpr std::chrono::seconds kStopTime{10};

  Shard* currentShard();
  std::shared_ptr<Device> findDevice(const std::string& url);
  void dispatch(RequestPtr request);

  int admit(const Call& call, BusRequest& request);

  Sharded<BusCounts> counts_;
  Answers answers_;
  DeviceDirectory& directory_;
  Tally tally_;
  ReplyBudget replies_;
  std::vector<std::unique_ptr<Shard>> shards_;  // one for each reactor
  std::atomic<std::size_t> nextShard_{0};
  bool stopped_ = false;
};

}  // namespace qn::devicebus

namespace qn {
using devicebus::DeviceBus;
}
