// What platform/kavro_mgr_bus.h promises, under a clock that the test moves.
#include "gateway/login/login.h"

#include <cstring>
#include <set>

#include "gateway/auth/login_request.h"
#include "gateway/config/configuration.h"
#include "gateway/devices/device_login.h"
#include "platform/config_mgr.h"
#include "tests/contract/events.h"

namespace qn {
namespace {

using std::chrono::seconds;
using namespace std::string_literals;

constexpr const char* kAddress = "192.0.2.1";
constexpr const char* kUri = "/KAVRO/System/deviceInfo";

struct Answer {
  int code;
  tagDIGEST_RESULT result;

  std::string challenge() const { return result.wwwAuthenticate; }
  bool stale() const { return challenge().find("stale=\"TRUE\"") != std::string::npos; }
};

class LoginTest : public testing::Test {
 protected:
  LoginTest() { publish({}); }

  void publish(const KavroOptions& kavro) {
    const auto next = std::make_shared<Configuration>();
    next->kavro = kavro;
    next->lock.maxAttempts = 3;
    next->lock.lockTime = seconds(60);
    const auto user = [&](const std::string& name, std::vector<std::string> devices) {
      const HexDigest ha1 = hexDigest(kavro.algorithm, {name, kavro.realm, "pass"});
      next->users.push_back({name, std::string(ha1.text()), "1", std::move(devices)});
    };
    user("admin", {});
    user("operator", {"2"});
    user("a \"b\"\\", {});
    user("J\xC3\xA4son", {});
    next->users.push_back({"broken", "", "1", {}});
    for (const uint16_t n : {1, 2, 3}) {
      DeviceConfig device;
      device.index = std::to_string(n);
      device.httpPort = uint16_t(9000 + n);
      next->devices.push_back(device);
    }
    next->buildIndexes();
    publishConfiguration(next);
  }

  // One option, the others with their defaults.
  template <class Value>
  void publish(Value KavroOptions::*option, const std::type_identity_t<Value>& value) {
    KavroOptions kavro;
    kavro.*option = value;
    publish(kavro);
  }

  Answer send(const std::string& authorization, const std::string& address = kAddress,
              uint16_t port = 0, int mode = DIGEST_MODE_OWN_DEVICE,
              const std::string& method = "GET") {
    tagDIGEST_REQUEST request{};
    request.port = port;
    std::strncpy(request.clientIp, address.c_str(), DIGEST_CLIENT_IP_MAX);
    std::strncpy(request.authorization, authorization.c_str(), DIGEST_AUTHORIZATION_MAX);
    Answer answer{};
    answer.code = login_.check(answer.result, method, request, mode);
    return answer;
  }

  static std::string nonceOf(Login& login) {
    char nonce[64];
    EXPECT_GT(login.createNonce(nonce, sizeof nonce, 8), 0);
    return nonce;
  }
  std::string freshNonce() { return nonceOf(login_); }

  ClientLogin client(const std::string& user = "admin", const std::string& password = "pass") {
    return clientWith(freshNonce(), user, password);
  }
  ClientLogin clientWith(const std::string& nonce, const std::string& user = "admin",
                         const std::string& password = "pass") {
    const KavroOptions& kavro = configuration()->kavro;
    ClientLogin client(user, password);
    EXPECT_TRUE(client.takeChallenge(
        "Digest qop=\"auth\", realm=\"" + kavro.realm + "\", nonce=\"" + nonce +
        "\", algorithm=" + std::string(algorithmName(kavro.algorithm))));
    return client;
  }
  std::string right() { return client().authorization("GET", kUri); }
  std::string wrong() { return client("admin", "guess").authorization("GET", kUri); }
  int codeOf(const std::string& authorization, const std::string& address = kAddress) {
    return send(authorization, address).code;
  }

