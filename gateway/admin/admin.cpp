// See admin.h.
#include "gateway/admin/admin.h"

#include <json/json.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <utility>

#include "gateway/admin/metrics_text.h"
#include "gateway/admin/page.h"
#include "gateway/admin/status.h"
#include "gateway/log/log.h"
#include "text/hex.h"

namespace qn {
namespace {

using QNHttpService::HTTP_GET;
using QNHttpService::HTTP_HEAD;
using QNHttpService::HTTP_POST;

constexpr std::size_t kConnections = 64;
constexpr std::size_t kWorkers = 2;
constexpr std::size_t kQueue = 64;
constexpr std::size_t kBodyBytes = 1024;
constexpr std::chrono::seconds kFinishTime{1};

constexpr char kJson[] = "application/json";

HttpOptions httpOptions(const AdminOptions& options) {
  HttpOptions http;
  http.address = options.address;
  http.port = options.port;
  http.bodyBytes = kBodyBytes;
  http.connections = http.connectionsPerAddress = kConnections;
  http.requests = kConnections;
  return http;
}

int refuseToServe(int&, std::string&, int&, const QNHttpService::stHttpRes&) {
  constexpr int kNotFound = 404;
  return kNotFound;
}

// "%41" is "A"; what is no such triple stays.
std::string percentDecoded(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const std::string_view digits = text.substr(std::min(i + 1, text.size()), 2);
    if (text[i] != '%' || digits.size() < 2 || !text::isHex(digits)) {
      out += text[i];
      continue;
    }
    out += static_cast<char>(std::stoi(std::string(digits), nullptr, 16));
    i += digits.size();
  }
  return out;
}

// The value of a query parameter; empty when it is not there.
std::string parameter(std::string_view url, std::string_view name) {
  std::string_view rest = url.substr(std::min(url.find('?'), url.size() - 1) + 1);
  while (!rest.empty()) {
    const std::string_view pair = rest.substr(0, rest.find('&'));
    rest.remove_prefix(std::min(pair.size() + 1, rest.size()));
    const std::size_t equals = pair.find('=');
    if (pair.substr(0, equals) != name || equals == pair.npos) continue;
    return percentDecoded(pair.substr(equals + 1));
  }
  return {};
}

void answer(ExchangeState& exchange, int status, const Json::Value& document) {
  exchange.finish(status, kJson, Json::FastWriter().write(document));
}

void answerError(ExchangeState& exchange, int status, const char* text) {
  Json::Value document;
  document["error"] = text;
  answer(exchange, status, document);
}

// What is without an engine, it may say, serves all the same.
void answerHealth(ExchangeState& exchange, const Health::Reasons& against,
                  const std::vector<const EngineState*>& engines = {}) {
  Json::Value document;
  document["status"] = against.empty() ? "ok" : "fail";
  document["reasons"] = Json::arrayValue;
  for (const std::string& reason : against) document["reasons"].append(reason);
  for (const EngineState* engine : engines) {
    if (const auto trouble = engine->trouble()) document["without"].append(*trouble);
  }
  answer(exchange, against.empty() ? 200 : 503, document);
}

// Nothing of it is kept by a browser, shown inside another page or taken for something else, and
// the page runs nothing but its own script.
void setHeaders(ExchangeState& exchange) {
  exchange.setHeader("Cache-Control", "no-store");
  exchange.setHeader("X-Content-Type-Options", "nosniff");
  exchange.setHeader("X-Frame-Options", "DENY");
  exchange.setHeader("Referrer-Policy", "no-referrer");
  exchange.setHeader("Cross-Origin-Resource-Policy", "same-origin");
  exchange.setHeader("Content-Security-Policy",
                     "default-src 'none'; script-src 'self'; style-src 'self'; "
                     "connect-src 'self'; img-src data:; base-uri 'none'; form-action 'none'; "
                     "frame-ancestors 'none'");
}

}  // namespace

// One listening port with its threads.
class AdminListener::Service {
 public:
  Service(const Observed& observed, const AdminOptions& options, const LockOptions& lock)
      : observed_(observed),
        port_(options.port),
        guard_(options, lock),
        reactors_(1, "admin"),
        workers_(kWorkers, kQueue),
        http_(reactors_, {workers_, workers_}, httpOptions(options), refuseToServe, HttpBounds{},
              {{"/", [this](ExchangeState& exchange) { serve(exchange); }}}) {
    reactors_.start();
  }
  ~Service() {
    http_.stopAccepting();
    http_.drain(std::chrono::steady_clock::now() + kFinishTime);
    http_.close();
    workers_.stop();
    reactors_.stop();
  }
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  void listen() { http_.listenOn(port_, Access::OwnResources); }
  void listenOrRetry() { http_.setExtraPorts({{port_, Access::OwnResources}}); }

 private:
  // What a resource asks of those who use it.
  enum class Needs { Nothing, LoginOrToken, Login };
  struct Resource {
    const char* path;
    int method;
    Needs needs;
    void (Service::*serve)(ExchangeState&);
  };
  static const std::array<Resource, 10> kResources;

