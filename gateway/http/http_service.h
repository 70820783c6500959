// The gateway's HTTP service: listens, reads requests, hands them to the protocol module and sends
// the answers. The host makes one on its reactors; everything else is in the files beside it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "gateway/config/configuration.h"
#include "gateway/http/service_core.h"
#include "gateway/net/reactors.h"
#include "gateway/net/worker_pool.h"
#include "gateway/sync/mutex.h"

namespace qn {

class Listener;

// Every operation may be called on any thread but a reactor's. Reactors and pools outlive the
// service, and the reactors run until it is closed.
class HttpService {
 public:
  HttpService(Reactors& reactors, HttpWorkers workers, const HttpOptions& options,
              ProcessFunction process, const HttpBounds& bounds = {},
              std::vector<OwnResource> resources = {});
  ~HttpService();  // closes
  HttpService(const HttpService&) = delete;
  HttpService& operator=(const HttpService&) = delete;

  // Listens on the configured port (0: a free one). Throws std::system_error with the reason.
  void listen();
  uint16_t port() const;
  // The ports beside the main one that should be listened on, and what they give; one that is
  // taken is logged and tried again with the next call.
  void setExtraPorts(const std::map<uint16_t, Access>& ports);

  // Closes the streams of those whom the configuration in force does not allow them any more.
  void closeForbiddenStreams();

  // Ends listening for good; what is connected goes on, but no connection outlives its answer.
  void stopAccepting();
  // Waits until no request is in flight (streams do not count); false when the time is over.
  bool drain(std::chrono::steady_clock::time_point deadline);
  // Closes every connection and stream. Harmless when repeated.
  void close();

 private:
  void openExtraPort(uint16_t port, Access access) QN_REQUIRES(mutex_);
  void closeOnReactor(std::vector<std::shared_ptr<Listener>> listeners);
  void onEachConnection(void (OpenConnection::*action)());
  void onReactor(std::size_t index, const std::function<void()>& action);

  const std::shared_ptr<ServiceCore> core_;
  mutable Mutex mutex_;
  std::shared_ptr<Listener> main_ QN_GUARDED_BY(mutex_);
  std::map<uint16_t, std::shared_ptr<Listener>> extraPorts_ QN_GUARDED_BY(mutex_);
};

}  // namespace qn
