// What all connections and listeners of one HTTP service share: options, limits, counters, and the
// way a complete request goes to the protocol module.
#pragma once

#include <atomic>
#include <boost/asio/ip/address.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "gateway/config/configuration.h"
#include "gateway/http/bounds.h"
#include "gateway/http/client_address.h"
#include "gateway/http/exchange.h"
#include "gateway/http/handshakes.h"
#include "gateway/http/memory_budget.h"
#include "gateway/http/places.h"
#include "gateway/http/stream_list.h"
#include "gateway/metrics/counts.h"
#include "gateway/net/reactors.h"
#include "gateway/net/worker_pool.h"
#include "gateway/tls/tls_server.h"

namespace qn {

class StreamSender;

// The shape of QN_Protocol_HTTPProcess.
using ProcessFunction = int (*)(int& bodyIsXml, std::string& body, int& asyncReply,
                                const QNHttpService::stHttpRes& request);

// Whether an Authorization value would log in for a request with this method name, without counting
// it as an attempt or as a use of its nonce.
using RecogniseFunction = bool (*)(std::string_view method, std::string_view authorization);

// Requests that wait before the module gets them, because another gateway has their nonces.
struct AwaitFunctions {
  // False, at next to no cost, for most that need not.
  bool (*mayWait)(std::string_view authorization) = nullptr;
  // Whether a request with this Authorization value has to; then `ready` is called once, on any
  // thread, soon.
  bool (*wait)(std::string_view method, std::string_view authorization,
               std::function<void()> ready) = nullptr;
};

// How the service reaches the module and its login. Without `recognise` nobody is a stranger,
// without `await` nothing waits.
struct ModuleEntry {
  ModuleEntry(ProcessFunction processIn, RecogniseFunction recogniseIn = nullptr,
              AwaitFunctions awaitIn = {})
      : process(processIn), recognise(recogniseIn), await(awaitIn) {}

  ProcessFunction process;
  RecogniseFunction recognise;
  AwaitFunctions await;
};

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

// What a listening port gives to those who connect to it; Redirection: where it is with HTTPS;
// Nothing: they are told to come later.
enum class Access { Everything, OwnResources, Redirection, Nothing };

// How a connection came.
struct Arrival {
  Places::Place place;
  boost::asio::ip::address peer;  // plain
  uint16_t port;                  // of ours
  Access access;
};

// How much of what is bounded is in use.
struct ServiceLoad {
  struct Budget {
    std::size_t bytes;
    std::size_t most;
    uint64_t refusals;  // ever
  };

  std::size_t connections;
  std::size_t mostConnections;
  std::size_t requests;  // in flight
  std::size_t mostRequests;
  std::size_t handshakes;  // of TLS, under way
  Budget bodies;
  Budget strangersBodies;
  Budget answers;
};

// A connection as the service sees it, on the connection's own reactor only.
class OpenConnection {
 public:
  virtual ~OpenConnection() = default;
  virtual void close() = 0;
  // Nothing while a request, or a piece of one, is there.
  virtual std::optional<std::chrono::steady_clock::time_point> idleSince() const = 0;
  // Closes a stream of somebody whom the configuration in force does not allow it any more.
  virtual void closeUnlessAllowed() = 0;
  virtual bool isStream() const = 0;
};

class ServiceCore : public std::enable_shared_from_this<ServiceCore> {
 public:
  // Throws std::runtime_error for certificates that OpenSSL refuses.
  ServiceCore(Reactors& reactors, HttpWorkers workers, const HttpOptions& options,
              const HttpsOptions& https, const HttpBounds& bounds, ModuleEntry module,
              std::vector<OwnResource> resources);

  // Hands a complete request over and sends its answer, unless that is left to the module; what
  // may block is queued for the worker pool. On the reactor of the exchange's connection, whose
  // access it is. `body` is used before the call returns.
  void handOver(const ExchangePtr& exchange, Access access, std::string_view body);

  std::size_t nextReactor() { return next_.fetch_add(1) % reactors.size(); }

  // A request in flight; false when there are too many.
  bool enterRequest();
  void leaveRequest() { requests_.fetch_sub(1); }
  std::size_t requestsInFlight() const { return requests_.load(); }

