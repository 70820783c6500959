// What logins promise, whether one gateway is asked or several that share a Redis server: the same
// tests on both. And what only several can suffer. On a real server.
#include "gateway/cluster/shared_logins.h"

#include <cstring>

#include "gateway/devices/device_login.h"
#include "tests/contract/engines.h"

namespace qn {
namespace {

using namespace std::chrono_literals;

constexpr char kUri[] = "/KAVRO/System/deviceInfo";
constexpr char kAddress[] = "192.0.2.1";

std::shared_ptr<const Configuration> configured() {
  const auto made = std::make_shared<Configuration>();
  made->kavro.nonceKey = "a key of all gateways";
  made->lock.maxAttempts = 3;
  made->lock.lockTime = std::chrono::seconds(600);
  for (const std::string name : {"admin", "operator"}) {
    const HexDigest ha1 = hexDigest(DigestAlgorithm::MD5, {name, made->kavro.realm, "pass"});
    made->users.push_back({name, std::string(ha1.text()), "1", {}});
  }
  made->buildIndexes();
  return made;
}

// What a client sends, with a nonce that it was given.
std::vector<std::string> sent(const std::string& nonce, int count,
                              const std::string& password = "pass") {
  ClientLogin client("admin", password);
  EXPECT_TRUE(
      client.takeChallenge("Digest qop=\"auth\", realm=\"KAVRO\", nonce=\"" + nonce + "\""));
  std::vector<std::string> values;
  for (int i = 0; i < count; ++i) values.push_back(client.authorization("GET", kUri));
  return values;
}

class TestGateway {
 public:
  std::string nonce() {
    char text[64];
    EXPECT_GT(login.createNonce(text, sizeof text, 8), 0);
    return text;
  }
  // As the HTTP service asks.
  int send(const std::string& authorization, const char* address = kAddress) {
    Events ready;
    if (login.mayAwaitNonce(authorization) &&
        login.awaitNonce("GET", authorization, [&] { ready.signal(); })) {
      EXPECT_TRUE(ready.wait());
    }
    return check(authorization, address);
  }
  int check(const std::string& authorization, const char* address = kAddress) {
    tagDIGEST_REQUEST request{};
    std::strncpy(request.clientIp, address, DIGEST_CLIENT_IP_MAX);
    std::strncpy(request.authorization, authorization.c_str(), DIGEST_AUTHORIZATION_MAX);
    return login.check(result, "GET", request, DIGEST_MODE_OWN_DEVICE);
  }
  int guess() { return send(sent(nonce(), 1, "wrong")[0]); }
  int right() { return send(sent(nonce(), 1)[0]); }
  // A login before that would come before the lock.
  bool hearsOfLock() {
    return eventually([this] { return login.locks(1).size() == 1; });
  }
  bool stale() const { return std::strstr(result.wwwAuthenticate, "stale=\"TRUE\"") != nullptr; }

  Login login{std::chrono::steady_clock::now, [] {
                static const auto configuration = configured();
                return configuration;
              }};
  tagDIGEST_RESULT result{};
};

// One that shares with others.
struct Member : TestGateway {
  explicit Member(uint16_t port, const std::string& password = {},
                  std::chrono::milliseconds fetchTime = LoginPeers::kFetchTime)
      : redis({"127.0.0.1", port, "", password, 3}, "alone"),
        shared(redis, login, "qn:3:", "name key", fetchTime) {
    redis.start();
  }
  ~Member() { redis.stop(); }
  bool isConnected() const { return redis.engine().isUp(); }

  RedisClient redis;
  SharedLogins shared;
};

class SharedLoginsTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!TestRedis::isInstalled()) GTEST_SKIP() << "redis-server is not installed";
    server_ = std::make_unique<TestRedis>();
    join(LoginPeers::kFetchTime);
  }
  void join(std::chrono::milliseconds fetchTime) {
    for (auto* member : {&one_, &two_}) {
      *member = std::make_unique<Member>(server_->port(), "", fetchTime);
    }
    connect();
  }
  void connect() {
    ASSERT_TRUE(eventually([&] { return one_->isConnected() && two_->isConnected(); }));
  }
  // What a script says of all keys.
  std::string ask(const std::string& script) {
    Events came;
    std::string text;
    EXPECT_TRUE(one_->redis.send({"EVAL", script, "0"}, [&](const RedisAnswer* answer) {
      if (answer && !answer->texts.empty()) text = answer->texts[0];
      came.signal();
    }));
    EXPECT_TRUE(came.wait());
    return text;
  }
  std::string keysWithoutExpiry() {
    return ask(
        "local n = 0 for _, key in ipairs(redis.call('KEYS', '*')) do "
        "if redis.call('PTTL', key) < 0 then n = n + 1 end end return n");
  }

  std::unique_ptr<TestRedis> server_;
  std::unique_ptr<Member> one_, two_;
};

