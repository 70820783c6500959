// See http_service.h.
#include "gateway/http/http_service.h"

#include <algorithm>
#include <iterator>
#include <thread>
#include <utility>

namespace qn {
namespace {
constexpr std::chrono::milliseconds kDrainPoll{5};

MainPort plainPort(const HttpOptions& options, const HttpsOptions& https) {
  const Access access = https.isOn() && https.redirect ? Access::Redirection : Access::Everything;
  return {options.address, options.enabled ? std::optional(options.port) : std::nullopt, access};
}

MainPort securePort(const HttpsOptions& https) {
  return {https.address, https.isOn() ? std::optional(https.port) : std::nullopt};
}

}  // namespace

HttpService::HttpService(Reactors& reactors, HttpWorkers workers, const HttpOptions& options,
                         ModuleEntry module, const HttpBounds& bounds,
                         std::vector<OwnResource> resources, const HttpsOptions& https)
    : core_(std::make_shared<ServiceCore>(reactors, workers, options, https, bounds, module,
                                          std::move(resources))),
      ports_(std::make_shared<Ports>(core_, options.address, Transport::Plain)),
      securePorts_(std::make_shared<Ports>(core_, https.address, Transport::Tls)),
      configured_(plainPort(options, https)),
      secureConfigured_(securePort(https)) {}

HttpService::~HttpService() { close(); }

void HttpService::listen() { mainPort_ = ports_->setMain(configured_); }

void HttpService::listenSecurely() { setSecurePort(secureConfigured_); }

void HttpService::setSecurePort(const MainPort& wanted) try {
  securePorts_->setMain(wanted);
} catch (const std::system_error& error) {
  throw SecurePortError(error);
}

void HttpService::leadElsewhere(std::chrono::seconds time) {
  core_->leaving = true;
  for (std::chrono::seconds left = time; left.count() > 0; --left) {
    if ((time - left) * 4 >= time) closeStreams(static_cast<std::size_t>(left.count()));
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
}

// Of those of each reactor.
void HttpService::closeStreams(std::size_t oneIn) {
  for (std::size_t i = 0; i < core_->open.size(); ++i) {
    core_->runOn(i, [core = core_, i, oneIn] {
      std::vector<OpenConnection*> streams;
      std::ranges::copy_if(core->open[i], std::back_inserter(streams), &OpenConnection::isStream);
      streams.resize((streams.size() + oneIn - 1) / oneIn);
      for (OpenConnection* stream : streams) stream->close();
    });
  }
}

void HttpService::stopAccepting() {
  core_->stopping = true;
  ports_->close();
  securePorts_->close();
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

void HttpService::setOptions(const HttpOptions& options, const HttpsOptions& https) {
  const auto next = core_->prepare(options, https);
  const MainPort former = ports_->main();
  mainPort_ = ports_->setMain(plainPort(options, https));
  try {
    setSecurePort(securePort(https));
  } catch (...) {
    mainPort_ = ports_->setMain(former);
    throw;
  }
  core_->setOptions(next);
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
