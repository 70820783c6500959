// The gateway's HTTP service: listens, reads requests, hands them to the protocol module and sends
// the answers. The host makes one on its reactors; everything else is in the files beside it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <system_error>
#include <vector>

#include "gateway/config/configuration.h"
#include "gateway/http/listener.h"
#include "gateway/http/service_core.h"
#include "gateway/net/reactors.h"
#include "gateway/net/worker_pool.h"

namespace qn {

// The port of HTTPS cannot be listened on.
class SecurePortError : public std::system_error {
 public:
  explicit SecurePortError(const std::system_error& reason) : std::system_error(reason) {}
};

// Every operation may be called on any thread but a reactor's. Reactors and pools outlive the
// service, and the reactors run until it is closed.
class HttpService {
 public:
  HttpService(Reactors& reactors, HttpWorkers workers, const HttpOptions& options,
              ModuleEntry module, const HttpBounds& bounds = {},
              std::vector<OwnResource> resources = {}, const HttpsOptions& https = {});
  ~HttpService();  // closes
  HttpService(const HttpService&) = delete;
  HttpService& operator=(const HttpService&) = delete;

  // Listens on the configured port of HTTP (0: a free one), if that is enabled. Throws
  // std::system_error with the reason.
  void listen();
  // The same for HTTPS, if that is on; throws SecurePortError.
  void listenSecurely();
  uint16_t port() const { return mainPort_; }
  // Listens on a further port, which setExtraPorts() will name, now. Throws as listen() does.
  void listenOn(uint16_t port, Access access) { ports_->openExtra(port, access); }
  // The ports beside those that should be listened on, and what they give; one that is taken is
  // logged and tried again every few seconds.
  void setExtraPorts(const std::map<uint16_t, Access>& ports) { ports_->setExtra(ports); }
  // Whether connections to that port come here; after listen().
  bool serves(uint16_t port) const { return ports_->serves(port) || securePorts_->serves(port); }

  // Puts others in force. Moves to another address and port first: when it cannot listen there, it
  // throws as listen() does, and nothing has changed. Connections stay; limits hold for what comes
  // from now on. Then call setExtraPorts().
  // Certificates that OpenSSL refuses are an std::runtime_error; new ones hold for new connections.
  void setOptions(const HttpOptions& options, const HttpsOptions& https = {});
  // What it has counted, and what it holds about now; neither takes a lock.
  const Sharded<HttpCounts>& counts() const { return core_->counts; }
  ServiceLoad load() const { return core_->load(); }
  // Some of the open streams.
  std::vector<StreamList::Entry> streams(std::size_t most) const {
    return core_->streams.some(most);
  }

  // Closes the streams of those whom the configuration in force does not allow them any more.
  void closeForbiddenStreams();

  // For so long everything is still served, but answers end their connections, and alert streams
  // are closed in small groups, so that a load balancer deals them out to others. Begins with those
  // when it has had a quarter of the time to notice.
  void leadElsewhere(std::chrono::seconds time);
  // Ends listening for good; what is connected goes on, but no connection outlives its answer.
  void stopAccepting();
  // Waits until no request is in flight (streams do not count); false when the time is over.
  bool drain(std::chrono::steady_clock::time_point deadline);
  // Closes every connection and stream. Harmless when repeated.
  void close();

 private:
  void setSecurePort(const MainPort& wanted);
  void onEachConnection(void (OpenConnection::*action)());
  void closeStreams(std::size_t oneIn);

  const std::shared_ptr<ServiceCore> core_;
  const std::shared_ptr<Ports> ports_;
  const std::shared_ptr<Ports> securePorts_;
  const MainPort configured_;  // for listen()
  const MainPort secureConfigured_;
  std::atomic<uint16_t> mainPort_{0};
};

}  // namespace qn
