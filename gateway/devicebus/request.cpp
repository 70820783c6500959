#include "gateway/devicebus/request.h"

#include <boost/asio/post.hpp>
#include <memory>
#include <string>
#include <utility>

#include "gateway/log/request_id.h"

namespace qn::devicebus {
namespace {

// A reply from this size on may not go out to the client in one write.
constexpr std::size_t kShared = 32 * 1024;

// Nothing when the device has no part in it.
std::optional<DeviceFailure> failureOf(unsigned int code) {
  switch (code) {
    case ERROR_DEVICE_TIMEOUT:
      return DeviceFailure::TimedOut;
    case ERROR_DEVICE_UNREACHABLE:
    case ERROR_DEVICE_CERTIFICATE_EXPIRED:
    case ERROR_DEVICE_CERTIFICATE_UNKNOWN_ISSUER:
    case ERROR_DEVICE_CERTIFICATE_WRONG_NAME:
    case ERROR_DEVICE_CERTIFICATE_WRONG_FINGERPRINT:
    case ERROR_DEVICE_CERTIFICATE_REFUSED:
      return DeviceFailure::Unreachable;
    case ERROR_DEVICE_REPLY_UNUSABLE:
      return DeviceFailure::UnusableReply;
    case ERROR_DEVICE_LOGIN_REFUSED:
      return DeviceFailure::LoginRefused;
    default:
      return std::nullopt;
  }
}

}  // namespace

bool Tally::enter() {
  ++count_;
  if (!closed_) return true;
  --count_;
  return false;
}

Place::~Place() {
  if (device_) {
    --device_->admitted;
    device_->bytes -= bytes_;
    tally_->bytes -= bytes_;
  }
  device_.reset();
  if (tally_) tally_->leave();  // the bus may be gone from here on
}

Place::Refusal Place::enter(Tally& tally, std::shared_ptr<Device> device, const BusOptions& options,
                            std::size_t bytes) {
  if (!tally.enter()) return Refusal::Stopping;
  tally_ = &tally;
  device_ = std::move(device);
  bytes_ = bytes;
  // A request that alone is over a bound is let in when nothing else waits.
  const auto fits = [bytes](std::atomic<std::size_t>& held, std::size_t bound) {
    const std::size_t all = held += bytes;
    return all <= bound || all == bytes;
  };
  const bool room = ++device_->admitted <= options.deviceConnections + options.deviceQueue;
  const bool deviceFits = fits(device_->bytes, options.deviceBytes);
  const bool allFit = fits(tally.bytes, options.bytes);
  return room && deviceFits && allFit ? Refusal::None : Refusal::Full;
}

std::string_view BusRequest::id() const {
  if (idLine.empty()) return {};
  return std::string_view(idLine).substr(kRequestIdField.size(),
                                         idLine.size() - kRequestIdField.size() - 2);
}

void BusRequest::give(std::string_view answer, Origin origin) {
  const RequestIdScope scope(id());
  recipient->take(answer, origin);
}

void BusRequest::give(const SharedBytes& text) {
  const ReplyInHand inHand(text);
  give({text->data(), text->size()}, Origin::Device);
}

bool BusRequest::isForgotten() const {
  if (!asker) return false;
  const auto somebody = asker->lock();
  return !somebody || somebody->isGone();
}

// What became of a request that was accepted.
void Answers::count(const BusRequest& request, DeviceFailure failure) const {
  const auto time = std::chrono::steady_clock::now() - request.accepted;
  const auto asker = request.asker ? request.asker->lock() : nullptr;
  if (asker) asker->waited(time);
  DeviceCounts& device = request.device->counts;
  if (failure == DeviceFailure::TimedOut && request.isForgotten()) return;  // no fault of its own
  counts_.here().deviceTime.add(time);
  device.count(failure, time);
}

void Answers::giveReply(RequestPtr request, ReplyParser& reply) const {
  count(*request, DeviceFailure::None);
  if (reply.status() >= 400 && !reply.isDocument()) {
    const std::string_view document = documents_.of(errorOfHttpStatus(reply.status()));
    request->give(document, Origin::Gateway);
    return;
  }
  const std::size_t size = reply.body().size();
  if (size < kShared) return request->give(reply.body(), Origin::Device);
  const auto body = std::make_shared<const ReplyBytes>(reply.takeBody());
  if (size >= ReplyBudget::kLongReply && request->recipient->isTranslator()) {
    giveOnWorker(std::move(request), body);
  } else {
    request->give(body);
  }
}

void Answers::giveOnWorker(RequestPtr request, SharedBytes body) const {
  // Jobs of the pool are copyable, so what they own is shared.
  struct Answer {
    RequestPtr request;
    SharedBytes body;
  };
  auto answer = std::make_shared<Answer>(Answer{std::move(request), std::move(body)});
  const auto give = [answer] {
    answer->request->give(answer->body);
    answer->request.reset();
    answer->body.reset();
  };
  if (!workers_.post(give)) give();
}

void Answers::giveError(boost::asio::io_context& reactor, RequestPtr request,
                        unsigned int code) const {
  if (const auto failure = failureOf(code)) count(*request, *failure);
  if (code == ERROR_TOO_MANY_REQUESTS) counts_.here().refusedReplies.add();
  boost::asio::post(reactor, [this, request = std::move(request), code] {
    request->give(documents_.of(code), Origin::Gateway);
  });
}

}  // namespace qn::devicebus