// The contract. `one` and `two` may be the same gateway.
void expectSharedLogins(TestGateway& one, TestGateway& two) {
  const auto attemptsLeft = [](TestGateway& gateway) {
    return gateway.login.knownFailures().empty()
               ? 3
               : 3 - int(gateway.login.knownFailures()[0].failures[0].count);
  };
  one.guess();
  EXPECT_TRUE(eventually([&] { return attemptsLeft(two) == 2; }));
  two.guess();
  EXPECT_TRUE(eventually([&] { return attemptsLeft(one) == 1; }));
  EXPECT_EQ(one.right(), DIGEST_OK);
  EXPECT_TRUE(eventually([&] { return attemptsLeft(two) == 3; })) << "a login forgets, everywhere";
  // What it has been told itself comes to the first one before it is asked for a nonce. Guesses
  // that it counts before that are forgotten here until their sum comes back.
  EXPECT_EQ(two.send(sent(one.nonce(), 1)[0]), DIGEST_OK);
  for (int i = 0; i < 3; ++i) one.guess();
  EXPECT_EQ(one.right(), DIGEST_REFUSED);
  EXPECT_TRUE(two.hearsOfLock());
  EXPECT_EQ(two.right(), DIGEST_REFUSED);
  EXPECT_TRUE(two.login.unlock(kAddress));
  EXPECT_EQ(two.right(), DIGEST_OK);
  EXPECT_TRUE(eventually([&] { return one.right() == DIGEST_OK; }));

  const auto values = sent(one.nonce(), 40);
  for (std::size_t i = 0; i < values.size(); ++i) {
    TestGateway& at = i % 3 == 0 ? two : one;
    TestGateway& other = i % 3 == 0 ? one : two;
    EXPECT_EQ(at.send(values[i]), DIGEST_OK) << i << at.result.wwwAuthenticate;
    for (TestGateway* each : {&at, &other}) {
      EXPECT_EQ(each->check(values[i]), DIGEST_NO_CREDENTIALS) << i << ": a replay";
      EXPECT_TRUE(each->stale());
    }
  }
}

TEST(LoginsOfOneGateway, KeepTheContract) {
  TestGateway alone;
  expectSharedLogins(alone, alone);
}

TEST_F(SharedLoginsTest, KeepTheContract) {
  join(20s);  // whatever the machine does meanwhile
  expectSharedLogins(*one_, *two_);
  const SharedLoginCounts &first = one_->shared.counts(), &second = two_->shared.counts();
  EXPECT_EQ(first.failures.value() + second.failures.value(), 5u);
  EXPECT_FALSE(one_->login.mayAwaitNonce(sent(one_->nonce(), 1)[0])) << "the usual case";
  EXPECT_EQ(first.noncesGiven.value(), 15u);
  EXPECT_EQ(second.noncesTaken.value(), 15u);
  EXPECT_EQ(first.noncesTaken.value(), 13u);
  EXPECT_EQ(keysWithoutExpiry(), "0");
  EXPECT_NE(ask("return redis.call('DBSIZE')"), "0");
}

// Everybody sends everything everywhere, while the server goes and comes.
TEST_F(SharedLoginsTest, NoCountIsAcceptedTwice) {
  constexpr int kCounts = 150;
  Member three(server_->port());
  TestGateway* const gateways[] = {one_.get(), two_.get(), &three};
  std::vector<std::string> values;
  for (TestGateway* gateway : gateways) {
    const auto more = sent(gateway->nonce(), kCounts);
    values.insert(values.end(), more.begin(), more.end());
  }
  std::vector<std::atomic<int>> accepted(values.size());
  onThreads(4, [&](int thread) {
    if (thread == 3) {
      server_->stop();
      server_->start();
      return;
    }
    Login& login = gateways[thread]->login;
    for (std::size_t i = 0; i < values.size(); ++i) {
      const std::size_t at = (i + std::size_t(thread) * kCounts) % values.size();
      Events ready;
      if (login.mayAwaitNonce(values[at]) &&
          login.awaitNonce("GET", values[at], [&] { ready.signal(); })) {
        EXPECT_TRUE(ready.wait());
      }
      tagDIGEST_REQUEST request{};
      tagDIGEST_RESULT result{};
      values[at].copy(request.authorization, DIGEST_AUTHORIZATION_MAX);
      accepted[at] += login.check(result, "GET", request, DIGEST_MODE_OWN_DEVICE) == DIGEST_OK;
    }
  });
  int all = 0;
  for (const auto& each : accepted) {
    EXPECT_LE(each, 1);
    all += each;
  }
  EXPECT_GE(all, kCounts) << "a client's own gateway takes it whatever the server does";
}

