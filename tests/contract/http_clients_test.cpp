// Who may take what: places, bodies and answers of strangers, users and proxies; and the ports.
#include <system_error>

#include "gateway/http/client_address.h"
#include "tests/contract/http_fixture.h"

namespace qn {
namespace {

boost::asio::ip::address address(const char* text) { return boost::asio::ip::make_address(text); }

TEST(ClientNetwork, IsTheAddressOrTheFirst64Bits) {
  const std::pair<const char*, const char*> cases[] = {
      {"192.0.2.7", "192.0.2.7"},
      {"::ffff:192.0.2.7", "192.0.2.7"},
      {"2001:db8:1:2:3:4:5:6", "2001:db8:1:2::"},
      {"2001:db8:1:2::", "2001:db8:1:2::"},
      {"::1", "::"},
  };
  for (const auto& [text, network] : cases) {
    EXPECT_EQ(clientNetwork(plainAddress(address(text))), address(network)) << text;
  }
}

TEST(TrustedProxies, MayBeNetworks) {
  const TrustedProxies trusted(
      {"10.1.2.3/8", "192.0.2.7", "2001:db8::/33", "::ffff:172.16.0.0/108", "::1"});
  for (const char* text : {"10.255.0.1", "192.0.2.7", "2001:db8:7fff::1", "172.16.9.9", "::1"}) {
    EXPECT_TRUE(trusted.contains(address(text))) << text;
  }
  for (const char* text : {"11.0.0.1", "192.0.2.6", "2001:db8:8000::1", "172.32.0.1", "::2"}) {
    EXPECT_FALSE(trusted.contains(address(text))) << text;
  }
  EXPECT_TRUE(TrustedProxies({"0.0.0.0/0"}).contains(address("8.8.8.8")));
  EXPECT_FALSE(TrustedProxies({"0.0.0.0/0"}).contains(address("::1")));
  for (const char* text : {"10.0.0.0/33", "10.0.0.0/", "10.0.0.0/-1", "::/129", "x", ""}) {
    EXPECT_THROW(TrustedProxies({text}), std::system_error) << text;
  }
}

TEST_F(HttpFixture, AnIPv6HostIsThePortOfOurs) {
  answering([](const stHttpRes& request) { return request.exchange->getHead("hOST"); });
  start();
  const std::string ours = ":" + std::to_string(port());
  const std::pair<std::string, std::string> cases[] = {
      {"[::1]:30345", ours},       {"[::1]", ours},
      {"[1:30345::2]:8080", ours}, {"h:30345", "h:30345"},
      {"127.0.0.1", "127.0.0.1"},
  };
  for (const auto& [host, seen] : cases) {
    EXPECT_EQ(ask("GET / HTTP/1.1\r\nHost: " + host + "\r\n\r\n").body, seen) << host;
  }
}

// A client that has asked and idles since.
std::unique_ptr<RawClient> idleClient(uint16_t port) {
  auto client = std::make_unique<RawClient>(port);
  EXPECT_EQ(client->ask(kGet).status, 200);
  return client;
}

TEST_F(HttpFixture, TheLongestIdleMakeRoomWhenAllPlacesAreTaken) {
  leaving("/wait");
  options_.connections = 4;
  bounds_.takenBack = 0ms;
  start();
  RawClient busy(port(), get("/wait"));
  const int handle = waitForHandle();
  RawClient half(port(), "GET / HTTP/1.1\r\nHo");
  const auto first = idleClient(port());
  const auto second = idleClient(port());
  const auto third = idleClient(port());  // takes the place of the first, or of both
  EXPECT_TRUE(first->closedByServer());
  EXPECT_EQ(third->ask(kGet).status, 200);
  answer(handle, "x");
  EXPECT_EQ(busy.answer().status, 200);
  EXPECT_EQ(half.ask("st: h\r\n\r\n").status, 200);
}

TEST_F(HttpFixture, WithoutIdleOnesNewConnectionsAreToldToComeBack) {
  leaving("/wait");
  options_.connections = 1;
  bounds_.takenBack = 0ms;
  start();
  RawClient busy(port(), get("/wait"));
  const int handle = waitForHandle();
  EXPECT_EQ(ask(kGet).status, 503);
  answer(handle, "x");
  EXPECT_EQ(busy.answer().status, 200);
  EXPECT_TRUE(eventually([&] { return ask(kGet).status == 200; })) << "busy is idle now";
}

TEST_F(HttpFixture, LimitsMayChangeUnderOpenConnections) {
  options_.connections = 3;
  start();
  options_.port = port();
  const auto first = idleClient(port());
  const auto change = [&](std::size_t connections, std::size_t headBytes) {
    options_.connections = connections;
    options_.headBytes = headBytes;
    service_->setOptions(options_);
  };
  change(1, 16384);
  EXPECT_EQ(ask(kGet).status, 503);
  EXPECT_EQ(first->ask(kGet).status, 200);
  change(2, 1024);
  EXPECT_EQ(ask(kGet).status, 200);
  EXPECT_EQ(first->ask(kGet).status, 200) << "with the limits that its next request will have";
  EXPECT_EQ(first->ask(get("/" + std::string(2000, 'x'))).status, 431);
}

TEST_F(HttpFixture, ListenersMoveAndConnectionsStay) {
  reactors_.start();
  const uint16_t old = freePort();
  options_.port = old;
  listen();
  const uint16_t extra = freePort();
  const uint16_t next = freePort();
  service_->setExtraPorts({{extra, Access::OwnResources}});
  const auto client = idleClient(old);
  const auto reaches = [](uint16_t to) { return RawClient(to).ask(kGet).status; };
  struct Case {
    std::string address;
    uint16_t port;
    bool moves;
  };
  const Case cases[] = {{"127.0.0.1", next, true},  {"0.0.0.0", next, true},
                        {"192.0.2.1", old, false},  {"192.0.2.1", next, false},
                        {"127.0.0.1", extra, true},  // its own further port
                        {"127.0.0.1", old, true}};
  for (const Case& c : cases) {
    const uint16_t before = port();
    options_.address = c.address;
    options_.port = c.port;
    if (c.moves) {
      service_->setOptions(options_);
    } else {
      EXPECT_THROW(service_->setOptions(options_), std::system_error);
    }
    EXPECT_EQ(port(), c.moves ? c.port : before) << c.address;
    EXPECT_EQ(reaches(port()), 200) << c.address;
    EXPECT_EQ(RawClient(before).connected(), port() == before) << c.address;
    EXPECT_EQ(client->ask(kGet).status, 200) << c.address;
    service_->setExtraPorts({{port() == extra ? next : extra, Access::OwnResources}});
    EXPECT_TRUE(service_->serves(extra));
  }
}

TEST_F(HttpFixture, TrustedProxiesMayHaveManyConnections) {
  options_.connectionsPerAddress = 1;
  options_.trustedProxies = {"127.0.0.0/8"};
  start();
  const auto first = idleClient(port());
  const auto second = idleClient(port());
  EXPECT_EQ(first->ask(kGet).status, 200);
}

std::string credentials(const std::string& user) {
  return "Authorization: Digest uri=\"/b\", username=\"" + user + "\"\r\n";
}

bool recogniseRight(std::string_view method, std::string_view authorization) {
  return method == "PUT" && authorization.find("right") != authorization.npos;
}

class StrangersTest : public HttpFixture {
 protected:
  StrangersTest() { entry_ = {runScript, recogniseRight}; }