  std::chrono::steady_clock::time_point now_{seconds(1000000)};
  Login login_{[this] { return now_; }};
};

TEST_F(LoginTest, TheChallengeOfARefusalLogsIn) {
  const Answer refused = send(wrong());
  ASSERT_EQ(refused.code, DIGEST_REFUSED);
  ASSERT_EQ(refused.challenge().find("Digest qop=\"auth\", realm=\"KAVRO\", nonce=\""), 0U);
  EXPECT_TRUE(refused.challenge().ends_with("\", stale=\"FALSE\""));
  ClientLogin client("admin", "pass");
  ASSERT_TRUE(client.takeChallenge(refused.challenge()));
  EXPECT_EQ(codeOf(client.authorization("GET", kUri)), DIGEST_OK);
}

TEST_F(LoginTest, Sha256IsAskedForAndRequired) {
  const std::string md5 = right();
  publish(&KavroOptions::algorithm, DigestAlgorithm::SHA256);
  for (const std::string& authorization : {std::string(), md5}) {
    const Answer answer = send(authorization);
    EXPECT_EQ(answer.code, DIGEST_NO_CREDENTIALS);
    EXPECT_TRUE(answer.challenge().ends_with("stale=\"FALSE\", algorithm=SHA-256"));
  }
  EXPECT_EQ(codeOf(right()), DIGEST_OK);
  EXPECT_EQ(codeOf(wrong()), DIGEST_REFUSED);
}

TEST_F(LoginTest, TheMethodAndTheUriAreProtected) {
  EXPECT_EQ(send(right(), kAddress, 0, 1, "PUT").code, DIGEST_REFUSED);
  std::string moved = right();
  moved.replace(moved.find(kUri), 7, "/Kavro/");
  EXPECT_EQ(codeOf(moved), DIGEST_REFUSED);
}

TEST_F(LoginTest, AUserWithoutADigestNeverLogsIn) {
  const std::string nonce = freshNonce();
  const HexDigest response =
      DigestResponses(DigestAlgorithm::MD5, "", {nonce, "00000001", "c"}).of("GET", kUri);
  EXPECT_EQ(codeOf("Digest username=broken, realm=KAVRO, nonce=" + nonce + ", uri=\"" + kUri +
                   "\", qop=auth, nc=00000001, cnonce=c, response=" + std::string(response.text())),
            DIGEST_REFUSED);
}

// The named parameter of right credentials replaced by `with` (nothing: left out).
std::string changed(std::string authorization, const std::string& name, const std::string& with) {
  const std::size_t begin = authorization.find(name + "=");
  std::size_t end = authorization.find(", ", begin);
  if (end == authorization.npos) end = authorization.size();
  return authorization.replace(begin, end - begin, with);
}

TEST_F(LoginTest, WhatIsNoGuessIsNeverCounted) {
  const std::string huge(DIGEST_AUTHORIZATION_MAX, 'x');
  std::vector<std::string> values = {"", "Digest", "Basic YWRtaW46cGFzcw==", "Digest " + huge,
                                     huge};
  for (const std::string& more :
       {", uri=\"/\""s, ", Basic x"s, ", opaque=\"" + huge + "\"", ", username*=UTF-8''admin"s}) {
    values.push_back(right() + more);
  }
  for (const std::string name :
       {"username", "realm", "nonce", "uri", "response", "qop", "nc", "cnonce"}) {
    values.push_back(changed(right(), name, ""));
    values.push_back(changed(right(), name, name + "=\"open"));
    if (name != "username" && name != "realm")
      values.push_back(changed(right(), name, name + "=\"\""));
  }
  for (const std::string with :
       {"username*=\"UTF-8''%\"", "username*=\"UTF-8''%4\"", "username*=\"UTF-8''%4g\"",
        "username*=\"UTF-8'admin\"", "username*=\"latin-1''admin\"", "username*=\"\"",
        "username*=UTF-8''admin, userhash=true", "realm=other", "qop=auth-int", "algorithm=SHA-256",
        "algorithm=MD5-sess", "nc=1", "nc=0000000g", "nc=-0000001", "response=00",
        "response=gggggggggggggggggggggggggggggggg"}) {
    values.push_back(changed(right(), with.substr(0, with.find_first_of("*=")), with));
  }
  for (const std::string& value : values) {
    const Answer answer = send(value);
    EXPECT_EQ(answer.code, DIGEST_NO_CREDENTIALS) << value;
    EXPECT_EQ(answer.challenge(), "") << value;
  }
  EXPECT_EQ(send(wrong()).result.retryLoginTime, 2);
}

TEST_F(LoginTest, NamesMayBeEncodedOrHashed) {
  const auto hashed = [](const std::string& name) {
    const HexDigest hash = hexDigest(configuration()->kavro.algorithm, {name, "KAVRO"});
    return "username=\"" + std::string(hash.text()) + "\", userhash=true";
  };
  for (const DigestAlgorithm algorithm : {DigestAlgorithm::MD5, DigestAlgorithm::SHA256}) {
    publish(&KavroOptions::algorithm, algorithm);
    const std::string umlaut = "J\xC3\xA4son";
    const std::pair<std::string, std::string> right[] = {
        {"admin", "username*=UTF-8''admin"},
        {"admin", "username*=utf-8'en'%61dmin"},
        {umlaut, "username*=UTF-8''J%c3%A4son"},
        {"admin", "username=admin, userhash=false"},
        {"admin", hashed("admin")},
        {umlaut, hashed(umlaut)}};
    for (const auto& [name, with] : right) {
      EXPECT_EQ(codeOf(changed(client(name).authorization("GET", kUri), "username", with)),
                DIGEST_OK)
          << with;
    }
    for (const std::string& with : {hashed("nobody"), hashed(""), hashed("operator")}) {
      EXPECT_EQ(codeOf(changed(this->right(), "username", with), "203.0.113.7"), DIGEST_REFUSED)
          << with;
    }
    now_ += seconds(60);
  }
}

// The service's side of a login.
struct SeenByService final : LoginRequest {
  explicit SeenByService(std::string clientAddress) : address(std::move(clientAddress)) {}
  std::string_view clientAddress() const override { return address; }
  std::string user() const override { return name; }
  void onAnswer(std::function<void(int)>) override {}
  void loggedIn(LoggedIn who, const std::string& text) override {
    name = who.user;
    info = text;
  }
  std::string valueOf(const std::string& parameter) const {
    const std::size_t begin = info.find(parameter + "=\"");
    if (begin == info.npos) return {};
    const std::size_t value = begin + parameter.size() + 2;
    return info.substr(value, info.find('"', value) - value);
  }

