// What all connections and listeners of one HTTP service share: options, limits, counters, and the
// way a complete request goes to the protocol module.
#pragma once

#include <atomic>
#include <boost/asio/ip/address.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "gateway/config/configuration.h"
#include "gateway/http/exchange.h"
#include "gateway/http/memory_budget.h"
#include "gateway/net/reactors.h"
#include "gateway/net/worker_pool.h"
#include "gateway/sync/mutex.h"
#include "platform/slow_resources.h"

namespace qn {

class StreamSender;

// The shape of QN_Protocol_HTTPProcess.
using ProcessFunction = int (*)(int& bodyIsXml, std::string& body, int& asyncReply,
                                const QNHttpService::stHttpRes& request);

// A part of the URL space that the service serves itself: the module is not asked, so there is no
// login unless `serve` sees to it.
struct OwnResource {
  std::string prefix;  // of the URL
  // Answers the exchange. On a worker thread, several at once; may block.
  std::function<void(QNHttpService::ExchangeState&)> serve;
};

// Where requests run that block. Apart from each other, so that devices that hang keep no picture
// waiting.
struct HttpWorkers {
  WorkerPool& files;    // pictures come and go
  WorkerPool& devices;  // the rest, which waits for a device
};

// What a listening port gives to those who connect to it; Nothing: they are told to come later.
enum class Access { Everything, OwnResources, Nothing };

// Bounds that no operator needs to change; tests shorten them.
struct HttpBounds {
  std::chrono::milliseconds answer = kAnswerTimeout;
  std::chrono::milliseconds stalled{60'000};   // a peer that takes nothing of what is written
  std::chrono::milliseconds silent{30'000};    // a stream without a successful write
  std::chrono::milliseconds linger{2'000};     // for the client to read the last answer
  std::chrono::milliseconds acceptPause{100};  // after accept failed for want of resources
  // Of all connections together. Apart from each other, because anybody can send bodies.
  std::size_t bodyMemory = 256 * 1024 * 1024;    // bodies not complete or waiting for a worker
  std::size_t answerMemory = 256 * 1024 * 1024;  // what clients have not taken of their answers
};

// An IPv4 client of an IPv6 socket has its IPv4 address. Everything below takes plain addresses.
boost::asio::ip::address plainAddress(const boost::asio::ip::address& peer);

// Counts connections, in all and for each client address; any thread.
class ConnectionCount {
 public:
  ConnectionCount(std::size_t connections, std::size_t perAddress)
      : connections_(connections), perAddress_(perAddress) {}

  bool enter(const boost::asio::ip::address& address);
  void leave(const boost::asio::ip::address& address);

 private:
  const std::size_t connections_;
  const std::size_t perAddress_;
  Mutex mutex_;
  std::size_t open_ QN_GUARDED_BY(mutex_) = 0;
  std::map<boost::asio::ip::address, std::size_t> byAddress_ QN_GUARDED_BY(mutex_);
};

// A connection as the service sees it, on the connection's own reactor only.
class OpenConnection {
 public:
  virtual ~OpenConnection() = default;
  virtual void close() = 0;
  // Closes a stream of somebody whom the configuration in force does not allow it any more.
  virtual void closeUnlessAllowed() = 0;
};

class ServiceCore : public std::enable_shared_from_this<ServiceCore> {
 public:
  ServiceCore(Reactors& reactors, HttpWorkers workers, const HttpOptions& options,
              const HttpBounds& bounds, ProcessFunction process,
              std::vector<OwnResource> resources);

  // Hands a complete request over and sends its answer, unless that is left to the module; what
  // may block is queued for the worker pool. On the reactor of the exchange's connection, whose
  // access it is. `body` is used before the call returns.
  void handOver(const ExchangePtr& exchange, Access access, std::string_view body);

  bool trusts(const boost::asio::ip::address& peer) const;
  // The client behind a peer that is trusted. Proxies append the address they see to
  // X-Forwarded-For, so what stands before the first that no trusted proxy wrote is the client's
  // own invention.
  std::string clientAddress(boost::asio::ip::address peer, std::string_view fields) const;
  std::size_t nextReactor() { return next_.fetch_add(1) % reactors.size(); }

  // A request in flight; false when there are too many.
  bool enterRequest();
  void leaveRequest() { requests_.fetch_sub(1); }
  std::size_t requestsInFlight() const { return requests_.load(); }

  Reactors& reactors;
  const HttpOptions options;
  const HttpBounds bounds;
  ConnectionCount admission;
  ConnectionCount refusals;  // connections over the limit that are being told so
  MemoryBudget bodies;
  MemoryBudget unsentAnswers;
  std::atomic<bool> stopping{false};
  // One set for each reactor, used on that reactor only.
  std::vector<std::unordered_set<OpenConnection*>> open;
  std::vector<std::shared_ptr<StreamSender>> senders;  // one for each reactor

 private:
  const OwnResource* findResource(std::string_view url) const;
  // On the workers, or refuses the exchange when their queue is full.
  template <class Job>
  static void queue(WorkerPool& workers, const ExchangePtr& exchange, Job job);
  void queueWithBody(WorkerPool& workers, const ExchangePtr& exchange, std::string_view body);
  void process(const ExchangePtr& exchange, std::string_view body) const;
  void processOrThrow(const ExchangePtr& exchange, std::string_view body) const;

  const HttpWorkers workers_;
  const ProcessFunction process_;
  const std::vector<OwnResource> resources_;
  std::vector<boost::asio::ip::address> trusted_;
  std::atomic<std::size_t> next_{0};
  std::atomic<std::size_t> requests_{0};
};

}  // namespace qn
