// TLS handshakes of the HTTP service: how many, in what order, and the port that comes and goes.
#include <boost/asio/post.hpp>

#include "gateway/http/handshakes.h"
#include "tests/contract/certificates.h"
#include "tests/contract/http_fixture.h"

namespace qn {
namespace {

using boost::asio::ip::make_address;

struct FakeConnection : OpenConnection {
  FakeConnection(Handshakes& of, const char* client) {
    turn.emplace(of, *this, make_address(client));
  }
  void close() override { turn.reset(); }
  std::optional<std::chrono::steady_clock::time_point> idleSince() const override { return {}; }
  void closeUnlessAllowed() override {}
  bool isStream() const override { return false; }
  std::optional<Handshakes::Turn> turn;
};

TEST(HandshakesOfAReactor, AreBoundedInAllAndForEachClient) {
  boost::asio::io_context reactor;
  Sharded<HttpCounts> counts;
  Handshakes handshakes(reactor, counts);
  handshakes.setMost(8);
  std::deque<FakeConnection> made;
  const auto open = [&] {
    std::string text;
    for (const FakeConnection& each : made) text += each.turn ? '+' : '-';
    return text;
  };
  const auto add = [&](int count, const char* client) {
    for (int i = 0; i < count; ++i) made.emplace_back(handshakes, client);
    return open();
  };
  EXPECT_EQ(add(3, "192.0.2.1"), "-++") << "its own longest goes";
  EXPECT_EQ(add(2, "192.0.2.2"), "-++++");
  EXPECT_EQ(add(4, "0.0.0.0"), "-++++++++") << "who may have as many as there are";
  EXPECT_EQ(add(1, "192.0.2.3"), "--++++++++") << "the longest of all goes";
  made[3].turn->succeeded(true);
  made[4].turn->succeeded(false);
  made.clear();
  EXPECT_EQ(handshakes.underWay(), 0U);
  EXPECT_EQ(counts.sum(&HttpCounts::handshakesResumed), 1U);
  EXPECT_EQ(counts.sum(&HttpCounts::handshakesFull), 1U);
  EXPECT_EQ(counts.sum(&HttpCounts::handshakesFailed), 8U);
}

TEST(HandshakesOfAReactor, OneOfThemRunsBetweenWhatElseIsReady) {
  boost::asio::io_context reactor;
  Sharded<HttpCounts> counts;
  Handshakes handshakes(reactor, counts);
  handshakes.setMost(100);
  std::deque<FakeConnection> made;
  std::string order;
  for (const char name : {'a', 'b', 'c', 'd'}) {
    made.emplace_back(handshakes, "0.0.0.0").turn->take([&order, name] { order += name; });
  }
  made[2].turn.reset();
  std::function<void()> other = [&] {
    order += '.';
    if (order.size() < 10) boost::asio::post(reactor, other);
  };
  boost::asio::post(reactor, other);
  reactor.run();
  EXPECT_EQ(order.substr(0, 6), "a.b.d.");
}

class SecurePort : public HttpFixture {
 protected:
  SecurePort() {
    const PemPair pair = authority_.issue("server", "IP:127.0.0.1");
    https_.identity = {contentOfPem(pair.certificate), contentOfPem(pair.key)};
  }
  // An empty hello is answered with an alert.
  bool speaksTls() {
    RawClient client(https_.port, std::string("\x16\x03\x01\0\4\1\0\0\0", 9));
    return client.connected() && client.read(1).starts_with("\x15");  // an alert
  }

  Authority authority_;
  HttpsOptions https_;
};

TEST_F(SecurePort, ComesAndGoesWithTheConfiguration) {
  HttpService& service = start();
  https_.port = freePort();
  EXPECT_FALSE(speaksTls());
  service.setOptions(options_, https_);
  EXPECT_TRUE(speaksTls());
  EXPECT_TRUE(service.serves(https_.port));
  // What cannot be listened on, or is refused by OpenSSL, changes nothing.
  HttpsOptions bad = https_;
  bad.address = "192.0.2.1";
  EXPECT_THROW(service.setOptions(options_, bad), SecurePortError);
  bad = https_;
  bad.identity.key = "none";
  HttpOptions off = options_;
  off.enabled = false;
  EXPECT_THROW(service.setOptions(off, bad), std::runtime_error);
  EXPECT_TRUE(speaksTls());
  EXPECT_EQ(ask(kGet).status, 200);
  service.setOptions(off, https_);
  EXPECT_FALSE(RawClient(port()).connected());
  EXPECT_TRUE(speaksTls());
  service.setOptions(options_);
  EXPECT_FALSE(speaksTls());
}

TEST_F(SecurePort, AHandshakeHasItsTime) {
  start();
  https_.port = freePort();
  https_.handshakeTime = std::chrono::seconds(1);
  service_->setOptions(options_, https_);
  RawClient slow(https_.port, "\x16");
  EXPECT_TRUE(slow.closedByServer());
  EXPECT_TRUE(eventually([&] { return service_->load().connections == 0; }));
  EXPECT_EQ(service_->counts().sum(&HttpCounts::handshakesFailed), 1U);
}

}  // namespace
}  // namespace qn
