// Whether an answer's time tells a guesser anything: wrong credentials for a user that exists, for
// one that does not, and for digests that differ in the first or the last digit, measured in turns.
// Ends with 1 when the medians of two kinds are further apart than the noise between two halves of
// the same kind allows.
#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "gateway/config/configuration.h"
#include "gateway/devices/device_login.h"
#include "gateway/log/log.h"
#include "gateway/login/login.h"

namespace {

constexpr int kRounds = 100'000;
constexpr double kAllowed = 0.02;  // of the median
constexpr const char* kUri = "/KAVRO/System/deviceInfo";

void publish() {
  qn::setLogLevel("error");
  const auto configuration = std::make_shared<qn::Configuration>();
  configuration->lock.maxAttempts = 1000;
  for (int i = 0; i < 100; ++i) {
    const std::string name = "user" + std::to_string(i);
    const auto ha1 = qn::hexDigest(qn::DigestAlgorithm::MD5, {name, "KAVRO", "password"});
    configuration->users.push_back({name, std::string(ha1.text()), "1", {}});
  }
  configuration->buildIndexes();
  qn::publishConfiguration(configuration);
}

struct Kind {
  const char* what;
  tagDIGEST_REQUEST request{};
  std::vector<double> times{};

  void setAuthorization(const std::string& value) {
    std::strncpy(request.authorization, value.c_str(), DIGEST_AUTHORIZATION_MAX);
    std::strcpy(request.clientIp, "192.0.2.1");
  }
  double median(std::size_t first, std::size_t step) const {
    std::vector<double> some;
    for (std::size_t i = first; i < times.size(); i += step) some.push_back(times[i]);
    std::ranges::nth_element(some, some.begin() + std::ptrdiff_t(some.size() / 2));
    return some[some.size() / 2];
  }
};

std::string authorization(qn::Login& login, const std::string& user, const std::string& password) {
  char nonce[64];
  login.createNonce(nonce, sizeof nonce, 8);
  qn::ClientLogin client(user, password);
  client.takeChallenge("Digest qop=\"auth\", realm=\"KAVRO\", nonce=\"" + std::string(nonce) + '"');
  return client.authorization("GET", kUri);
}

std::string withDigit(std::string value, std::size_t index) {
  char& digit = value[value.find("response=\"") + 10 + index];
  digit = digit == '0' ? '1' : '0';
  return value;
}

void measure(qn::Login& login, Kind& kind) {
  tagDIGEST_RESULT result;
  const auto begin = std::chrono::steady_clock::now();
  const int code = login.check(result, "GET", kind.request, DIGEST_MODE_OWN_DEVICE);
  const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - begin;
  if (code != DIGEST_REFUSED) std::abort();
  kind.times.push_back(time.count());
}

}  // namespace

int main() {
  publish();
  qn::Login login;
  std::array<Kind, 4> kinds{{{"known user"}, {"unknown user"}, {"first digit"}, {"last digit"}}};
  const std::string right = authorization(login, "user50", "password");
  kinds[0].setAuthorization(authorization(login, "user50", "guess"));
  kinds[1].setAuthorization(authorization(login, "nobody", "guess"));
  kinds[2].setAuthorization(withDigit(right, 0));
  kinds[3].setAuthorization(withDigit(right, 31));
  for (int round = 0; round < kRounds; ++round) {
    for (std::size_t i = 0; i < kinds.size(); ++i)
      measure(login, kinds[(i + round) % kinds.size()]);
  }
  double noise = 0;
  for (const Kind& kind : kinds) {
    noise = std::max(noise, std::abs(kind.median(0, 2) - kind.median(1, 2)) / kind.median(0, 1));
  }
  bool even = true;
  for (const Kind& kind : kinds) {
    const double apart = kind.median(0, 1) / kinds[0].median(0, 1) - 1;
    even = even && std::abs(apart) <= kAllowed + noise;
    std::printf("%-13s %7.0f ns  %+5.2f %%\n", kind.what, kind.median(0, 1), 100 * apart);
  }
  std::printf("noise %.2f %%: %s\n", 100 * noise, even ? "nothing to be told apart" : "DIFFERENT");
  return even ? 0 : 1;
}
