// See guard.h.
#include "gateway/admin/guard.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "gateway/auth/digest.h"
#include "gateway/auth/login_request.h"
#include "platform/rest_protocol.h"
#include "text/ascii.h"

namespace qn {
namespace {

// Offers both algorithms, the stronger one first.
std::shared_ptr<const Configuration> operatorsOf(const AdminOptions& options,
                                                 const LockOptions& lock) {
  const auto ha1 = [&](DigestAlgorithm algorithm) {
    return std::string(
        hexDigest(algorithm, {options.username, kAdminRealm, options.password}).text());
  };
  auto made = std::make_shared<Configuration>();
  made->kavro.realm = kAdminRealm;
  made->kavro.algorithm = DigestAlgorithm::SHA256;
  made->lock = lock;
  UserConfig& user = made->users.emplace_back();
  user.name = options.username;
  user.ha1 = ha1(DigestAlgorithm::MD5);
  user.strongHa1 = ha1(DigestAlgorithm::SHA256);
  made->buildIndexes();
  return made;
}

// "name" of "name:80"; an address in brackets stays in them.
std::string_view hostName(std::string_view host) {
  const std::size_t start = host.starts_with('[') ? host.find(']') : 0;
  return host.substr(0, host.find(':', std::min(start, host.size())));
}

bool isIPv4(std::string_view text) {
  in_addr address{};
  return inet_pton(AF_INET, std::string(text).c_str(), &address) == 1;
}

// The login's view of an exchange.
class OperatorLogin final : public LoginRequest {
 public:
  explicit OperatorLogin(ExchangeState& exchange) : exchange_(exchange) {}
  std::string_view clientAddress() const override { return exchange_.clientAddress(); }
  std::string user() const override { return {}; }
  void onAnswer(std::function<void(int status)>) override {}  // nothing is recorded
  void loggedIn(LoggedIn /*who*/, const std::string& info) override {
    exchange_.setHeader("Authentication-Info", info);
  }

 private:
  ExchangeState& exchange_;
};

}  // namespace

AdminGuard::AdminGuard(const AdminOptions& options, const LockOptions& lock)
    : options_(options),
      operators_(operatorsOf(options, lock)),
      login_(std::chrono::steady_clock::now, [users = operators_] { return users; }) {}

bool AdminGuard::isCalledRightly(const ExchangeState& exchange) const {
  if (!options_.password.empty()) return true;
  const std::string host = exchange.header("Host");
  const std::string_view name = hostName(host);
  // The exchange gives an IPv6 address without itself; who sends no Host is no browser.
  return name.empty() || text::equalNoCase(name, "localhost") || isIPv4(name);
}

bool AdminGuard::isOwnPage(const ExchangeState& exchange) {
  const std::string site = exchange.header("Sec-Fetch-Site");
  if (!site.empty() && site != "same-origin" && site != "none") return false;
  const std::string origin = exchange.header("Origin");
  if (origin.empty()) return true;
  const std::string host = exchange.header("Host");
  constexpr std::string_view kScheme = "http://";
  if (!origin.starts_with(kScheme)) return false;
  const std::string_view page = std::string_view(origin).substr(kScheme.size());
  // Of an IPv6 Host the exchange gives the port only.
  return host.starts_with(':') ? page.starts_with('[') && page.ends_with("]" + host) : page == host;
}

bool AdminGuard::admits(ExchangeState& exchange) {
  if (options_.password.empty()) return true;
  tagDIGEST_REQUEST request{};
  tagDIGEST_RESULT result{};
  std::snprintf(request.authorization, sizeof request.authorization, "%s",
                exchange.header("Authorization").c_str());
  OperatorLogin login(exchange);
  const LoginRequest::Scope scope(login);
  const char* const method =
      QNBase::CRESTfulProtocol::GetMethod(static_cast<unsigned char>(exchange.method()));
  if (login_.check(result, method, request, DIGEST_MODE_OWN_DEVICE) == DIGEST_OK) return true;
  exchange.setHeader("WWW-Authenticate", result.wwwAuthenticate);
  return false;
}

bool AdminGuard::admitsByToken(const ExchangeState& exchange) const {
  return !options_.metricsToken.empty() &&
         equalInConstantTime(exchange.bearerToken(), options_.metricsToken);
}

}  // namespace qn
