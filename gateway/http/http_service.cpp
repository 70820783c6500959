// See http_service.h.
#include "gateway/http/http_service.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <future>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

#include "gateway/http/listener.h"
#include "platform/wlog.h"

namespace qn {
namespace {
// For an action that only closes sockets; a reactor that takes longer has stopped running.
constexpr std::chrono::seconds kReactorWait{5};
constexpr std::chrono::milliseconds kDrainPoll{5};
}  // namespace

HttpService::HttpService(Reactors& reactors, WorkerPool& pool, const HttpOptions& options,
                         ProcessFunction process, const HttpBounds& bounds)
    : core_(std::make_shared<ServiceCore>(reactors, pool, options, bounds, process)) {}

HttpService::~HttpService() { close(); }

void HttpService::listen() {
  const std::lock_guard lock(mutex_);
  main_ = std::make_shared<Listener>(core_, core_->options.port);
  main_->start();
}

uint16_t HttpService::port() const {
  const std::lock_guard lock(mutex_);
  return main_ ? main_->port() : 0;
}

void HttpService::setDevicePorts(const std::vector<uint16_t>& ports) {
  const std::set<uint16_t> wanted(ports.begin(), ports.end());
  std::vector<std::shared_ptr<Listener>> unwanted;
  {
    const std::lock_guard lock(mutex_);
    std::erase_if(devicePorts_, [&](const auto& entry) {
      if (wanted.contains(entry.first)) return false;
      unwanted.push_back(entry.second);
      return true;
    });
    for (const uint16_t port : wanted) openDevicePort(port);
  }
  closeOnReactor(std::move(unwanted));
}

void HttpService::openDevicePort(uint16_t port) try {
  const bool isMain = main_ && main_->port() == port;
  if (port == 0 || isMain || core_->stopping || devicePorts_.contains(port)) return;
  auto listener = std::make_shared<Listener>(core_, port);
  listener->start();
  devicePorts_.emplace(port, std::move(listener));
} catch (const std::system_error& e) {
  wlog_format(WLOG_ERROR, "http", "device port: %s", e.what());
}

void HttpService::stopAccepting() {
  std::vector<std::shared_ptr<Listener>> listeners;
  {
    const std::lock_guard lock(mutex_);
    core_->stopping = true;
    if (main_) listeners.push_back(main_);
    for (const auto& [port, listener] : devicePorts_) listeners.push_back(listener);
    devicePorts_.clear();
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
  for (std::size_t i = 0; i < core_->open.size(); ++i) {
    onReactor(i, [core = core_, i] {
      const auto connections = core->open[i];  // a closing connection leaves the set
      for (OpenConnection* connection : connections) connection->close();
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
    wlog_format(WLOG_ERROR, "http", "a reactor does not answer");
  }
}

}  // namespace qn
