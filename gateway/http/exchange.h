// A request that was handed over, and its answer: what stands behind every CHttpExchange of it.
// Owns copies of all that the module may read, so a late holder on any thread stays safe after the
// connection went on. Made by the connection; found by handle in the registry until it is answered
// (a stream: until it closes).
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "gateway/auth/login_request.h"
#include "gateway/http/answer.h"
#include "gateway/http/request_reader.h"
#include "gateway/net/asker.h"
#include "gateway/sync/mutex.h"
#include "platform/http_service.h"

namespace qn {

using QNHttpService::ExchangeState;
using ExchangePtr = std::shared_ptr<ExchangeState>;

// When a stream sends the parts that wait: also later, if they come so closely that one write had
// better carry those of a while.
enum class Sending { NowOrLater, Now };

// The connection's side that answers go to; any thread.
class AnswerLink {
 public:
  virtual ~AnswerLink() = default;
  // The exchange was claimed by the caller: send its answer with this body.
  virtual void deliver(const ExchangePtr& exchange, std::string_view body) = 0;
  virtual void openStream(const ExchangePtr& exchange) = 0;
  // Parts wait in the stream's queue. Called once for all that come before they are taken.
  virtual void wakeStream() = 0;
  // Sends the parts that wait; false when it is to be asked again later. On the connection's
  // reactor.
  virtual bool sendParts(Sending when) = 0;
  // A part found no room in the queue.
  virtual void partDropped() = 0;
};

enum class Ending { KeepAlive, Close };

// Where a request came from.
struct Origin {
  std::string clientAddress;
  uint16_t port;  // of ours
  std::weak_ptr<AnswerLink> link;
};

}  // namespace qn

namespace QNHttpService {

class ExchangeState : public std::enable_shared_from_this<ExchangeState>, public qn::Asker {
 public:
  static constexpr std::size_t kStreamQueue = 1024 * 1024;

  // Registers it under a new handle.
  static qn::ExchangePtr create(const qn::RequestHead& head, const qn::Origin& origin);
  // Null when the handle is not live.
  static qn::ExchangePtr find(int handle);

  ExchangeState(int handle, const qn::RequestHead& head, const qn::Origin& origin);

  // The request; constant.
  int handle() const { return handle_; }
  int method() const { return method_; }
  const std::string& url() const { return url_; }
  const std::string& requestId() const { return requestId_; }
  bool keepAlive() const { return keepAlive_; }
  // X-Forwarded-For is the client's address, whatever the client wrote. A Host that is an IPv6
  // address, which the module would look for a port inside of, is only the port of ours that the
  // request came in on.
  std::string header(std::string_view name) const;
  // The Host header as the client sent it.
  std::string host() const;
  // Of an Authorization header of the scheme Bearer, which header() does not show; or empty.
  std::string bearerToken() const;
  const std::string& clientAddress() const { return origin_.clientAddress; }

  // Who has logged in, and what the answer is to tell them; set by the login, before the answer.
  void setLogin(qn::LoggedIn who, std::string_view authenticationInfo);
  std::string user() const;
  qn::LoggedIn login() const;
  // Whether the configuration in force still allows what the login did; true without one.
  bool isStillAllowed() const;

  // See LoginRequest::onAnswer().
  void setOnAnswer(std::function<void(int status)> call);

  // The answer; any thread.
  void setHeader(std::string_view name, std::string_view value);
  void setStatus(int status);
  void markStream();
  int respond(const void* data, int length);
  int status() const;
  // The service's own way to answer: replaces the status and the content type. False when somebody
  // else answers.
  bool finish(int status, const char* contentType, std::string_view body);
  bool finish(qn::OwnAnswer answer);

  // The connection's side.
  // The head of an answer with a body of that size.
  void appendHead(std::string& out, std::size_t bodySize, qn::Ending ending) const;
  // Whether the answer's body is sent at all.
  bool sendsBody() const;
  // Once: the header lines are given back.
  void appendStreamHead(std::string& out);
  // Moves everything that is queued to `out`, which is empty; false when there is nothing.
  bool takeParts(std::string& out);
  // What was taken went out: the number of parts.
  std::size_t partsSent();
  // The connection is gone, or answers no more: from now on the link is broken. The number of parts
  // that were accepted and will not go out.
  std::size_t detach();
  // The client has ended its side, but may still take the answer.
  void clientEnded() { clientEnded_ = true; }
  bool isGone() const override { return clientEnded_; }
  void waited(std::chrono::nanoseconds time) const override {
    deviceTime_.fetch_add(time.count(), std::memory_order_relaxed);
  }
  // How long devices were waited for.
  std::chrono::nanoseconds deviceTime() const {
    return std::chrono::nanoseconds(deviceTime_.load(std::memory_order_relaxed));
  }

 private:
  int respondOnStream(const void* data, int length);
  bool claim();
  void tellStatus();
  void setHeaderLocked(std::string_view name, std::string_view value) QN_REQUIRES(mutex_);

  const int handle_;
  const int method_;
  const bool keepAlive_;
  const bool http10_;
  const std::string url_;
  const std::string requestId_;
  const qn::Origin origin_;

  std::atomic<bool> answered_{false};
  std::atomic<int> status_{200};
  std::atomic<bool> stream_{false};
  std::atomic<bool> watched_{false};  // onAnswer_ is set
  std::atomic<bool> clientEnded_{false};
  mutable std::atomic<std::chrono::nanoseconds::rep> deviceTime_{0};

  mutable qn::Mutex mutex_;
  std::string fields_
      QN_GUARDED_BY(mutex_);  // the request's header lines; given back when a stream starts
  std::string headers_ QN_GUARDED_BY(mutex_);  // the answer's header lines
  qn::LoggedIn login_ QN_GUARDED_BY(mutex_);
  std::function<void(int status)> onAnswer_ QN_GUARDED_BY(mutex_);
  bool streamOpen_ QN_GUARDED_BY(mutex_) = false;
  bool gone_ QN_GUARDED_BY(mutex_) = false;
  bool wakePending_ QN_GUARDED_BY(mutex_) = false;
  bool mimeParts_ QN_GUARDED_BY(mutex_) = false;     // CRLF goes before each part but the first
  bool hasParts_ QN_GUARDED_BY(mutex_) = false;      // the stream was given one
  std::string parts_ QN_GUARDED_BY(mutex_);          // queued
  std::size_t inWriting_ QN_GUARDED_BY(mutex_) = 0;  // taken and not yet sent
  std::size_t partCount_ QN_GUARDED_BY(mutex_) = 0;  // in parts_
  std::size_t partsInWriting_ QN_GUARDED_BY(mutex_) = 0;
};

}  // namespace QNHttpService
