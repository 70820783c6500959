// See exchange.h; also the module's CHttpExchange.
#include "gateway/http/exchange.h"

#include <algorithm>
#include <array>
#include <climits>
#include <unordered_map>
#include <utility>

#include "gateway/auth/digest_credentials.h"
#include "gateway/config/configuration.h"
#include "gateway/http/header_lines.h"
#include "gateway/http/request_id.h"
#include "gateway/log/log.h"
#include "text/ascii.h"
#include "text/bytes.h"

namespace qn {
namespace {

// Live exchanges by handle.
class ExchangeRegistry {
 public:
  static ExchangeRegistry& instance() {
    static ExchangeRegistry registry;
    return registry;
  }

  int nextHandle() {
    const int handle = static_cast<int>(counter_.fetch_add(1, std::memory_order_relaxed) &
                                        static_cast<unsigned>(INT_MAX));
    return handle > 0 ? handle : nextHandle();
  }

  // False when the handle is still live: the counter came round.
  bool add(const ExchangePtr& exchange) {
    Shard& shard = shardOf(exchange->handle());
    const MutexLock lock(shard.mutex);
    return shard.live.try_emplace(exchange->handle(), exchange).second;
  }

  ExchangePtr find(int handle) {
    Shard& shard = shardOf(handle);
    const MutexLock lock(shard.mutex);
    const auto found = shard.live.find(handle);
    return found == shard.live.end() ? nullptr : found->second;
  }

  void erase(int handle) {
    ExchangePtr last;  // destroyed outside the lock
    Shard& shard = shardOf(handle);
    const MutexLock lock(shard.mutex);
    const auto found = shard.live.find(handle);
    if (found == shard.live.end()) return;
    last = std::move(found->second);
    shard.live.erase(found);
  }

 private:
  struct Shard {
    Mutex mutex;
    std::unordered_map<int, ExchangePtr> live QN_GUARDED_BY(mutex);
  };
  Shard& shardOf(int handle) { return shards_[static_cast<unsigned>(handle) % shards_.size()]; }

  std::atomic<unsigned> counter_{1};
  std::array<Shard, 64> shards_;
};

bool isClean(std::string_view text) {
  return !text::anyByte(text, [](auto c) { return (c == '\r') | (c == '\n') | (c == '\0'); });
}

// These are the service's to set.
bool isOwnHeader(std::string_view name) {
  static constexpr std::array<std::string_view, 5> kOwn = {"Content-Length", "Connection", "Date",
                                                           "Transfer-Encoding", "X-Request-Id"};
  return std::ranges::any_of(kOwn,
                             [&](std::string_view own) { return text::equalNoCase(name, own); });
}

bool mayBeSent(std::string_view name, std::string_view value) {
  if (!name.empty() && isClean(name) && isClean(value) && !isOwnHeader(name) &&
      name.find(':') == std::string_view::npos) {
    return true;
  }
  logWarn("http: a header of an answer was refused");
  return false;
}

constexpr std::size_t kUsualHeaders = 256;  // bytes that an answer's own lines mostly fit into

bool hasNoBody(int status) { return status < 200 || status == 204 || status == 304; }

}  // namespace
}  // namespace qn