  void serve(ExchangeState& exchange) {
    setHeaders(exchange);
    if (!guard_.isCalledRightly(exchange)) {
      return answerError(exchange, 421, "call it by an address or as localhost");
    }
    const std::string_view path =
        std::string_view(exchange.url()).substr(0, exchange.url().find('?'));
    const auto* const found = std::ranges::find(kResources, path, &Resource::path);
    if (found == kResources.end()) return answerError(exchange, 404, "there is no such resource");
    const bool reads = exchange.method() == HTTP_GET || exchange.method() == HTTP_HEAD;
    if (found->method == HTTP_GET ? !reads : exchange.method() != found->method) {
      exchange.setHeader("Allow", found->method == HTTP_GET ? "GET, HEAD" : "POST");
      return answerError(exchange, 405, "it takes another method");
    }
    if (!isAllowed(*found, exchange)) return answerError(exchange, 401, "log in first");
    if (!reads && !AdminGuard::isOwnPage(exchange)) {
      return answerError(exchange, 403, "a page of another origin may not do this");
    }
    (this->*found->serve)(exchange);
  }
  bool isAllowed(const Resource& resource, ExchangeState& exchange) {
    if (resource.needs == Needs::Nothing) return true;
    if (resource.needs == Needs::LoginOrToken && guard_.admitsByToken(exchange)) return true;
    return guard_.admits(exchange);
  }

  void page(ExchangeState& exchange) {
    exchange.finish(200, "text/html; charset=utf-8", kPageHtml);
  }
  void style(ExchangeState& exchange) { exchange.finish(200, "text/css; charset=utf-8", kPageCss); }
  void script(ExchangeState& exchange) {
    exchange.finish(200, "text/javascript; charset=utf-8", kPageJs);
  }
  void metrics(ExchangeState& exchange) {
    exchange.finish(200, kMetricsType, metricsText(observed_));
  }
  void status(ExchangeState& exchange) {
    exchange.finish(200, kJson, statusJson(observed_, parameter(exchange.url(), "search")));
  }
  void life(ExchangeState& exchange) { answerHealth(exchange, observed_.health.againstLife()); }
  void readiness(ExchangeState& exchange) {
    answerHealth(exchange, observed_.health.againstReadiness(), observed_.engines);
  }
  void start(ExchangeState& exchange) { answerHealth(exchange, observed_.health.againstStart()); }

  void unlock(ExchangeState& exchange) {
    std::string address = parameter(exchange.url(), "address");
    address.resize(std::min(address.find('/'), address.size()));  // of the "/64" that is shown
    boost::system::error_code error;
    boost::asio::ip::make_address(address, error);
    if (error) return answerError(exchange, 400, "address= takes an IP address");
    const bool client = observed_.login.unlock(address);
    const bool own = guard_.unlock(address);
    if (client || own) {
      logInfo("admin: {} is not locked any more, as {} asked", address, exchange.clientAddress());
    }
    Json::Value document;
    document["unlocked"] = client || own;
    answer(exchange, 200, document);
  }

  void reload(ExchangeState& exchange) {
    logInfo("admin: {} asks for a reload", exchange.clientAddress());
    const auto refusal = observed_.reloads.ask();
    if (!refusal) return answerError(exchange, 503, "no reload has ended in time");
    Json::Value document;
    document["taken"] = refusal->empty();
    if (!refusal->empty()) document["reason"] = *refusal;
    answer(exchange, refusal->empty() ? 200 : 409, document);
  }

  const Observed& observed_;
  const uint16_t port_;
  AdminGuard guard_;
  Reactors reactors_;  // nothing here uses the buses, whose reactors are others
  WorkerPool workers_;
  HttpService http_;
};

const std::array<AdminListener::Service::Resource, 10> AdminListener::Service::kResources{{
    {"/livez", HTTP_GET, Needs::Nothing, &Service::life},
    {"/readyz", HTTP_GET, Needs::Nothing, &Service::readiness},
    {"/startupz", HTTP_GET, Needs::Nothing, &Service::start},
    {"/metrics", HTTP_GET, Needs::LoginOrToken, &Service::metrics},
    {"/", HTTP_GET, Needs::Login, &Service::page},
    {"/page.css", HTTP_GET, Needs::Login, &Service::style},
    {"/page.js", HTTP_GET, Needs::Login, &Service::script},
    {"/status.json", HTTP_GET, Needs::Login, &Service::status},
    {"/unlock", HTTP_POST, Needs::Login, &Service::unlock},
    {"/reload", HTTP_POST, Needs::Login, &Service::reload},
}};

AdminListener::AdminListener(Observed observed) : observed_(std::move(observed)) {}

AdminListener::~AdminListener() { close(); }

void AdminListener::open(const AdminOptions& options, const LockOptions& lock) {
  options_ = options;
  if (options.port == 0) return;
  service_ = std::make_unique<Service>(observed_, options, lock);
  service_->listen();
  logInfo("admin: metrics, health and the operator's page on {} port {}", options.address,
          options.port);
}

void AdminListener::reopen(const AdminOptions& options, const LockOptions& lock) try {
  if (options == options_) return;
  close();
  options_ = options;
  if (options.port == 0) return;
  service_ = std::make_unique<Service>(observed_, options, lock);
  service_->listenOrRetry();
} catch (const std::exception& error) {  // no threads, no memory
  logError("admin: {}", error.what());
}

void AdminListener::close() { service_.reset(); }

}  // namespace qn
