#include "gateway/devicebus/lane.h"

#include <algorithm>
#include <utility>

#include "gateway/log/log.h"
#include "gateway/net/coarse_clock.h"

namespace qn::devicebus {

Lane::Lane(boost::asio::io_context& reactor, const Answers& answers, std::shared_ptr<Device> device,
           Limits limits)
    : reactor_(reactor), answers_(answers), device_(std::move(device)), limits_(limits) {}

Lane::~Lane() {
  for (const auto& connection : resting_) connection->close();
  for (const auto& connection : busy_) connection->close();
}

void Lane::submit(RequestPtr request) {
  if (request->device != device_) {  // configured anew since the request came
    request->login.emplace();
    request->device = device_;
  }
  queue_.push_back(std::move(request));
  pump();
}

void Lane::pump() {
  std::string authorization;
  std::string onPath;  // the URL below the device's path, where it has one
  while (!queue_.empty()) {
    BusRequest& first = *queue_.front();
    const auto now = coarseNow();
    if (device_->circuit.blocked(now)) {
      fail(takeFirst(), device_->circuit.reason());
      continue;
    }
    if (first.isForgotten()) {
      fail(takeFirst(), ERROR_DEVICE_TIMEOUT);
      continue;
    }
    if (busy_.size() >= limits_.connections) return;
    const std::string& path = device_->config.basePath;
    if (!path.empty()) onPath.assign(path).append(first.url);
    const std::string_view target = path.empty() ? first.url : onPath;
    const auto verdict = device_->login.prepare(*first.login, first.method, target, authorization);
    if (verdict == DeviceLogin::Verdict::Wait) return;
    if (verdict == DeviceLogin::Verdict::Refused) {
      fail(takeFirst(), ERROR_DEVICE_LOGIN_REFUSED);
    } else if (!device_->circuit.admit(now)) {
      fail(takeFirst(), device_->circuit.reason());
    } else {
      launch({first.method, target, first.idLine, authorization}, takeFirst());
    }
  }
}

RequestPtr Lane::takeFirst() {
  RequestPtr request = std::move(queue_.front());
  queue_.pop_front();
  return request;
}

void Lane::launch(const DeviceRequestHead& head, RequestPtr request) {
  const auto connection = takeConnection(*request);
  busy_.push_back(connection);
  connection->start(head, std::move(request));
}

std::shared_ptr<DeviceConnection> Lane::takeConnection(const BusRequest& request) {
  if (!resting_.empty() && !request.needsFreshConnection) {
    auto connection = std::move(resting_.back());
    resting_.pop_back();
    return connection;
  }
  if (!resting_.empty() && busy_.size() + resting_.size() >= limits_.connections) {
    resting_.front()->close();
    resting_.erase(resting_.begin());
  }
  return std::make_shared<DeviceConnection>(*this, reactor_);
}

void Lane::fail(RequestPtr request, unsigned int code) {
  logDebug("device {}: a request ends with 0x{:08x}", device_->config.index, code);
  answers_.giveError(reactor_, std::move(request), code);
}

void Lane::onReply(DeviceConnection& connection) {
  ReplyParser& reply = connection.reply();
  RequestPtr request = connection.takeRequest();
  if (!connection.canBeReused()) connection.close();  // a body may still be on its way out
  device_->circuit.succeeded();
  constexpr int kUnauthorized = 401;
  if (reply.status() != kUnauthorized) {
    device_->login.accepted(*request->login);
    answers_.giveReply(std::move(request), reply);
  } else if (!retired_ && device_->login.refused(*request->login, reply.challenge())) {
    queue_.push_front(std::move(request));
  } else {
    fail(std::move(request), ERROR_DEVICE_LOGIN_REFUSED);
  }
  release(connection);
  pump();
}

void Lane::release(DeviceConnection& connection) {
  const auto place = std::ranges::find(busy_, &connection, &std::shared_ptr<DeviceConnection>::get);
  auto owned = std::move(*place);
  *place = std::move(busy_.back());
  busy_.pop_back();
  if (retired_ || !connection.canBeReused()) return connection.close();
  resting_.push_back(std::move(owned));
  connection.rest();
}

void Lane::onFault(DeviceConnection& connection, DeviceConnection::Fault fault) {
  const auto kept = connection.shared_from_this();
  drop(connection);
  RequestPtr request = connection.takeRequest();
  if (!request) return;
  if (fault == DeviceConnection::Fault::NotConnected) {
    const unsigned int code = errorOfConnecting(connection.connectError());
    device_->circuit.failed(Clock::now(), code);
    fail(std::move(request), code);
  } else if (fault == DeviceConnection::Fault::NoRoom) {
    fail(std::move(request), ERROR_TOO_MANY_REQUESTS);
  } else if (fault == DeviceConnection::Fault::Closed && isToBeSentAgain(*request, connection)) {
    request->needsFreshConnection = true;
    queue_.push_front(std::move(request));
  } else {
    fail(std::move(request), ERROR_DEVICE_REPLY_UNUSABLE);
  }
  pump();
}

// The device may have closed a connection in the moment in which it was used again.
bool Lane::isToBeSentAgain(BusRequest& request, DeviceConnection& connection) {
  return !retired_ && connection.isReused() && !connection.gotReplyBytes() &&
         !request.needsFreshConnection && request.isIdempotent();
}

void Lane::drop(DeviceConnection& connection) {
  const auto isIt = [&](const auto& other) { return other.get() == &connection; };
  std::erase_if(busy_, isIt);
  std::erase_if(resting_, isIt);
  connection.close();
}

void Lane::sweep(Clock::time_point now) {
  endOverdue(now);
  closeRested(now);
  pump();
}

void Lane::endOverdue(Clock::time_point now) {
  for (RequestPtr& request : queue_) {
    if (request->deadline <= now || request->isForgotten()) {
      fail(std::move(request), ERROR_DEVICE_TIMEOUT);
    }
  }
  std::erase(queue_, nullptr);
  const auto endIfOverdue = [&](const std::shared_ptr<DeviceConnection>& connection) {
    if (!connection->request() || connection->request()->deadline > now) return false;
    const bool ownFault = !connection->isWaitingForRoom();
    if (ownFault) device_->circuit.failed(now);
    connection->close();
    fail(connection->takeRequest(), ownFault ? ERROR_DEVICE_TIMEOUT : ERROR_TOO_MANY_REQUESTS);
    return true;
  };
  std::erase_if(busy_, endIfOverdue);
}

void Lane::closeRested(Clock::time_point now) {
  std::erase_if(resting_, [&](const std::shared_ptr<DeviceConnection>& connection) {
    if (connection->restingSince() + kRestTime > now) return false;
    connection->close();
    return true;
  });
}

std::deque<RequestPtr> Lane::retire() {
  retired_ = true;
  for (const auto& connection : resting_) connection->close();
  resting_.clear();
  return std::exchange(queue_, {});
}

void Lane::endAll(unsigned int code) {
  for (RequestPtr& request : retire()) fail(std::move(request), code);
  for (const auto& connection : busy_) {
    connection->close();
    RequestPtr request = connection->takeRequest();
    if (request) fail(std::move(request), code);
  }
  busy_.clear();
}

}  // namespace qn::devicebus