  const std::string address;
  std::string name;
  std::string info;
};

TEST_F(LoginTest, ASuccessProvesThePasswordAndRenewsTheNonceInTime) {
  ClientLogin old = client();
  const HexDigest ha1 = hexDigest(DigestAlgorithm::MD5, {"admin", "KAVRO", "pass"});
  std::string next;
  for (const int age : {0, 239, 240}) {
    now_ += seconds(age == 240 ? 1 : age);
    SeenByService service("2001:db8:1:2:3:4:5:6");
    const LoginRequest::Scope scope(service);
    const std::string sent = old.authorization("GET", kUri);
    ASSERT_EQ(codeOf(sent), DIGEST_OK);
    DigestCredentials given;
    ASSERT_TRUE(parseDigestCredentials(sent, given));
    const HexDigest proof =
        DigestResponses(DigestAlgorithm::MD5, ha1.text(), {given.nonce, given.nc, given.cnonce})
            .of("", kUri);
    EXPECT_EQ(service.name, "admin");
    EXPECT_EQ(service.valueOf("rspauth"), proof.text());
    EXPECT_EQ(service.valueOf("cnonce"), given.cnonce);
    EXPECT_NE(service.info.find("qop=auth, nc=" + std::string(given.nc)), std::string::npos);
    next = service.valueOf("nextnonce");
    EXPECT_EQ(next.empty(), age < 240) << age;
  }
  now_ += seconds(100);
  EXPECT_EQ(codeOf(clientWith(next).authorization("GET", kUri)), DIGEST_OK);

  SeenByService service("192.0.2.1");
  const LoginRequest::Scope scope(service);
  for (const std::string& refused : {std::string(), wrong(), old.authorization("GET", kUri)}) {
    EXPECT_NE(codeOf(refused), DIGEST_OK);
    EXPECT_EQ(service.info + service.name, "");
  }
}

TEST_F(LoginTest, TheWholeAddressCountsWhereTheRecordHasOnlyItsBegin) {
  const auto codeFrom = [this](const std::string& address, const std::string& authorization) {
    SeenByService service(address);
    const LoginRequest::Scope scope(service);
    return codeOf(authorization, "2001:db8:1111:222");
  };
  for (int i = 0; i < 3; ++i) codeFrom("2001:db8:1111:2222::1", wrong());
  EXPECT_EQ(codeFrom("2001:db8:1111:2222::1", right()), DIGEST_REFUSED);
  EXPECT_EQ(codeFrom("2001:db8:1111:222::1", right()), DIGEST_OK);
}

TEST_F(LoginTest, AnOldNonceIsStaleOnlyForRightCredentials) {
  ClientLogin good = client();
  ClientLogin bad = client("admin", "guess");
  now_ += seconds(300);
  EXPECT_EQ(codeOf(good.authorization("GET", kUri)), DIGEST_OK);
  now_ += seconds(1);
  const Answer answer = send(good.authorization("GET", kUri));
  EXPECT_EQ(answer.code, DIGEST_NO_CREDENTIALS);
  EXPECT_TRUE(answer.stale());
  ASSERT_TRUE(good.takeChallenge(answer.challenge()));
  EXPECT_TRUE(good.stale());
  EXPECT_EQ(codeOf(good.authorization("GET", kUri)), DIGEST_OK);
  const Answer refused = send(bad.authorization("GET", kUri));
  EXPECT_EQ(refused.code, DIGEST_REFUSED);
  EXPECT_FALSE(refused.stale());
}

TEST_F(LoginTest, NoncesOfOthersAreStale) {
  std::string altered = freshNonce();
  altered[10] = altered[10] == '0' ? '1' : '0';
  std::string younger = freshNonce();
  now_ += seconds(200);
  younger.replace(0, 8, freshNonce().substr(0, 8));
  Login other([this] { return now_; });
  for (const std::string& nonce : {"x"s, altered, younger, nonceOf(other), freshNonce() + "0",
                                   std::string(200, '0'), "ffffffff" + freshNonce().substr(8)}) {
    const Answer answer = send(clientWith(nonce).authorization("GET", kUri));
    EXPECT_EQ(answer.code, DIGEST_NO_CREDENTIALS) << nonce;
    EXPECT_TRUE(answer.stale()) << nonce;
  }
}

// After a restart, or at another gateway with the key: a new nonce, but no prompt for the password.
TEST_F(LoginTest, WithAKeyOnlyNoncesMadeWithItAreStale) {
  const std::string invented = freshNonce();
  publish(&KavroOptions::nonceKey, "a key");
  Login other([this] { return now_; });
  EXPECT_TRUE(send(clientWith(nonceOf(other)).authorization("GET", kUri)).stale());
  const Answer answer = send(clientWith(invented).authorization("GET", kUri));
  EXPECT_EQ(answer.code, DIGEST_NO_CREDENTIALS);
  EXPECT_FALSE(answer.stale());
  EXPECT_NE(answer.challenge(), "");
  EXPECT_EQ(codeOf(right()), DIGEST_OK);
}

TEST_F(LoginTest, BothAlgorithmsAreOfferedWhereUsersDiffer) {
  const auto next = std::make_shared<Configuration>(*configuration());
  UserConfig strong = next->users[0];
  strong.name = "strong";
  strong.ha1 = hexDigest(DigestAlgorithm::SHA256, {"strong", "KAVRO", "pass"}).text();
  next->users.push_back(strong);
  next->buildIndexes();
  publishConfiguration(next);
  const Answer answer = send("");
  ASSERT_EQ(answer.code, DIGEST_NO_CREDENTIALS);
  const std::size_t second = answer.challenge().find(", Digest ");
  ASSERT_NE(second, std::string::npos) << "the gateway's own first";
  EXPECT_TRUE(answer.challenge().ends_with("algorithm=SHA-256"));
  ClientLogin client("strong", "pass");
  ASSERT_TRUE(client.takeChallenge(answer.challenge()));
  EXPECT_EQ(codeOf(client.authorization("GET", kUri)), DIGEST_OK);
  EXPECT_EQ(codeOf(right()), DIGEST_OK);
  // Neither tells whether there is such a user.
  ClientLogin weak("strong", "pass");
  ASSERT_TRUE(weak.takeChallenge(answer.challenge().substr(0, second)));
  EXPECT_EQ(send(weak.authorization("GET", kUri)).result.retryLoginTime, 2);
}

TEST_F(LoginTest, AReplayIsStaleAndNeitherCountedNorForgiving) {
  const std::string used = right();
  EXPECT_EQ(codeOf(used), DIGEST_OK);
  EXPECT_EQ(codeOf(wrong()), DIGEST_REFUSED);
  for (int i = 0; i < 10; ++i) {
    const Answer answer = send(used);
    EXPECT_EQ(answer.code, DIGEST_NO_CREDENTIALS);
    EXPECT_TRUE(answer.stale());
  }
  EXPECT_EQ(send(wrong()).result.retryLoginTime, 1);
}

TEST(CountWindow, AgreesWithRememberingEverything) {
  CountWindow window;
  std::set<uint32_t> used;
  uint32_t highest = 0;
  uint32_t random = 1;
  for (int i = 0; i < 20000; ++i) {
    random = random * 1664525U + 1013904223U;
    const uint32_t base = highest > 400 ? highest - 400 : 0;
    const uint32_t count = base + (random >> 8) % 520;
    const bool tooOld = count <= highest && highest - count >= CountWindow::kCounts;
    const bool fresh = !tooOld && !used.contains(count);
    ASSERT_EQ(window.take(count), fresh) << count << " after " << highest;
    if (fresh) used.insert(count);
    highest = std::max(highest, fresh ? count : 0);
  }
  EXPECT_TRUE(window.take(0xffffffff));
  EXPECT_FALSE(window.take(0xffffffff));
  EXPECT_TRUE(window.take(0xfffffffe));
}

TEST_F(LoginTest, TooManyFailuresLockTheAddressForAWhile) {
  for (const int left : {2, 1}) {
    const Answer answer = send(left == 2 ? client("nobody").authorization("GET", kUri) : wrong());
    EXPECT_EQ(answer.code, DIGEST_REFUSED);
    EXPECT_EQ(answer.result.retryLoginTime, left) << "unknown users count like known ones";
    EXPECT_EQ(answer.result.unlockTime, 0);
  }
  for (const std::string& authorization : {wrong(), right(), wrong()}) {
    const Answer answer = send(authorization);
    EXPECT_EQ(answer.code, DIGEST_REFUSED);
    EXPECT_EQ(answer.result.retryLoginTime, 0);
    EXPECT_EQ(answer.result.unlockTime, 60);
    EXPECT_NE(answer.challenge(), "");
    EXPECT_STREQ(answer.result.devIndex, "");
  }
  EXPECT_EQ(codeOf(""), DIGEST_NO_CREDENTIALS);
  EXPECT_EQ(codeOf(right(), "192.0.2.2"), DIGEST_OK) << "another address is not affected";

  now_ += std::chrono::milliseconds(59001);
  EXPECT_EQ(send(right()).result.unlockTime, 1);
  now_ += std::chrono::milliseconds(999);
  EXPECT_EQ(codeOf(right()), DIGEST_OK);
  EXPECT_EQ(send(wrong()).result.retryLoginTime, 2);
}

TEST_F(LoginTest, FailuresAreForgottenInTimeAndByALogin) {
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(send(wrong()).result.retryLoginTime, 2);
    EXPECT_EQ(send(wrong()).result.retryLoginTime, 1);
    EXPECT_EQ(codeOf(right()), DIGEST_OK);
  }
  send(wrong());
  now_ += seconds(59);
  EXPECT_EQ(send(wrong()).result.retryLoginTime, 1);
  now_ += seconds(60);
  EXPECT_EQ(send(wrong()).result.retryLoginTime, 2);
}

TEST_F(LoginTest, ALoginForgetsOnlyTheFailuresOfItsOwnName) {
  const std::string own = "operator";
  for (const int left : {2, 1}) {
    EXPECT_EQ(send(wrong()).result.retryLoginTime, left);
    EXPECT_EQ(codeOf(client(own).authorization("GET", kUri)), DIGEST_OK);
  }
  EXPECT_EQ(send(wrong()).result.retryLoginTime, 0) << "guesses at admin between own logins";
}

TEST_F(LoginTest, AFullTableLocksNobodyWhoHasNotFailed) {
  char address[48];
  const std::string guess = wrong();
  for (int network = 0; network < 6000; ++network) {  // of one IPv6 /48
    std::snprintf(address, sizeof address, "2001:db8:1:%x::", network);
    for (int i = 0; i < 3; ++i) codeOf(guess, address);
  }
  for (int n = 0; n < 256; ++n) {
    EXPECT_EQ(codeOf(right(), "198.51.100." + std::to_string(n)), DIGEST_OK) << n;
  }
  EXPECT_EQ(send(wrong(), "203.0.113.1").result.retryLoginTime, 2);
  EXPECT_EQ(send(wrong(), "203.0.113.1").result.retryLoginTime, 1) << "there is room to count";
}

TEST_F(LoginTest, ThePortChoosesTheDeviceInModeTwo) {
  const struct {
    int configured;
    int mode;
    const char* user;
    uint16_t port;
    const char* device;  // "": not allowed
  } cases[] = {
      {2, 1, "operator", 9002, "1"}, {2, 2, "operator", 0, "1"},    {2, 2, "operator", 8888, "1"},
      {2, 2, "operator", 9001, "1"}, {2, 2, "operator", 9002, "2"}, {2, 2, "operator", 9003, ""},
      {2, 2, "admin", 9002, ""},     {1, 2, "operator", 9003, "1"}, {1, 1, "a \"b\"\\", 0, "1"}};
  for (const auto& [configured, mode, user, port, device] : cases) {
    publish(&KavroOptions::mode, configured);
    const Answer answer = send(client(user).authorization("GET", kUri), kAddress, port, mode);
    EXPECT_EQ(answer.code, *device ? DIGEST_OK : DIGEST_NOT_ALLOWED) << user << port;
    EXPECT_STREQ(answer.result.devIndex, device) << user << port;
    EXPECT_EQ(answer.challenge(), "");
  }
}

TEST_F(LoginTest, NoncesFitTheBufferOrAreNotWritten) {
  char buffer[64];
  for (const int randomBytes : {-1, 8, 16, 1000}) {
    const int length = login_.createNonce(buffer, sizeof buffer, randomBytes);
    EXPECT_GT(length, 40);
    EXPECT_EQ(std::size_t(length), std::strlen(buffer));
    EXPECT_EQ(codeOf(clientWith(buffer).authorization("GET", kUri)), DIGEST_OK);
    EXPECT_EQ(login_.createNonce(buffer, length, randomBytes), 0);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(login_.createNonce(buffer, length + 1, randomBytes), length);
  }
  EXPECT_EQ(login_.createNonce(nullptr, 64, 8), 0);
  EXPECT_EQ(login_.createNonce(buffer, 0, 8), 0);
  EXPECT_NE(freshNonce(), freshNonce());
}

std::string ipv4(int n) {
  return "10." + std::to_string(n >> 16) + '.' + std::to_string((n >> 8) & 255) + '.' +
         std::to_string(n & 255);
}

class LockoutTest : public testing::Test {
 protected:
  bool locked(const std::string& address) {
    return lockout_.standing(ClientNetwork(address), options_, now_).locked();
  }
  Lockout::Standing fail(const std::string& address) {
    return lockout_.fail(ClientNetwork(address), "admin", options_, now_);
  }

