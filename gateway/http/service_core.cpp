// See service_core.h.
#include "gateway/http/service_core.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <cctype>
#include <climits>
#include <exception>
#include <future>
#include <optional>
#include <string>
#include <utility>

#include "gateway/auth/digest_credentials.h"
#include "gateway/http/multipart.h"
#include "gateway/http/part_pusher.h"
#include "gateway/log/log.h"
#include "gateway/log/request_id.h"
#include "platform/rest_protocol.h"
#include "text/ascii.h"

namespace qn {
namespace {

using boost::asio::ip::address;

constexpr std::size_t kRefusalsAtOnce = 256;
constexpr std::size_t kRefusedPart = 8;
// How many idle connections of each reactor are closed at once, as a part of all.
constexpr std::size_t kTakenBackPart = 128;
// For an action that only opens or closes sockets; a reactor that takes longer has stopped running.
constexpr std::chrono::seconds kReactorWait{5};

// A part of the connections, so that their descriptors suffice.
std::size_t refusalsAtOnce(const HttpOptions& options) {
  return std::clamp<std::size_t>(options.connections / kRefusedPart, 1, kRefusalsAtOnce);
}

std::size_t refusalsOfOne(const HttpOptions& options) { return (refusalsAtOnce(options) + 3) / 4; }

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

constexpr int kNotFound = 404;
constexpr int kPermanentRedirect = 308;
constexpr uint16_t kHttpsPort = 443;

// Of a Host header: a name or an address; nothing when it is neither.
std::optional<std::string> hostWithoutPort(std::string_view host) {
  constexpr std::size_t kLongestName = 253;
  const bool bracketed = host.starts_with('[');
  const std::size_t end = std::min(bracketed ? host.find(']') : host.find(':'), host.size());
  if (bracketed && end == host.size()) return std::nullopt;
  const std::string_view name = host.substr(bracketed ? 1 : 0, end - (bracketed ? 1 : 0));
  const std::string_view port = host.substr(bracketed ? end + 1 : end);
  const auto allowed = [&](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' ||
           (bracketed ? c == ':' : c == '-' || c == '_');
  };
  const bool good =
      !name.empty() && name.size() <= kLongestName && std::ranges::all_of(name, allowed) &&
      (port.empty() || (port[0] == ':' && std::ranges::all_of(port.substr(1), text::isDigit)));
  if (!good) return std::nullopt;
  return std::string(host.substr(0, bracketed ? end + 1 : end));
}

constexpr std::string_view kDoorPage =
    "<!DOCTYPE html><html lang=\"en\"><head><meta charset=\"utf-8\"><title>KAVRO gateway</title>"
    "</head><body><h1>KAVRO gateway</h1><p>There is no page here. Clients of the KAVRO protocol "
    "connect to this address; what they ask for begins with <code>/KAVRO/</code>, as "
    "<a href=\"/KAVRO/System/deviceInfo\">/KAVRO/System/deviceInfo</a>.</p></body></html>\n";

// Somebody has typed the gateway's address; clients of the protocol ask for no text/html there.
bool isBrowserAtTheDoor(const ExchangeState& exchange) {
  return exchange.url() == "/" && exchange.method() == QNHttpService::HTTP_GET &&
         exchange.header("Accept").find("text/html") != std::string::npos;
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
  void loggedIn(LoggedIn who, const std::string& info) override {
    exchange_.setLogin(std::move(who), info);
  }
  void onAnswer(std::function<void(int status)> call) override {
    exchange_.setOnAnswer(std::move(call));
  }

 private:
  ExchangeState& exchange_;
};

// Whom unread bytes of a stranger count for.
std::string networkOf(const address& client) { return clientNetwork(client).to_string(); }

std::string networkOf(const ExchangeState& exchange) {
  boost::system::error_code ec;
  const std::string text = exchange.header("X-Forwarded-For");
  const address client = boost::asio::ip::make_address(text, ec);
  return ec ? text : networkOf(client);
}

// Whose the credentials are, right or not; empty without any.
std::string userOf(const ExchangeState& exchange) {
  DigestCredentials given;
  std::string name;
  const std::string authorization = exchange.header("Authorization");
  const bool named = parseDigestCredentials(authorization, given) && usernameOf(given, name);
  return named ? "user " + name : std::string();
}

}  // namespace

ServiceCore::ServiceCore(Reactors& reactorsIn, HttpWorkers workers, const HttpOptions& optionsIn,
                         const HttpsOptions& https, const HttpBounds& boundsIn, ModuleEntry module,
                         std::vector<OwnResource> resources)
    : reactors(reactorsIn),
      bounds(boundsIn),
      places(optionsIn.connections, optionsIn.connectionsPerAddress),
      refusals(refusalsAtOnce(optionsIn), refusalsOfOne(optionsIn)),
      open(reactorsIn.size()),
      inForce_(reactorsIn.size(), prepare(optionsIn, https)),
      workers_(workers),
      module_(module),
      resources_(std::move(resources)),
      bodies_(boundsIn.bodyMemory, boundsIn.bodyMemoryOfOne),
      strangersBodies_(boundsIn.strangersBodies * optionsIn.bodyBytes, optionsIn.bodyBytes),
      unsentAnswers_(boundsIn.answerMemory, boundsIn.answerMemoryOfOne),
      mostRequests_(optionsIn.requests) {
  for (std::size_t i = 0; i < reactors.size(); ++i) {
    senders.push_back(std::make_shared<StreamSender>(reactors.context(i)));
    handshakes.push_back(std::make_unique<Handshakes>(reactors.context(i), counts));
  }
  setLimits(*inForce_[0]);
}

ServiceCore::Options::Options(const HttpOptions& http, const HttpsOptions& secure,
                              const std::shared_ptr<TicketKeys>& keys)
    : options(http),
      https(secure),
      trusted(http.trustedProxies),
      tls(https.isOn() ? std::make_unique<const TlsServer>(https.tls(), keys) : nullptr) {}

std::shared_ptr<const ServiceCore::Options> ServiceCore::prepare(const HttpOptions& options,
                                                                 const HttpsOptions& https) const {
  return std::make_shared<const Options>(options, https, ticketKeys_);
}

const HttpOptions& ServiceCore::options() const { return inForce().options; }
const TrustedProxies& ServiceCore::trusted() const { return inForce().trusted; }
const TlsServer* ServiceCore::tls() const { return inForce().tls.get(); }
std::chrono::seconds ServiceCore::handshakeTime() const { return inForce().https.handshakeTime; }

void ServiceCore::setOptions(const std::shared_ptr<const Options>& next) {
  for (std::size_t i = 0; i < reactors.size(); ++i) {
    runOn(i, [core = shared_from_this(), next, i] { core->inForce_[i] = next; });
  }
  setLimits(*next);
}

void ServiceCore::setLimits(const Options& next) {
  const HttpOptions& options = next.options;
  const std::size_t ofReactor = next.https.handshakes / reactors.size();
  for (const auto& each : handshakes) each->setMost(std::max<std::size_t>(ofReactor, 1));
  mostRequests_ = options.requests;
  places.setLimits(options.connections, options.connectionsPerAddress);
  refusals.setLimits(refusalsAtOnce(options), refusalsOfOne(options));
  strangersBodies_.setLimits(bounds.strangersBodies * options.bodyBytes, options.bodyBytes);
}

void ServiceCore::runOn(std::size_t reactor, const std::function<void()>& action) {
  if (!reactors.isRunning()) return;  // their handlers go with them
  auto done = std::make_shared<std::promise<void>>();
  boost::asio::post(reactors.context(reactor), [action, done] {
    action();
    done->set_value();
  });
  if (done->get_future().wait_for(kReactorWait) != std::future_status::ready) {
    logError("http: a reactor does not answer");
  }
}

bool ServiceCore::takeBackIdle(const std::function<void()>& done) {
  if (std::chrono::steady_clock::now() < noneIdleUntil_) return false;
  struct Count {
    explicit Count(std::size_t all) : reactors(all) {}
    std::atomic<std::size_t> reactors;
    std::atomic<std::size_t> closed{0};
  };
  const auto count = std::make_shared<Count>(reactors.size());
  for (std::size_t i = 0; i < reactors.size(); ++i) {
    boost::asio::post(reactors.context(i), [core = shared_from_this(), count, done, i] {
      count->closed += core->closeLongestIdle(i);
      if (--count->reactors > 0) return;
      boost::asio::post(core->reactors.context(0), [core, count, done] {
        if (count->closed == 0) {
          core->noneIdleUntil_ = std::chrono::steady_clock::now() + core->bounds.acceptPause;
        }
        done();
      });
    });
  }
  return true;
}

std::size_t ServiceCore::closeLongestIdle(std::size_t reactor) {
  const auto latest = std::chrono::steady_clock::now() - bounds.takenBack;
  std::vector<std::pair<std::chrono::steady_clock::time_point, OpenConnection*>> idle;
  for (OpenConnection* connection : open[reactor]) {
    const auto since = connection->idleSince();
    if (since && *since <= latest) idle.emplace_back(*since, connection);
  }
  const std::size_t most = std::max<std::size_t>(options().connections / kTakenBackPart, 1);
  const std::size_t count = std::min(idle.size(), most);
  std::ranges::nth_element(idle, idle.begin() + static_cast<std::ptrdiff_t>(count));
  for (std::size_t i = 0; i < count; ++i) idle[i].second->close();
  return count;
}

bool ServiceCore::isAnonymous(const ExchangeState& exchange) const {
  return module_.recognise != nullptr && exchange.header("Authorization").empty();
}

MemoryBudget::Share ServiceCore::bodyShare(const ExchangeState& exchange) {
  if (module_.recognise == nullptr) return MemoryBudget::Share(bodies_, {});
  const char* const method =
      QNBase::CRESTfulProtocol::GetMethod(static_cast<unsigned char>(exchange.method()));
  return module_.recognise(method, exchange.header("Authorization"))
             ? MemoryBudget::Share(bodies_, userOf(exchange))
             : MemoryBudget::Share(strangersBodies_, networkOf(exchange));
}

// Long answers go to those who have logged in; nobody needs to for what the service itself serves.
MemoryBudget::Share ServiceCore::answerShare(const ExchangeState& exchange) {
  const std::string user = findResource(exchange.url()) ? std::string() : userOf(exchange);
  return MemoryBudget::Share(unsentAnswers_, user.empty() ? networkOf(exchange) : user);
}

MemoryBudget::Share ServiceCore::answerShare(const address& peer) {
  return MemoryBudget::Share(unsentAnswers_, networkOf(peer));
}

ServiceLoad ServiceCore::load() const {
  const auto budget = [](const MemoryBudget& of) {
    return ServiceLoad::Budget{of.held(), of.most(), of.refusals()};
  };
  std::size_t shaking = 0;
  for (const auto& each : handshakes) shaking += each->underWay();
  return {places.taken(), places.all(),    requestsInFlight(),       mostRequests_,
          shaking,        budget(bodies_), budget(strangersBodies_), budget(unsentAnswers_)};
}

bool ServiceCore::enterRequest() {
  if (requests_.fetch_add(1) < mostRequests_) return true;
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

// To where the client has meant to go, by HTTPS.
void ServiceCore::redirect(ExchangeState& exchange) const {
  const uint16_t port = inForce().https.redirectPort;
  const auto host = hostWithoutPort(exchange.host());
  if (!host || port == 0) {
    exchange.finish(OwnAnswer::Malformed);
    return;
  }
  const std::string to =
      "https://" + *host + (port == kHttpsPort ? "" : ':' + std::to_string(port));
  exchange.setHeader("Location", to + exchange.url());
  exchange.finish(kPermanentRedirect, "text/plain", {});
}

void ServiceCore::handOver(const ExchangePtr& exchange, Access access, std::string_view body) {
  if (access == Access::Redirection) return redirect(*exchange);
  if (const OwnResource* resource = findResource(exchange->url())) {
    return queue(workers_.files, exchange, [core = shared_from_this(), exchange, resource] {
      const RequestIdScope idScope(exchange->requestId());
      answering(exchange, [&] { resource->serve(*exchange); });
    });
  }
  if (access != Access::Everything) {
    exchange->finish(OwnAnswer::NotFound);
    return;
  }
  if (isBrowserAtTheDoor(*exchange)) {
    exchange->finish(kNotFound, "text/html; charset=utf-8", kDoorPage);
    return;
  }
  if (module_.await.wait == nullptr || !waitsForLogin(exchange, body)) handToModule(exchange, body);
}

// What it needs of the request is kept until then; without room for that it does not wait.
bool ServiceCore::waitsForLogin(const ExchangePtr& exchange, std::string_view body) {
  const std::string authorization = exchange->header("Authorization");
  if (authorization.empty() || !module_.await.mayWait(authorization)) return false;
  struct Kept {
    MemoryBudget::Share share;
    std::string body;
  };
  const auto kept = std::make_shared<Kept>(Kept{bodyShare(*exchange), {}});
  if (!kept->share.set(body.size())) return false;
  auto& reactor = reactors.context(std::size_t(Reactors::current()));
  const char* const method =
      QNBase::CRESTfulProtocol::GetMethod(static_cast<unsigned char>(exchange->method()));
  const bool waits = module_.await.wait(
      method, authorization, [core = shared_from_this(), &reactor, exchange, kept] {
        boost::asio::post(reactor,
                          [core, exchange, kept] { core->handToModule(exchange, kept->body); });
      });
  if (waits) kept->body = body;  // before anything that was posted here runs
  return waits;
}

void ServiceCore::handToModule(const ExchangePtr& exchange, std::string_view body) {
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
  const auto share = std::make_shared<MemoryBudget::Share>(bodyShare(*exchange));
  if (!share->set(body.size())) {
    if (!isAnonymous(*exchange)) {
      exchange->finish(OwnAnswer::Overloaded);
      return;
    }
    share->set(0);
    body = {};
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
  const auto wasDropped = [&] { return body.empty() && isAnonymous(*exchange); };
  if (isMultipart(contentType) && !wasDropped()) {
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
  const AskerScope scope(exchange);
  const RequestIdScope idScope(exchange->requestId());
  ExchangeLogin login(*exchange);
  const LoginRequest::Scope loginScope(login);
  const int status = module_.process(bodyIsXml, answer, asyncReply, request);
  if (asyncReply == 0) {
    exchange->finish(status, bodyIsXml != 0 ? "application/xml" : "application/json", answer);
  }
}

}  // namespace qn
