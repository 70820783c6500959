// The device-configuration bus at devices that ask for a login: which credentials they see, and how
// often.

#include <set>

#include "gateway/auth/digest.h"
#include "gateway/auth/digest_credentials.h"
#include "tests/contract/bus_fixture.h"

namespace qn::devicebus::test {
namespace {

std::string unauthorized(const std::string& challenge) {
  return "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: " + challenge +
         "\r\nContent-Type: application/json\r\nContent-Length: 2\r\n\r\n{}";
}

// What a device knows of a login, and what it has seen.
class Login {
 public:
  explicit Login(DigestAlgorithm algorithm = DigestAlgorithm::MD5, bool qop = true)
      : algorithm_(algorithm), qop_(qop) {}

  std::string answer(const DeviceRequest& request) {
    std::lock_guard lock(mutex_);
    const std::string value = request.field("Authorization");
    ++(value.empty() ? anonymous_ : tried_);
    if (value.empty()) return unauthorized(challenge(false));
    DigestCredentials seen;
    if (!parseDigestCredentials(value, seen) || !isRight(request, seen)) {
      ++wrong_;
      return unauthorized(challenge(false));
    }
    if (seen.nonce != nonce() || (qop_ && !counts_.emplace(seen.nc).second)) {
      return unauthorized(challenge(true));
    }
    return jsonReply("{\"in\":1}");
  }
  void renewNonce() {
    std::lock_guard lock(mutex_);
    ++generation_;
    counts_.clear();
  }
  void changePassword() {
    std::lock_guard lock(mutex_);
    password_ = "another";
  }
  // Every digest is on a nonce that is too old.
  void alwaysStale() { staleForever_ = true; }

  int anonymous() const { return anonymous_; }
  int tried() const { return tried_; }
  int wrong() const { return wrong_; }

 private:
  std::string nonce() const {
    return staleForever_ ? "never" : "nonce" + std::to_string(generation_);
  }
  std::string challenge(bool stale) const {
    return "Basic realm=\"weak\", Digest realm=\"device\", nonce=\"nonce" +
           std::to_string(generation_) + "\", algorithm=" + std::string(algorithmName(algorithm_)) +
           (qop_ ? ", qop=\"auth,auth-int\"" : "") + (stale ? ", stale=true" : "");
  }
  bool isRight(const DeviceRequest& request, const DigestCredentials& seen) const {
    const auto ha1 = hexDigest(algorithm_, {"user", "device", password_});
    if (seen.uri != request.target || seen.username != "user") return false;
    if (qop_) {
      return DigestResponses(algorithm_, ha1.text(), {seen.nonce, seen.nc, seen.cnonce})
                 .of(request.method, seen.uri)
                 .text() == seen.response;
    }
    const auto ha2 = hexDigest(algorithm_, {request.method, seen.uri});
    return hexDigest(algorithm_, {ha1.text(), seen.nonce, ha2.text()}).text() == seen.response;
  }

  const DigestAlgorithm algorithm_;
  const bool qop_;
  std::mutex mutex_;
  std::string password_ = "secret";
  int generation_ = 1;
  std::set<std::string, std::less<>> counts_;  // seen with the nonce
  std::atomic<bool> staleForever_{false};
  std::atomic<int> anonymous_{0};
  std::atomic<int> tried_{0};
  std::atomic<int> wrong_{0};
};

class BusLoginTest : public BusTest {
 protected:
  BusLoginTest() : BusTest(2) {}

