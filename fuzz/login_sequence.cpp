// A sequence of what clients do to the login: nonces, right and wrong credentials with any counts
// from several addresses, replays, time. Each byte pair is one step. A plain model that remembers
// everything says what the answer has to be.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "fuzz/require.h"
#include "gateway/config/configuration.h"
#include "gateway/log/log.h"
#include "gateway/login/login.h"

namespace {

using qn::Lockout;
using std::chrono::seconds;

constexpr const char* kUsers[] = {"admin", "operator", "nobody"};
// The last two are one network.
constexpr const char* kAddresses[] = {"192.0.2.1", "192.0.2.2", "2001:db8::1", "2001:db8::2"};
constexpr const char* kUri = "/x";
constexpr int kMaxAttempts = 3;
constexpr seconds kLockTime{60};

std::string ha1Of(const std::string& user, const char* password) {
  return std::string(qn::hexDigest(qn::DigestAlgorithm::MD5, {user, "KAVRO", password}).text());
}

bool publish() {
  qn::setLogLevel("error");
  const auto configuration = std::make_shared<qn::Configuration>();
  configuration->lock = {kMaxAttempts, kLockTime};
  for (const char* user : {"admin", "operator"}) {
    configuration->users.push_back({user, ha1Of(user, "pass"), "1", {}});
  }
  qn::publishConfiguration(configuration);
  return true;
}

class Conversation {
 public:
  void step(uint8_t action, uint8_t argument) {
    const std::size_t nonce = argument % nonces_.size();
    switch (action % 6) {
      case 0:
        Require(send("", kAddresses[argument % 4]).code == DIGEST_NO_CREDENTIALS);
        break;
      case 1:
        makeNonce(nonce);
        break;
      case 2:
        counts_[nonce] += argument / 8 + 1;
        [[fallthrough]];
      case 3:
        login(nonce, std::max(1, counts_[nonce] - (action / 6) * 8), action, argument);
        break;
      case 4:
        now_ += seconds(argument) / (action % 4 + 1);
        break;
      default:
        if (!accepted_.empty())
          Require(send(accepted_, kAddresses[argument % 4]).code != DIGEST_OK);
    }
  }

 private:
  struct Nonce {
    std::string text;
    Lockout::Time madeAt;
    std::map<std::string, std::set<int>> usedBy;
  };
  struct Failures {
    std::map<std::string, int> byName;
    Lockout::Time forgottenAt;
    int total() const {
      int sum = 0;
      for (const auto& [name, count] : byName) sum += count;
      return sum;
    }
  };
  struct Answer {
    int code;
    tagDIGEST_RESULT result;
  };

  void makeNonce(std::size_t slot) {
    char text[64];
    Require(login_.createNonce(text, sizeof text, 8) > 0);
    nonces_[slot] = {text, now_, {}};
    counts_[slot] = 0;
  }

  Answer send(const std::string& authorization, const char* address) {
    tagDIGEST_REQUEST request{};
    std::strncpy(request.clientIp, address, DIGEST_CLIENT_IP_MAX);
    std::strncpy(request.authorization, authorization.c_str(), DIGEST_AUTHORIZATION_MAX);
    Answer answer{};
    answer.code = login_.check(answer.result, "GET", request, DIGEST_MODE_OWN_DEVICE);
    Require((answer.code == DIGEST_OK) == (answer.result.devIndex[0] != '\0'));
    return answer;
  }

  void login(std::size_t slot, int count, uint8_t action, uint8_t argument) {
    if (nonces_[slot].text.empty()) makeNonce(slot);
    const std::string user = kUsers[argument % 3];
    const bool right = (action & 0x40) != 0 && user != "nobody";
    const std::size_t address = action / 8 % 4;
    char digits[9];
    std::snprintf(digits, sizeof digits, "%08x", unsigned(count));
    const std::string& nonce = nonces_[slot].text;
    const qn::HexDigest response =
        qn::DigestResponses(qn::DigestAlgorithm::MD5, ha1Of(user, right ? "pass" : "guess"),
                            {nonce, digits, "c"})
            .of("GET", kUri);
    const std::string sent = "Digest username=" + user + ", realm=KAVRO, nonce=" + nonce +
                             ", uri=\"" + kUri + "\", qop=auth, nc=" + digits +
                             ", cnonce=c, response=" + std::string(response.text());
    const Answer answer = send(sent, kAddresses[address]);
    if (answer.code == DIGEST_OK) accepted_ = sent;
    Failures& failures = failures_[std::min<std::size_t>(address, 2)];
    if (now_ >= failures.forgottenAt) failures.byName.clear();
    if (right) {
      expectOfRight(answer, failures, nonces_[slot], count, user);
    } else {
      expectOfWrong(answer, failures, user);
    }
  }

  void expectOfRight(const Answer& answer, Failures& failures, Nonce& nonce, int count,
                     const std::string& user) {
    if (failures.total() >= kMaxAttempts) {
      Require(answer.code == DIGEST_REFUSED && answer.result.retryLoginTime == 0);
      Require(answer.result.unlockTime > 0 && answer.result.unlockTime <= kLockTime.count());
      return;
    }
    std::set<int>& used = nonce.usedBy[user];
    const int highest = used.empty() ? 0 : *used.rbegin();
    const bool fresh = !used.contains(count) && highest - count < int(qn::CountWindow::kCounts) &&
                       now_ - nonce.madeAt <= qn::Nonces::kLife;
    Require(answer.code == (fresh ? DIGEST_OK : DIGEST_NO_CREDENTIALS));
    Require(fresh || std::strstr(answer.result.wwwAuthenticate, "stale=\"TRUE\""));
    if (!fresh) return;
    used.insert(count);
    failures.byName.erase(user);
  }

  void expectOfWrong(const Answer& answer, Failures& failures, const std::string& user) {
    if (failures.total() < kMaxAttempts) {
      ++failures.byName[user];
      failures.forgottenAt = now_ + kLockTime;
    }
    Require(answer.code == DIGEST_REFUSED && answer.result.wwwAuthenticate[0] != '\0');
    Require(answer.result.retryLoginTime == kMaxAttempts - failures.total());
  }

  Lockout::Time now_{seconds(100000)};
  qn::Login login_{[this] { return now_; }};
  std::array<Nonce, 4> nonces_;
  std::array<int, 4> counts_{};
  std::array<Failures, 3> failures_;
  std::string accepted_;  // the last credentials that logged in
};

}  // namespace

void fuzz(std::string_view input) {
  static const bool published = publish();
  Require(published);
  Conversation conversation;
  for (std::size_t i = 0; i + 1 < std::min<std::size_t>(input.size(), 4096); i += 2) {
    conversation.step(static_cast<uint8_t>(input[i]), static_cast<uint8_t>(input[i + 1]));
  }
}