  static std::string put(std::size_t length, const std::string& lines = {}) {
    return "PUT /b HTTP/1.1\r\nHost: h\r\n" + lines + "Content-Length: " + std::to_string(length) +
           "\r\n\r\n";
  }
  // A body of which one byte is missing.
  std::unique_ptr<RawClient> unfinished(const std::string& lines = {}) {
    auto client =
        std::make_unique<RawClient>(port(), put(kBody, lines) + std::string(kBody - 1, 'x'));
    ::usleep(50'000);
    return client;
  }

  static constexpr std::size_t kBody = 200'000;
};

TEST_F(StrangersTest, UnfinishedBodiesTakeNothingFromUsers) {
  options_.bodyBytes = kBody;
  options_.trustedProxies = {"127.0.0.1"};
  bounds_.bodyMemory = 2 * kBody;
  bounds_.strangersBodies = 2;
  start();
  const auto from = [](const char* client) {
    return std::string("X-Forwarded-For: ") + client + "\r\n";
  };
  const auto first = unfinished(from("2001:db8::1"));
  const std::string wrong = credentials("wrong");
  EXPECT_EQ(unfinished(from("2001:db8::2") + wrong)->answer().status, 503)
      << "one for each network";
  const auto second = unfinished(from("192.0.2.1"));
  EXPECT_EQ(unfinished(from("192.0.2.2") + wrong)->answer().status, 503) << "and so many in all";
  const auto asking = unfinished(from("192.0.2.2"));
  EXPECT_EQ(asking->ask("x").body, "/b|") << "for the challenge no body is needed";
  EXPECT_EQ(asking
                ->ask("PUT /b HTTP/1.1\r\nHost: h\r\n" + credentials("right") +
                      "Content-Length: 3\r\n\r\nabc")
                .body,
            "/b|abc");
  const auto user = unfinished(credentials("right"));
  const auto other = unfinished(from("2001:db8::1") + credentials("right"));
  for (const auto* client : {&user, &other, &first, &second}) {
    EXPECT_EQ((*client)->ask("x").status, 200);
  }
  EXPECT_EQ(unfinished(from("192.0.2.2"))->ask("x").status, 200) << "given back";
}

TEST_F(StrangersTest, UnfinishedBodiesOfOneUserLeaveRoomForOthersAndAllAreBounded) {
  bounds_.bodyMemory = 2 * kBody;
  bounds_.bodyMemoryOfOne = kBody;
  start();
  const auto first = unfinished(credentials("right"));
  EXPECT_EQ(unfinished(credentials("right"))->answer().status, 503) << "of one user";
  const auto second = unfinished(credentials("right too"));
  EXPECT_EQ(unfinished(credentials("right, third"))->answer().status, 503) << "of all";
  EXPECT_EQ(first->ask("x").status, 200);
  EXPECT_EQ(second->ask("x").status, 200);
  EXPECT_EQ(unfinished(credentials("right, third"))->ask("x").status, 200) << "given back";
}

TEST_F(HttpFixture, UnreadAnswersOfOneCutNobodyElsesAndAllAreBounded) {
  constexpr std::size_t kLong = 16'000'000;  // more than twice what the kernel takes
  bounds_.answerMemory = 2 * kLong;
  bounds_.answerMemoryOfOne = kLong;
  answering([](const stHttpRes&) { return std::string(kLong, 'x'); });
  start();
  const auto asking = [&](const std::string& user) {
    return std::make_unique<RawClient>(
        port(), "GET /b HTTP/1.1\r\nHost: h\r\n" + credentials(user) + "\r\n", 4096);
  };
  auto stalled = asking("one");
  ASSERT_FALSE(stalled->read(1).empty());
  EXPECT_TRUE(asking("one")->closedByServer()) << "of one user";
  const auto other = asking("other");
  ASSERT_FALSE(other->read(1).empty());
  const auto third = asking("third");
  EXPECT_TRUE(third->closedByServer()) << "of all";
  EXPECT_LT(third->read(kLong).size(), kLong);
  stalled.reset();
  EXPECT_TRUE(eventually([&] { return asking("third")->answer().body.size() == kLong; }));
}

// The slow client takes something every 10 ms, so that it never stalls, and would have all in 5 s.
TEST_F(HttpFixture, AnswersAreTakenAtALeastRate) {
  bounds_.stalled = 1s;
  bounds_.slowestRate = 100'000'000;
  options_.connectionsPerAddress = 1;
  answering([](const stHttpRes& request) {
    return std::string(request.exchange->getUrl() == "/long" ? 32'000'000 : 1, 'x');
  });
  start();
  RawClient slow(port(), get("/long"));
  std::size_t taken = 0;
  while (const std::size_t count = slow.read(1).size()) {
    taken += count;
    ::usleep(10'000);
  }
  EXPECT_LT(taken, 32'000'000u);
  EXPECT_TRUE(eventually([&] { return ask(kGet).status == 200; })) << "its place is free";
}

TEST_F(HttpFixture, PortsComeAndGoAndOneThatWasTakenIsOpenedWhenItIsFree) {
  bounds_.reopen = 50ms;
  HttpService& service = start();
  auto other = std::make_unique<HttpService>(reactors_, workers_, options_, runScript);
  other->listen();
  const uint16_t wanted = other->port(), dropped = freePort();
  EXPECT_THROW(service.listenOn(wanted, Access::Everything), std::system_error);
  service.setExtraPorts({{wanted, Access::Everything},
                         {dropped, Access::Everything},
                         {port(), Access::Everything},
                         {0, Access::Everything}});
  EXPECT_FALSE(service.serves(wanted));
  EXPECT_TRUE(service.serves(port()) && service.serves(dropped));
  const auto staying = idleClient(dropped);
  ::usleep(200'000);
  EXPECT_FALSE(service.serves(wanted));
  other.reset();
  EXPECT_TRUE(eventually([&] { return service.serves(wanted); }));
  EXPECT_EQ(RawClient(wanted).ask(kGet).status, 200);
  service.setExtraPorts({{wanted, Access::Everything}});
  EXPECT_FALSE(service.serves(dropped) || RawClient(dropped).connected());
  EXPECT_EQ(staying->ask(kGet).status, 200);
  EXPECT_EQ(RawClient(wanted).ask(kGet).status, 200);
  EXPECT_EQ(ask(kGet).status, 200);
}

}  // namespace
}  // namespace qn