  static ScriptedDevice::Script asking(Login& login) {
    return ScriptedDevice::answering(
        [&login](const DeviceRequest& request) { return login.answer(request); });
  }
  static void expectIn(int count) {
    for (const auto& sent : sendMany(count, "1")) EXPECT_EQ(sent->text(), "{\"in\":1}");
  }
  static void expectRefused(int count) {
    for (const auto& sent : sendMany(count, "1"))
      EXPECT_EQ(sent->error(), ERROR_DEVICE_LOGIN_REFUSED);
  }
};

TEST_F(BusLoginTest, AnswersEveryKindOfDigest) {
  for (const auto algorithm : {DigestAlgorithm::MD5, DigestAlgorithm::SHA256}) {
    for (const bool qop : {true, false}) {
      Login login(algorithm, qop);
      ScriptedDevice device(asking(login));
      configuration_.devices.clear();
      addDevice("1", device.port(), "user");
      expectIn(1);
      expectIn(1);
      EXPECT_EQ(login.anonymous(), 1) << "the challenge is remembered";
      EXPECT_EQ(login.tried(), 2);
    }
  }
}

TEST_F(BusLoginTest, ManyRequestsLogInTogetherEachWithItsNonceCountAndANewNonce) {
  Login login;
  ScriptedDevice device(asking(login));
  addDevice("1", device.port(), "user");
  expectIn(100);
  EXPECT_EQ(login.tried(), 100) << "a repeated nonce count would have been challenged";
  login.renewNonce();
  expectIn(20);
  EXPECT_EQ(login.wrong(), 0);
  const int tried = login.tried();
  login.alwaysStale();
  expectRefused(1);
  EXPECT_LE(login.tried(), tried + 3) << "every nonce is too old";
}

TEST_F(BusLoginTest, WrongPasswordIsTriedOnceHoweverManyAsk) {
  Login login;
  login.changePassword();
  ScriptedDevice device(asking(login));
  addDevice("1", device.port(), "user");
  expectRefused(50);
  expectRefused(50);
  EXPECT_EQ(login.wrong(), 1);
  const int asked = login.anonymous();
  expectRefused(10);
  EXPECT_EQ(login.anonymous(), asked) << "nothing is sent after a refusal";
  configuration_.devices[0].password = "another";
  publish();
  expectIn(10);
  EXPECT_EQ(login.wrong(), 1);
}

TEST_F(BusLoginTest, PasswordChangedAtTheDeviceIsTriedOnceMore) {
  Login login;
  ScriptedDevice device(asking(login));
  addDevice("1", device.port(), "user");
  expectIn(10);
  login.changePassword();
  expectRefused(1);
  expectRefused(50);
  EXPECT_EQ(login.wrong(), 2) << "the remembered challenge, and a fresh one";
}

TEST_F(BusLoginTest, TrialThatGetsNoAnswerLetsAnotherTry) {
  std::atomic<int> trials{0};
  Login login;
  ScriptedDevice device([&](Peer& peer) {
    while (const auto request = peer.read()) {
      const bool trial = !request->field("Authorization").empty();
      if (trial && trials++ == 0) return;
      if (!peer.write(login.answer(*request))) return;
    }
  });
  addDevice("1", device.port(), "user");
  int in = 0;
  for (const auto& sent : sendMany(10, "1")) in += sent->text() == "{\"in\":1}";
  EXPECT_GE(in, 9);
}

TEST_F(BusLoginTest, BasicIsSentWhereItIsWrittenAndWhatIsNotUnderstoodIsARefusal) {
  ScriptedDevice device(ScriptedDevice::answering([](const DeviceRequest& request) {
    const bool right = request.field("Authorization") == "Basic dXNlcjpzZWNyZXQ=";
    return right ? jsonReply("{\"in\":1}") : unauthorized("Basic realm=\"device\"");
  }));
  addDevice("1", device.port(), "user");
  expectRefused(10);
  configuration_.devices[0].auth = DeviceAuth::Basic;
  publish();
  expectIn(10);
  ScriptedDevice odd(ScriptedDevice::answering(
      [](const DeviceRequest&) { return unauthorized("Negotiate abc"); }));
  configuration_.devices[0].port = odd.port();
  publish();
  expectRefused(10);
}

}  // namespace
}  // namespace qn::devicebus::test
