// See http_service.h.
#include "gateway/http/http_service.h"

#include <thread>
#include <utility>

namespace qn {
namespace {
constexpr std::chrono::milliseconds kDrainPoll{5};
}  // namespace

HttpService::HttpService(Reactors& reactors, HttpWorkers workers, const HttpOptions& options,
                         ModuleEntry module, const HttpBounds& bounds,
                         std::vector<OwnResource> resources)
    : core_(std::make_shared<ServiceCore>(reactors, workers, options, bounds, module,
                                          std::move(resources))),
      ports_(std::make_shared<Ports>(core_, options.address)),
      configuredPort_(options.port) {}

HttpService::~HttpService() { close(); }

void HttpService::listen() { mainPort_ = ports_->openMain(configuredPort_); }

void HttpService::stopAccepting() {
  core_->stopping = true;
  ports_->close();
}

bool HttpService::drain(std::chrono::steady_clock::time_point deadline) {
  while (core_->requestsInFlight() > 0) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kDrainPoll);
  }
  return true;
}

void HttpService::close() {
  stopAccepting();
  onEachConnection(&OpenConnection::close);
}

void HttpService::setOptions(const HttpOptions& options) {
  mainPort_ = ports_->move(options.address, options.port);
  core_->setOptions(options);
}

void HttpService::closeForbiddenStreams() { onEachConnection(&OpenConnection::closeUnlessAllowed); }

void HttpService::onEachConnection(void (OpenConnection::*action)()) {
  for (std::size_t i = 0; i < core_->open.size(); ++i) {
    core_->runOn(i, [core = core_, i, action] {
      const auto connections = core->open[i];  // a closing connection leaves the set
      for (OpenConnection* connection : connections) (connection->*action)();
    });
  }
}

}  // namespace qn
