// See service_core.h.
#include "gateway/http/service_core.h"

#include <algorithm>
#include <climits>
#include <exception>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "gateway/http/header_lines.h"
#include "gateway/http/multipart.h"
#include "gateway/http/part_pusher.h"
#include "gateway/log/log.h"
#include "text/ascii.h"

namespace qn {
namespace {

using boost::asio::ip::address;

constexpr std::size_t kRefusalsAtOnce = 256;

// Runs what answers an exchange; whatever it throws, there is an answer.
template <class Answering>
void answering(const ExchangePtr& exchange, Answering answer) {
  try {
    return answer();
  } catch (const std::exception& e) {
    logError("http: {}: {}", exchange->url(), e.what());
  } catch (...) {
    logError("http: {}: not a std::exception", exchange->url());
  }
  exchange->finish(OwnAnswer::InternalError);
}

SlowPart slowPartOf(const ExchangeState& exchange) {
  const std::string_view url = exchange.url();
  const std::string_view path = url.substr(0, url.find('?'));
  const auto method = static_cast<unsigned int>(exchange.method());
  const auto found = std::ranges::find_if(kSlowResources, [&](const SlowResource& resource) {
    return path == resource.path && resource.isFor(method);
  });
  return found == std::end(kSlowResources) ? SlowPart::DeviceOnly : found->slowPart;
}

// The login's view of an exchange.
class ExchangeLogin final : public LoginRequest {
 public:
  explicit ExchangeLogin(ExchangeState& exchange) : exchange_(exchange) {}
  std::string_view clientAddress() const override { return exchange_.clientAddress(); }
  std::string user() const override { return exchange_.user(); }
  void loggedIn(const LoggedIn& who, const std::string& info) override {
    exchange_.setLogin(who);
    exchange_.setHeader("Authentication-Info", info);
  }

 private:
  ExchangeState& exchange_;
};

// The values of all lines of that name, as one list.
std::string allValues(std::string_view fields, std::string_view name) {
  std::string list;
  for (HeaderLine line = findHeader(fields, name); line.found();
       line = findHeader(fields, name, line.end)) {
    if (!list.empty()) list += ',';
    list += line.value;
  }
  return list;
}

// An address as proxies write it: some put it in brackets, some add the port.
std::optional<address> forwardedAddress(std::string_view text) {
  if (text.starts_with('[')) {
    text = text.substr(1, text.find(']') - 1);
  } else if (const std::size_t colon = text.find(':'); text.rfind(':') == colon) {
    text = text.substr(0, colon);
  }
  boost::system::error_code ec;
  const address parsed = boost::asio::ip::make_address(std::string(text), ec);
  return ec ? std::nullopt : std::optional(plainAddress(parsed));
}

}  // namespace

address plainAddress(const address& peer) {
  if (!peer.is_v6() || !peer.to_v6().is_v4_mapped()) return peer;
  return boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, peer.to_v6());
}

bool ConnectionCount::enter(const address& peer) {
  const MutexLock lock(mutex_);
  if (open_ >= connections_) return false;
  std::size_t& ofAddress = byAddress_[peer];
  if (ofAddress >= perAddress_) {
    if (ofAddress == 0) byAddress_.erase(peer);
    return false;
  }
  ++ofAddress;
  ++open_;
  return true;
}

void ConnectionCount::leave(const address& peer) {
  const MutexLock lock(mutex_);
  const auto found = byAddress_.find(peer);
  if (--found->second == 0) byAddress_.erase(found);
  --open_;
}

ServiceCore::ServiceCore(Reactors& reactorsIn, HttpWorkers workers, const HttpOptions& optionsIn,
                         const HttpBounds& boundsIn, ProcessFunction processIn,
                         std::vector<OwnResource> resources)
    : reactors(reactorsIn),
      options(optionsIn),
      bounds(boundsIn),
      admission(optionsIn.connections, optionsIn.connectionsPerAddress),
      refusals(kRefusalsAtOnce, kRefusalsAtOnce / 4),
      bodies(boundsIn.bodyMemory),
      unsentAnswers(boundsIn.answerMemory),
      open(reactorsIn.size()),
      workers_(workers),
      process_(processIn),
      resources_(std::move(resources)) {
  for (std::size_t i = 0; i < reactors.size(); ++i) {
    senders.push_back(std::make_shared<StreamSender>(reactors.context(i)));
  }
  for (const std::string& proxy : options.trustedProxies) {
    boost::system::error_code ec;
    const address parsed = boost::asio::ip::make_address(proxy, ec);
    if (ec) throw std::system_error(ec, "trusted proxy \"" + proxy + "\"");
    trusted_.push_back(plainAddress(parsed));
  }
}