TEST_F(SharedLoginsTest, WithoutTheServerEachGatewayDecidesByItselfAndSaysSoOnce) {
  testing::internal::CaptureStderr();
  const auto values = sent(one_->nonce(), 3);
  EXPECT_EQ(one_->send(values[0]), DIGEST_OK);
  server_->stop();
  ASSERT_TRUE(eventually([&] { return !one_->isConnected() && !two_->isConnected(); }));
  EXPECT_EQ(one_->send(values[1]), DIGEST_OK);
  EXPECT_EQ(two_->send(values[2]), DIGEST_NO_CREDENTIALS);
  EXPECT_TRUE(two_->stale()) << "nobody is asked for a password";
  one_->guess();
  one_->guess();
  server_->start();  // and it is empty
  connect();
  EXPECT_TRUE(eventually([&] { return two_->login.knownFailures().size() == 1; }));
  two_->guess();
  EXPECT_EQ(two_->right(), DIGEST_REFUSED);
  EXPECT_TRUE(one_->hearsOfLock());
  EXPECT_EQ(one_->right(), DIGEST_REFUSED);
  const char* const other = "2001:db8::7";
  for (int i = 0; i < 3; ++i) one_->send(sent(one_->nonce(), 1, "wrong")[0], other);
  EXPECT_TRUE(eventually([&] { return two_->login.locks(2).size() == 2; }));
  Member late(server_->port());
  EXPECT_TRUE(eventually([&] { return late.login.locks(2).size() == 2; })) << "it reads them";
  EXPECT_EQ(late.right(), DIGEST_REFUSED);
  EXPECT_EQ(late.send(sent(late.nonce(), 1)[0], other), DIGEST_REFUSED);
  EXPECT_EQ(keysWithoutExpiry(), "0");
  const std::string lines = testing::internal::GetCapturedStderr();
  EXPECT_EQ(one_->redis.engine().outages(), 1u) << lines;
}

TEST_F(SharedLoginsTest, CountsWhyANonceDoesNotCome) {
  auto gone = std::make_unique<Member>(server_->port());
  ASSERT_TRUE(eventually([&] { return gone->isConnected(); }));
  const std::string ofGone = gone->nonce(), lost = one_->nonce(), kept = one_->nonce();
  gone.reset();
  ask("return redis.call('SET', 'qn:3:nonce:" + lost + ":admin', '" + two_->shared.self() +
      "', 'PX', 60000)");
  const struct {
    const std::string& nonce;
    NonceLoss loss;
    std::function<void()> before;
  } rows[] = {{ofGone, NonceLoss::NoHolder, [] {}},
              {lost, NonceLoss::NotGiven, [] {}},
              {kept, NonceLoss::NoAnswer, [&] { server_->process().pause(); }},
              {kept, NonceLoss::NoEngine, [&] {
                 server_->stop();
                 ASSERT_TRUE(eventually([&] { return !two_->isConnected(); }));
               }}};
  for (const auto& [nonce, loss, before] : rows) {
    const Counter& counter = two_->shared.counts().noncesLost[std::size_t(loss)];
    before();
    EXPECT_TRUE(eventually([&] {
      EXPECT_EQ(two_->send(sent(nonce, 1)[0]), DIGEST_NO_CREDENTIALS);
      return counter.value() > 0;
    })) << kNonceLossNames[std::size_t(loss)];
  }
  EXPECT_EQ(two_->shared.counts().noncesTaken.value(), 0u);
}

// A server that is stopped answers nothing, and its connections stay.
TEST_F(SharedLoginsTest, AServerThatHangsHoldsARequestForABoundedTime) {
  const auto values = sent(one_->nonce(), 2);
  server_->process().pause();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(two_->send(values[0]), DIGEST_NO_CREDENTIALS);
  EXPECT_TRUE(two_->stale());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s) << "on a busy machine";
  EXPECT_TRUE(eventually([&] { return one_->redis.engine().trouble().has_value(); }));
  server_->process().resume();
  connect();
  EXPECT_EQ(one_->send(values[1]), DIGEST_OK) << "what was asked for in vain stays where it was";
}

TEST_F(SharedLoginsTest, AWrongPasswordIsToldAndARightOneOpens) {
  TestRedis locked("secret words");
  testing::internal::CaptureStderr();
  Member wrong(locked.port(), "guess");
  EXPECT_TRUE(eventually([&] {
    const auto trouble = wrong.redis.engine().trouble();
    return trouble && (trouble->find("WRONGPASS") != trouble->npos ||
                       trouble->find("refused") != trouble->npos);
  }));
  Member right(locked.port(), "secret words");
  EXPECT_TRUE(eventually([&] { return right.isConnected(); }));
  testing::internal::GetCapturedStderr();
}

}  // namespace
}  // namespace qn