  ServiceLoad load() const;

  // When all places are taken: closes the longest idle connections, a few of each reactor, and then
  // calls `done`. False, without a call, when there was none a moment ago. On the first reactor,
  // where `done` is called too.
  bool takeBackIdle(const std::function<void()>& done);

  // Nobody's request: the module answers it without a look at its body.
  bool isAnonymous(const ExchangeState& exchange) const;
  // What the body of this request is to be held of: the clients' budget when its credentials are
  // right, a small one otherwise.
  MemoryBudget::Share bodyShare(const ExchangeState& exchange);
  // What is left to write of an answer; of a refusal without an exchange by its peer.
  MemoryBudget::Share answerShare(const ExchangeState& exchange);
  MemoryBudget::Share answerShare(const boost::asio::ip::address& peer);

  // Runs it on that reactor and waits for its end; not on a reactor.
  void runOn(std::size_t reactor, const std::function<void()>& action);

  Reactors& reactors;
  // What is in force on the reactor that asks, until its handler ends; on reactors only.
  const HttpOptions& options() const;
  const TrustedProxies& trusted() const;
  // Null while there is no HTTPS.
  const TlsServer* tls() const;
  std::chrono::seconds handshakeTime() const;
  // Puts others in force, for what comes from now on; not on a reactor. Throws std::runtime_error,
  // and changes nothing, for certificates that OpenSSL refuses.
  class Options;
  std::shared_ptr<const Options> prepare(const HttpOptions& options,
                                         const HttpsOptions& https) const;
  void setOptions(const std::shared_ptr<const Options>& options);

  const HttpBounds bounds;
  Places places;
  Places refusals;  // connections over the limit that are being told so
  Sharded<HttpCounts> counts;
  StreamList streams;
  std::atomic<bool> stopping{false};
  std::atomic<bool> leaving{false};  // everything is served, but no connection outlives its answer
  // One set for each reactor, used on that reactor only.
  std::vector<std::unordered_set<OpenConnection*>> open;
  std::vector<std::shared_ptr<StreamSender>> senders;   // one for each reactor
  std::vector<std::unique_ptr<Handshakes>> handshakes;  // one for each reactor

 private:
  const Options& inForce() const { return *inForce_[std::size_t(Reactors::current())]; }
  void redirect(ExchangeState& exchange) const;
  void setLimits(const Options& options);
  const OwnResource* findResource(std::string_view url) const;
  bool waitsForLogin(const ExchangePtr& exchange, std::string_view body);
  void handToModule(const ExchangePtr& exchange, std::string_view body);
  // On the workers, or refuses the exchange when their queue is full.
  template <class Job>
  static void queue(WorkerPool& workers, const ExchangePtr& exchange, Job job);
  void queueWithBody(WorkerPool& workers, const ExchangePtr& exchange, std::string_view body);
  void process(const ExchangePtr& exchange, std::string_view body) const;
  void processOrThrow(const ExchangePtr& exchange, std::string_view body) const;

  std::size_t closeLongestIdle(std::size_t reactor);

  const std::shared_ptr<TicketKeys> ticketKeys_ = std::make_shared<TicketKeys>();
  std::vector<std::shared_ptr<const Options>> inForce_;  // one for each reactor, used on it only
  const HttpWorkers workers_;
  const ModuleEntry module_;
  const std::vector<OwnResource> resources_;
  MemoryBudget bodies_;
  MemoryBudget strangersBodies_;
  MemoryBudget unsentAnswers_;
  std::chrono::steady_clock::time_point noneIdleUntil_;  // the first reactor's
  std::atomic<std::size_t> next_{0};
  std::atomic<std::size_t> mostRequests_;
  std::atomic<std::size_t> requests_{0};
};

// What is in force together. Constant.
class ServiceCore::Options {
 public:
  Options(const HttpOptions& http, const HttpsOptions& secure,
          const std::shared_ptr<TicketKeys>& keys);

  const HttpOptions options;
  const HttpsOptions https;
  const TrustedProxies trusted;
  const std::unique_ptr<const TlsServer> tls;
};

}  // namespace qn