  const LockOptions options_{1, seconds(60)};
  Lockout lockout_;
  Lockout::Time now_{seconds(1)};
};

TEST_F(LockoutTest, NoFloodPushesALockOut) {
  fail("192.0.2.1");
  constexpr int kAddresses = int(Lockout::kSets * Lockout::kSetSize) * 5 / 4;
  for (int n = 0; n < kAddresses; ++n) fail(ipv4(811 * n));
  EXPECT_TRUE(locked("192.0.2.1"));
  now_ += seconds(60);
  fail("192.0.2.9");
  EXPECT_TRUE(locked("192.0.2.9")) << "there is room again";
}

// Those who own a whole prefix fill one set, or a quarter of them; the rest is for others.
TEST_F(LockoutTest, APrefixHasABoundedShare) {
  for (const std::string prefix : {"2001:db8:1:", "2001:db8:"}) {
    const auto address = [&](int n) {
      char network[8];
      std::snprintf(network, sizeof network, "%x", n);
      return prefix + network + "::1";
    };
    int owned = 0;
    for (int n = 0; n < 6000; ++n) fail(address(n));
    for (int n = 0; n < 6000; ++n) owned += locked(address(n));
    EXPECT_GE(owned, int(Lockout::kSetSize));
    EXPECT_LE(owned, int(Lockout::kSetSize * Lockout::kSetsOfRegion));
  }
}

// Only then a login costs no look at the table. What a full set gives up is not counted any more.
TEST_F(LockoutTest, IsEmptyAgainWhenAllFailuresAreForgotten) {
  const LockOptions patient{5, seconds(60)};
  const auto network = [](int i) {
    return ClientNetwork("2001:db8:0:" + std::to_string(i) + "::1");
  };
  EXPECT_TRUE(lockout_.isEmpty(now_));
  for (const char* user : {"admin", "operator"}) lockout_.fail(network(0), user, patient, now_);
  for (int i = 0; i < 2; ++i) lockout_.forget(network(0), "admin", patient, now_);
  EXPECT_FALSE(lockout_.isEmpty(now_)) << "of the other";
  lockout_.forget(network(0), "operator", patient, now_);
  EXPECT_TRUE(lockout_.isEmpty(now_));
  for (int i = 0; i < 300; ++i) lockout_.fail(network(i), "admin", patient, now_);
  for (int i = 0; i < 300; ++i) {
    EXPECT_FALSE(lockout_.isEmpty(now_));
    lockout_.forget(network(i), "admin", patient, now_);
  }
  EXPECT_TRUE(lockout_.isEmpty(now_));
  fail("192.0.2.1");
  EXPECT_FALSE(lockout_.isEmpty(now_ + seconds(59)));
  EXPECT_TRUE(lockout_.isEmpty(now_ + seconds(60)));
}

// What comes back from the others is known already, also where a name forgotten has left its place.
TEST_F(LockoutTest, HearingOfOnesOwnFailuresAddsNone) {
  const LockOptions patient{5, seconds(60)};
  const ClientNetwork client("192.0.2.1");
  for (const char* user : {"operator", "admin"}) lockout_.fail(client, user, patient, now_);
  lockout_.forget(client, "operator", patient, now_);
  for (const int left : {3, 2, 1}) {
    EXPECT_EQ(lockout_.fail(client, "admin", patient, now_).attemptsLeft, left);
    const auto failed = static_cast<uint32_t>(5 - left);
    lockout_.learn({client, {{lockout_.hash("admin"), failed}}, now_ + seconds(60)}, patient, now_);
    EXPECT_EQ(lockout_.standing(client, patient, now_).attemptsLeft, left);
  }
}

TEST_F(LockoutTest, CountsAnIPv6NetworkAsOneClient) {
  const std::pair<const char*, const char*> same[] = {
      {"2001:db8:1:2::1", "2001:db8:1:2:ffff:ffff:ffff:ffff"},
      {"192.0.2.1", "::ffff:192.0.2.1"},
      {"2001:db8:0:0:1::", "2001:db8::"},
      {"", ""}};
  for (const auto& [one, other] : same) EXPECT_EQ(ClientNetwork(one), ClientNetwork(other)) << one;
  const char* const different[] = {
      "2001:db8:1:2::1", "2001:db8:1:3::1", "192.0.2.1", "192.0.2.2", "::1", "", "proxy"};
  for (const char* one : different) {
    for (const char* other : different) {
      EXPECT_EQ(ClientNetwork(one) == ClientNetwork(other), one == other) << one << ' ' << other;
    }
  }
}

TEST_F(LoginTest, NobodyIsRefusedForWantOfRoomAndNoReplayPasses) {
  std::string first;
  for (int i = 0; i < 40000; ++i) {
    const std::string fresh = client("operator").authorization("GET", kUri);
    if (i == 0) first = fresh;
    ASSERT_EQ(codeOf(fresh), DIGEST_OK) << i;
    if (i % 4000 == 0) now_ += seconds(1);
  }
  EXPECT_TRUE(send(first).stale()) << "replayed";
  EXPECT_EQ(codeOf(right()), DIGEST_OK);
}

TEST_F(LoginTest, ConcurrentLoginsUseEveryCountOnce) {
  constexpr int kRequests = 200;
  ClientLogin sharing = client();
  std::vector<std::string> sent;
  for (int i = 0; i < kRequests; ++i) sent.push_back(sharing.authorization("GET", kUri));
  const std::string guess = wrong();
  std::atomic<int> accepted{0};
  std::atomic<int> guesses{0};
  onThreads(5, [&](int thread) {
    for (int n = 0; thread == 0 && n < 20; ++n) publish({});
    for (const std::string& authorization : sent) {
      accepted += codeOf(authorization) == DIGEST_OK;
      guesses += send(guess, "198.51.100.1").result.retryLoginTime > 0;
    }
  });
  EXPECT_EQ(accepted, kRequests);
  EXPECT_EQ(guesses, 2);
}

TEST_F(LoginTest, TheBoundaryUsesOneLoginForTheProcess) {
  char nonce[64];
  ASSERT_GT(CreateNonce(nonce, sizeof nonce, 8, 0), 0);
  tagDIGEST_REQUEST request{};
  tagDIGEST_RESULT result{};
  EXPECT_EQ(QN_KAVROMgrBus_CheckDigest(result, nullptr, request, 1), DIGEST_NO_CREDENTIALS);
  clientWith(nonce)
      .authorization("GET", kUri)
      .copy(request.authorization, DIGEST_AUTHORIZATION_MAX);
  EXPECT_EQ(QN_KAVROMgrBus_CheckDigest(result, "GET", request, 1), DIGEST_OK);
}

}  // namespace
}  // namespace qn