bool ServiceCore::trusts(const address& peer) const {
  return std::find(trusted_.begin(), trusted_.end(), peer) != trusted_.end();
}

std::string ServiceCore::clientAddress(address peer, std::string_view fields) const {
  const std::string forwarded = allValues(fields, "X-Forwarded-For");
  std::string_view rest = forwarded;
  while (trusts(peer) && !rest.empty()) {
    const std::size_t comma = rest.rfind(',');
    const std::size_t start = comma == rest.npos ? 0 : comma + 1;
    const auto next = forwardedAddress(text::trim(rest.substr(start)));
    if (!next) break;  // nobody knows who that is: the proxy answers for it
    peer = *next;
    rest = rest.substr(0, start == 0 ? 0 : comma);
  }
  return peer.to_string();
}

bool ServiceCore::enterRequest() {
  if (requests_.fetch_add(1) < options.requests) return true;
  requests_.fetch_sub(1);
  return false;
}

const OwnResource* ServiceCore::findResource(std::string_view url) const {
  for (const OwnResource& resource : resources_) {
    if (url.starts_with(resource.prefix)) return &resource;
  }
  return nullptr;
}

template <class Job>
void ServiceCore::queue(WorkerPool& workers, const ExchangePtr& exchange, Job job) {
  if (!workers.post(std::move(job))) exchange->finish(OwnAnswer::Overloaded);
}

void ServiceCore::handOver(const ExchangePtr& exchange, Access access, std::string_view body) {
  if (const OwnResource* resource = findResource(exchange->url())) {
    return queue(workers_.files, exchange, [core = shared_from_this(), exchange, resource] {
      answering(exchange, [&] { resource->serve(*exchange); });
    });
  }
  if (access != Access::Everything) {
    exchange->finish(OwnAnswer::NotFound);
    return;
  }
  switch (slowPartOf(*exchange)) {
    case SlowPart::DeviceOnly:
      return process(exchange, body);
    case SlowPart::AsksDeviceFirst:
      return queueWithBody(workers_.devices, exchange, body);
    case SlowPart::TakesPicture:
      return queueWithBody(workers_.files, exchange, body);
  }
}

void ServiceCore::queueWithBody(WorkerPool& workers, const ExchangePtr& exchange,
                                std::string_view body) {
  const auto share = std::make_shared<MemoryBudget::Share>(bodies);
  if (!share->set(body.size())) {
    exchange->finish(OwnAnswer::Overloaded);
    return;
  }
  queue(workers, exchange, [core = shared_from_this(), exchange, owned = std::string(body), share] {
    core->process(exchange, owned);
  });
}

void ServiceCore::process(const ExchangePtr& exchange, std::string_view body) const {
  answering(exchange, [&] { processOrThrow(exchange, body); });
}

void ServiceCore::processOrThrow(const ExchangePtr& exchange, std::string_view body) const {
  QNHttpService::stHttpRes request;
  request.exchange = std::make_shared<QNHttpService::CHttpExchange>(exchange);
  std::optional<FaceBody> face;
  const bool takesPicture = slowPartOf(*exchange) == SlowPart::TakesPicture;
  const std::string contentType = takesPicture ? exchange->header("Content-Type") : std::string();
  if (isMultipart(contentType)) {
    face = readFaceBody(contentType, body);
    if (!face) {
      exchange->finish(OwnAnswer::Malformed);
      return;
    }
    body = face->bytes;
    request.hasMimePart = face->hasMimeType;
    request.mimeType = face->mimeType;
  }
  if (!body.empty()) {
    request.body = body.data();
    request.bodyLength = static_cast<int>(std::min<std::size_t>(body.size(), INT_MAX));
  }
  int bodyIsXml = 1;
  int asyncReply = 0;
  std::string answer;
  ExchangeLogin login(*exchange);
  const LoginRequest::Scope scope(login);
  const int status = process_(bodyIsXml, answer, asyncReply, request);
  if (asyncReply == 0) {
    exchange->finish(status, bodyIsXml != 0 ? "application/xml" : "application/json", answer);
  }
}

}  // namespace qn