namespace QNHttpService {

qn::ExchangePtr ExchangeState::create(const qn::RequestHead& head, const qn::Origin& origin) {
  auto& registry = qn::ExchangeRegistry::instance();
  for (;;) {
    auto exchange = std::make_shared<ExchangeState>(registry.nextHandle(), head, origin);
    if (registry.add(exchange)) return exchange;
  }
}

qn::ExchangePtr ExchangeState::find(int handle) {
  return handle > 0 ? qn::ExchangeRegistry::instance().find(handle) : nullptr;
}

ExchangeState::ExchangeState(int handle, const qn::RequestHead& head, const qn::Origin& origin)
    : handle_(handle),
      method_(head.method),
      keepAlive_(head.keepAlive),
      http10_(head.http10),
      url_(head.target),
      requestId_(qn::requestIdOf(head.namesRequest ? head.fields : std::string_view())),
      origin_(origin),
      fields_(head.fields) {}

std::string ExchangeState::header(std::string_view name) const {
  if (qn::text::equalNoCase(name, "X-Forwarded-For")) return origin_.clientAddress;
  const qn::MutexLock lock(mutex_);
  const std::string_view value = qn::findHeader(fields_, name).value;
  if (value.starts_with('[') && qn::text::equalNoCase(name, "Host")) {
    return ':' + std::to_string(origin_.port);
  }
  // Credentials made for another target must not open this one.
  const bool misused = !value.empty() && qn::text::equalNoCase(name, "Authorization") &&
                       !qn::digestUriIs(value, url_);
  return misused ? std::string() : std::string(value);
}

std::string ExchangeState::host() const {
  const qn::MutexLock lock(mutex_);
  return std::string(qn::findHeader(fields_, "Host").value);
}

std::string ExchangeState::bearerToken() const {
  constexpr std::string_view kScheme = "Bearer ";
  const qn::MutexLock lock(mutex_);
  const std::string_view value = qn::findHeader(fields_, "Authorization").value;
  const bool bears = qn::text::equalNoCase(value.substr(0, kScheme.size()), kScheme);
  return std::string(bears ? value.substr(kScheme.size()) : std::string_view());
}

void ExchangeState::setLogin(qn::LoggedIn who, std::string_view authenticationInfo) {
  constexpr std::string_view kName = "Authentication-Info";
  const bool told = qn::mayBeSent(kName, authenticationInfo);
  const qn::MutexLock lock(mutex_);
  login_ = std::move(who);
  if (told) setHeaderLocked(kName, authenticationInfo);
}

std::string ExchangeState::user() const {
  const qn::MutexLock lock(mutex_);
  return login_.user;
}

qn::LoggedIn ExchangeState::login() const {
  const qn::MutexLock lock(mutex_);
  return login_;
}

bool ExchangeState::isStillAllowed() const {
  const qn::MutexLock lock(mutex_);
  return login_.user.empty() ||
         qn::configuration()->stillAllows(login_.user, login_.ha1, login_.device);
}

void ExchangeState::setHeader(std::string_view name, std::string_view value) {
  if (!qn::mayBeSent(name, value)) return;
  const qn::MutexLock lock(mutex_);
  setHeaderLocked(name, value);
}

void ExchangeState::setHeaderLocked(std::string_view name, std::string_view value) {
  if (headers_.empty()) headers_.reserve(qn::kUsualHeaders);
  const qn::HeaderLine old = qn::findHeader(headers_, name);
  if (old.found()) headers_.erase(old.start, old.end - old.start);
  qn::text::appendAll(headers_, {name, ": ", value, "\r\n"});
}

void ExchangeState::setStatus(int status) {
  status_ = status >= 200 && status <= 999 ? status : 500;
}

int ExchangeState::status() const { return status_; }

void ExchangeState::markStream() {
  const qn::MutexLock lock(mutex_);
  if (streamOpen_) return;
  stream_ = true;
  mimeParts_ = qn::configuration()->kavro.mimeParts;
  setHeaderLocked("Content-Type", "multipart/mixed; boundary=boundary");
}

// Whoever gets true answers; nobody gets it twice.
bool ExchangeState::claim() { return !answered_.exchange(true); }

void ExchangeState::setOnAnswer(std::function<void(int status)> call) {
  const qn::MutexLock lock(mutex_);
  onAnswer_ = std::move(call);
  watched_ = true;
}

// By whoever has claimed the answer.
void ExchangeState::tellStatus() {
  if (!watched_) return;
  std::function<void(int status)> call;
  {
    const qn::MutexLock lock(mutex_);
    call = std::exchange(onAnswer_, nullptr);
  }
  if (call) call(status_);
}

int ExchangeState::respond(const void* data, int length) {
  if (length < 0 || (data == nullptr && length > 0)) return 0;
  if (stream_) return respondOnStream(data, length);
  if (!claim()) return HTTP_LINK_BROKEN;
  const auto link = origin_.link.lock();
  if (!link) return HTTP_LINK_BROKEN;
  tellStatus();
  link->deliver(shared_from_this(), {static_cast<const char*>(data), std::size_t(length)});
  qn::ExchangeRegistry::instance().erase(handle_);
  return length;
}

int ExchangeState::respondOnStream(const void* data, int length) {
  bool opens = false;
  bool wakes = false;
  int accepted = length;
  {
    const qn::MutexLock lock(mutex_);
    if (gone_) return HTTP_LINK_BROKEN;
    if (!streamOpen_) {
      if (!claim()) return HTTP_LINK_BROKEN;
      opens = streamOpen_ = true;
      std::string().swap(fields_);  // an idle stream keeps little memory
    }
    const std::string_view before = mimeParts_ && hasParts_ ? "\r\n" : "";
    const auto size = before.size() + static_cast<std::size_t>(length);
    if (parts_.size() + inWriting_ + size > kStreamQueue) {
      accepted = 0;
    } else if (length > 0) {
      ++partCount_;
      hasParts_ = true;
      parts_.append(before).append(static_cast<const char*>(data), size - before.size());
      wakes = !std::exchange(wakePending_, true);
    }
  }
  const auto link = origin_.link.lock();
  if (!link) return HTTP_LINK_BROKEN;
  if (opens) {
    tellStatus();
    link->openStream(shared_from_this());
  }
  if (wakes) link->wakeStream();
  if (accepted < length) link->partDropped();
  return accepted;
}

bool ExchangeState::finish(int status, const char* contentType, std::string_view body) {
  if (!claim()) return false;
  {
    const qn::MutexLock lock(mutex_);
    stream_ = false;
    status_ = status >= 200 && status <= 999 ? status : 500;
    setHeaderLocked("Content-Type", contentType);
  }
  if (const auto link = origin_.link.lock()) {
    tellStatus();
    link->deliver(shared_from_this(), body);
  }
  qn::ExchangeRegistry::instance().erase(handle_);
  return true;
}

bool ExchangeState::finish(qn::OwnAnswer answer) {
  if (answered_) return false;
  {
    const qn::MutexLock lock(mutex_);
    headers_.clear();
    if (answer == qn::OwnAnswer::Overloaded) {
      setHeaderLocked("Retry-After", qn::kRetryAfterSeconds);
    }
  }
  const qn::OwnDocument& document = qn::ownDocument(answer);
  return finish(document.status, "application/json", document.body);
}

void ExchangeState::appendHead(std::string& out, std::size_t bodySize, qn::Ending ending) const {
  const qn::MutexLock lock(mutex_);
  qn::appendStatusLine(out, status_);
  qn::appendDate(out);
  const std::string_view connection = ending == qn::Ending::Close ? "Connection: close\r\n"
                                      : http10_                   ? "Connection: keep-alive\r\n"
                                                                  : "";
  qn::text::appendAll(out, {headers_, "X-Request-Id: ", requestId_, "\r\n", connection});
  // What a device says to HEAD does not tell how long its answer to GET would be.
  const bool unknown = method_ == HTTP_HEAD && bodySize == 0;
  if (!qn::hasNoBody(status_) && !unknown) qn::appendContentLength(out, bodySize);
  out.append("\r\n", 2);
}

bool ExchangeState::sendsBody() const { return method_ != HTTP_HEAD && !qn::hasNoBody(status()); }

void ExchangeState::appendStreamHead(std::string& out) {
  const qn::MutexLock lock(mutex_);
  qn::appendStatusLine(out, status_);
  qn::appendDate(out);
  out += std::exchange(headers_, {});
  out.append("X-Request-Id: ").append(requestId_).append("\r\n");
  out += "Connection: close\r\n\r\n";
}

bool ExchangeState::takeParts(std::string& out) {
  const qn::MutexLock lock(mutex_);
  wakePending_ = false;
  if (parts_.empty()) return false;
  out.swap(parts_);
  inWriting_ = out.size();
  partsInWriting_ = std::exchange(partCount_, 0);
  return true;
}

std::size_t ExchangeState::partsSent() {
  const qn::MutexLock lock(mutex_);
  inWriting_ = 0;
  return std::exchange(partsInWriting_, 0);
}

std::size_t ExchangeState::detach() {
  clientEnded();
  answered_ = true;
  qn::ExchangeRegistry::instance().erase(handle_);
  std::string parts;
  const qn::MutexLock lock(mutex_);
  gone_ = true;
  parts_.swap(parts);
  return std::exchange(partCount_, 0) + std::exchange(partsInWriting_, 0);
}

CHttpExchange::CHttpExchange(int handle) : state_(ExchangeState::find(handle)) {}

CHttpExchange::CHttpExchange(std::shared_ptr<ExchangeState> state) : state_(std::move(state)) {}

unsigned int CHttpExchange::getMethod() const {
  return state_ ? static_cast<unsigned int>(state_->method()) : unsigned{HTTP_GET};
}

const std::string& CHttpExchange::getUrl() const {
  static const std::string kNone;
  return state_ ? state_->url() : kNone;
}

std::string CHttpExchange::getHead(const char* name) const {
  return state_ && name != nullptr ? state_->header(name) : std::string();
}

void CHttpExchange::setHead(const char* name, const char* value) {
  if (state_ && name != nullptr && value != nullptr) state_->setHeader(name, value);
}

void CHttpExchange::setMIME() {
  if (state_) state_->markStream();
}

void CHttpExchange::setStatus(int status) {
  if (state_) state_->setStatus(status);
}

int CHttpExchange::response(const void* data, int length) {
  return state_ ? state_->respond(data, length) : HTTP_LINK_BROKEN;
}

int CHttpExchange::getHttpHandle() const { return state_ ? state_->handle() : -1; }

}  // namespace QNHttpService
