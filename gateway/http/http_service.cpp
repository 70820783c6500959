// See http_service.h.
#include "gateway/http/http_service.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <future>
#include <system_error>
#include <thread>
#include <utility>

#include "gateway/http/listener.h"
#include "gateway/log/log.h"

namespace qn {
namespace {
// For an action that only closes sockets; a reactor that takes longer has stopped running.
constexpr std::chrono::seconds kReactorWait{5};
constexpr std::chrono::milliseconds kDrainPoll{5};
}  // namespace

HttpService::HttpService(Reactors& reactors, HttpWorkers workers, const HttpOptions& options,
                         ProcessFunction process, const HttpBounds& bounds,
                         std::vector<OwnResource> resources)
    : core_(std::make_shared<ServiceCore>(reactors, workers, options, bounds, process,
                                          std::move(resources))) {}

HttpService::~HttpService() { close(); }

void HttpService::listen() {
  const MutexLock lock(mutex_);
  main_ = std::make_shared<Listener>(core_, core_->options.port, Access::Everything);
  main_->start();
}

uint16_t HttpService::port() const {
  const MutexLock lock(mutex_);
  return main_ ? main_->port() : 0;
}

void HttpService::setExtraPorts(const std::map<uint16_t, Access>& ports) {
  std::vector<std::shared_ptr<Listener>> unwanted;
  {
    const MutexLock lock(mutex_);
    std::erase_if(extraPorts_, [&](const auto& entry) {
      const auto wanted = ports.find(entry.first);
      if (wanted != ports.end() && wanted->second == entry.second->access()) return false;
      unwanted.push_back(entry.second);
      return true;
    });
  }
  closeOnReactor(std::move(unwanted));  // first: a port may be wanted again for something else
  const MutexLock lock(mutex_);
  for (const auto& [port, access] : ports) openExtraPort(port, access);
}

void HttpService::openExtraPort(uint16_t port, Access access) try {
  const bool isMain = main_ && main_->port() == port;
  if (port == 0 || isMain || core_->stopping || extraPorts_.contains(port)) return;
  auto listener = std::make_shared<Listener>(core_, port, access);
  listener->start();
  extraPorts_.emplace(port, std::move(listener));
} catch (const std::system_error& e) {
  logError("http: {}; tried again when the configuration is read again", e.what());
}

void HttpService::stopAccepting() {
  std::vector<std::shared_ptr<Listener>> listeners;
  {
    const MutexLock lock(mutex_);
    core_->stopping = true;
    if (main_) listeners.push_back(main_);
    for (const auto& [port, listener] : extraPorts_) listeners.push_back(listener);
    extraPorts_.clear();
  }
  closeOnReactor(std::move(listeners));
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

void HttpService::closeForbiddenStreams() { onEachConnection(&OpenConnection::closeUnlessAllowed); }

void HttpService::onEachConnection(void (OpenConnection::*action)()) {
  for (std::size_t i = 0; i < core_->open.size(); ++i) {
    onReactor(i, [core = core_, i, action] {
      const auto connections = core->open[i];  // a closing connection leaves the set
      for (OpenConnection* connection : connections) (connection->*action)();
    });
  }
}

void HttpService::closeOnReactor(std::vector<std::shared_ptr<Listener>> listeners) {
  if (listeners.empty()) return;
  onReactor(0, [listeners = std::move(listeners)] {
    for (const auto& listener : listeners) listener->close();
  });
}

void HttpService::onReactor(std::size_t index, const std::function<void()>& action) {
  if (core_->reactors.context(index).stopped()) return;  // its handlers go with it
  auto done = std::make_shared<std::promise<void>>();
  boost::asio::post(core_->reactors.context(index), [action, done] {
    action();
    done->set_value();
  });
  if (done->get_future().wait_for(kReactorWait) != std::future_status::ready) {
    logError("http: a reactor does not answer");
  }
}

}  // namespace qn
