// Streams: fast, stalled, silent and vanished clients.

#include "gateway/http/exchange.h"
#include "tests/contract/http_fixture.h"

namespace qn {
namespace {

class HttpStreamTest : public HttpFixture {
 protected:
  HttpStreamTest() {
    script([this](int&, std::string&, int& asyncReply, const stHttpRes& request) {
      asyncReply = 1;
      CHttpExchange& exchange = *request.exchange;
      exchange.setMIME();
      exchange.setStatus(200);
      EXPECT_EQ(exchange.response(nullptr, 0), 0);
      handle_ = exchange.getHttpHandle();
      return 200;
    });
  }
  // Opens a stream and reads its head.
  std::unique_ptr<RawClient> open(int receiveBuffer = 0) {
    auto client = std::make_unique<RawClient>(port(), kGet, receiveBuffer);
    const HttpAnswer head = client->answer();
    EXPECT_EQ(head.status, 200);
    EXPECT_TRUE(head.has("content-type: multipart/mixed; boundary=boundary\r\n")) << head.head;
    EXPECT_TRUE(head.has("connection: close\r\n"));
    EXPECT_FALSE(head.has("content-length") || head.has("chunked"));
    EXPECT_TRUE(eventually([&] { return handle_ != 0; }));
    return client;
  }
  int push(std::string_view part) const { return answer(handle_, part); }
};

TEST_F(HttpStreamTest, PartsOfManyThreadsArriveWhole) {
  start();
  const auto client = open();
  constexpr int kThreads = 4;
  constexpr int kParts = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const std::string part(100, static_cast<char>('a' + t));
      for (int i = 0; i < kParts; ++i) {
        while (push(part + "\n") == 0) std::this_thread::yield();
      }
    });
  }
  const std::string all = client->read(kThreads * kParts * 101);
  for (auto& thread : threads) thread.join();
  ASSERT_EQ(all.size(), std::size_t{kThreads * kParts * 101});
  for (std::size_t at = 0; at < all.size(); at += 101) {
    const std::string part = all.substr(at, 101);
    ASSERT_EQ(part, std::string(100, part[0]) + "\n");
  }
}

TEST_F(HttpStreamTest, StalledClientIsCut) {
  bounds_.stalled = 500ms;
  start();
  const auto client = open(4096);
  const std::string part(10'000, 'x');
  EXPECT_TRUE(eventually([&] {
    int result;
    while ((result = push(part)) > 0) {
    }
    return result == HTTP_LINK_BROKEN;
  }));
}

TEST_F(HttpStreamTest, QueueIsBoundedAndTakesPartsAgainWhenItEmptiesButNoneLargerThanItself) {
  start();
  const auto client = open(4096);
  EXPECT_EQ(push(std::string(QNHttpService::ExchangeState::kStreamQueue + 1, 'x')), 0);
  const std::string part(10'000, 'x');
  std::size_t accepted = 0;
  int result;
  while ((result = push(part)) > 0) accepted += part.size();
  EXPECT_EQ(result, 0);
  EXPECT_LT(accepted, 3u * 1024 * 1024);
  EXPECT_EQ(client->read(accepted).size(), accepted);
  EXPECT_TRUE(eventually([&] { return push("more") == 4; }));
  EXPECT_EQ(client->read(4), "more");
}

TEST_F(HttpStreamTest, SilentStreamEndsAndOneThatIsWrittenToDoesNot) {
  bounds_.silent = 2s;
  start();
  const auto client = open();
  auto last = std::chrono::steady_clock::now();
  for (const auto end = last + 3s; last < end;) {
    ::usleep(100'000);
    last = std::chrono::steady_clock::now();
    ASSERT_EQ(push("x"), 1);
  }
  EXPECT_TRUE(client->closedByServer());
  EXPECT_GE(std::chrono::steady_clock::now() - last, 1s);
}

TEST_F(HttpStreamTest, StreamsAreNotWaitedForAndCloseWithTheService) {
  HttpService& service = start();
  const auto client = open();
  EXPECT_EQ(push("x"), 1);
  EXPECT_TRUE(service.drain(std::chrono::steady_clock::now()));
  service.close();
  EXPECT_TRUE(client->closedByServer());
  EXPECT_EQ(push("x"), HTTP_LINK_BROKEN);
}

// Counts what an exchange asks of its connection.
struct CountingLink final : AnswerLink {
  void deliver(const ExchangePtr&, std::string_view) override {}
  void openStream(const ExchangePtr&) override { ++opened; }
  void wakeStream() override { ++woken; }
  bool sendParts(Sending) override { return true; }
  void partDropped() override { ++dropped; }
  int opened = 0;
  int dropped = 0;
  int woken = 0;
};

TEST(StreamQueue, WakesTheConnectionOnceForAllPartsThatWait) {
  const auto link = std::make_shared<CountingLink>();
  const auto exchange = QNHttpService::ExchangeState::create({}, {"", 80, link});
  exchange->markStream();
  for (const int woken : {1, 2}) {
    for (int i = 0; i < 3; ++i) EXPECT_EQ(exchange->respond("part", 4), 4);
    EXPECT_EQ(link->woken, woken);
    std::string parts;
    EXPECT_TRUE(exchange->takeParts(parts));
    EXPECT_EQ(parts, "partpartpart");
    EXPECT_FALSE(exchange->takeParts(parts));
    EXPECT_EQ(exchange->partsSent(), 3u);
  }
  EXPECT_EQ(link->opened, 1);
  const std::string large(QNHttpService::ExchangeState::kStreamQueue, 'x');
  EXPECT_EQ(exchange->respond(large.data(), int(large.size())), int(large.size()));
  EXPECT_EQ(link->dropped, 0);
  EXPECT_EQ(exchange->respond("part", 4), 0);
  EXPECT_EQ(link->dropped, 1);
  EXPECT_EQ(exchange->detach(), 1u) << "waited, and will not go out";
  EXPECT_EQ(exchange->respond("part", 4), QNHttpService::HTTP_LINK_BROKEN);
}

}  // namespace
}  // namespace qn
