// Answered exactly once, whoever answers and whenever; stopping.
#include <future>
#include <regex>
#include <set>

#include "gateway/log/request_id.h"
#include "gateway/net/asker.h"
#include "tests/contract/http_fixture.h"

namespace qn {
namespace {

class HttpAnswerTest : public HttpFixture {
 protected:
  HttpAnswerTest() { leaving(); }
};

// The module may answer and go on with the request, even with its body.
TEST_F(HttpAnswerTest, RequestOutlivesAnAnswerGivenInside) {
  std::string seen;
  script([&](int&, std::string& body, int&, const stHttpRes& request) {
    request.exchange->response("first", 5);
    seen.assign(request.body, std::size_t(request.bodyLength));
    body = "second";
    return 200;
  });
  start();
  RawClient client(port());
  const std::string content(5000, 'x');
  const std::string chunked = "PUT / HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n";
  EXPECT_EQ(client.ask(chunked + "1388\r\n" + content + "\r\n0\r\n\r\n").body, "first");
  stop();
  EXPECT_EQ(seen, content);
}

// The id goes into the answer and stands on lines about the request meanwhile.
TEST_F(HttpAnswerTest, EachHasTheClientsIdOrOneOfOurOwn) {
  std::string current;
  script([&](int&, std::string&, int&, const stHttpRes&) {
    current = RequestIdScope::current();
    return 200;
  });
  start();
  RawClient client(port());
  std::set<std::string> own;
  const auto idOf = [&](const std::string& line) {
    const HttpAnswer got = client.ask("GET / HTTP/1.1\r\nHost: h\r\n" + line + "\r\n\r\n");
    EXPECT_TRUE(got.has("x-request-id: " + current + "\r\n")) << got.head;
    return current;
  };
  const std::string trace = "0123456789abcdef0123456789abcdef";
  const std::string parent = "-0123456789abcdef-01";
  EXPECT_EQ(idOf("X-Request-Id: a-b_c.1"), "a-b_c.1");
  EXPECT_EQ(idOf("X-Request-Id: " + std::string(64, 'a')), std::string(64, 'a'));
  EXPECT_EQ(idOf("traceparent: 00-" + trace + parent), trace);
  EXPECT_EQ(idOf("x-request-id: a\r\ntraceparent: 00-" + trace + parent), "a");
  const std::vector<std::string> useless = {"A: b",
                                            "X-Request-Id:",
                                            "X-Request-Id: a b",
                                            "X-Request-Id: \"a\"",
                                            "X-Request-Id: " + std::string(65, 'a'),
                                            "traceparent: ff-" + trace + parent,
                                            "traceparent: 00-" + std::string(32, '0') + parent,
                                            "traceparent: 00-" + trace,
                                            "traceparent: 00-" + trace + "x0123456789abcdef-01"};
  for (const std::string& line : useless) {
    const std::string id = idOf(line);
    EXPECT_TRUE(std::regex_match(id, std::regex("[0-9a-f]{14}"))) << line << ": " << id;
    EXPECT_TRUE(own.insert(id).second);
  }
}

TEST_F(HttpAnswerTest, AnswersItselfWhenNobodyDoes) {
  bounds_.answer = 100ms;
  start();
  RawClient client(port());
  const HttpAnswer got = client.ask(kGet);
  EXPECT_EQ(got.status, 504);
  EXPECT_NE(got.body.find("\"statusString\""), std::string::npos);
  EXPECT_EQ(answer(waitForHandle(), "late"), HTTP_LINK_BROKEN);
  EXPECT_TRUE(eventually([&] {
    client.send(kGet);
    answer(waitForHandle(), "ok");
    return client.answer().body == "ok";
  }));
}

// However the client goes: no answer is taken, and those who work for it see it.
TEST_F(HttpAnswerTest, ClientGoneBreaksTheLinkAndShows) {
  std::promise<std::weak_ptr<const Asker>> askers[2];
  script([&, next = 0](int&, std::string&, int& asyncReply, const stHttpRes& request) mutable {
    asyncReply = 1;
    handle_ = request.exchange->getHttpHandle();
    askers[next++].set_value(AskerScope::current().value());
    return 200;
  });
  start();
  for (const bool abort : {false, true}) {
    RawClient client(port(), kGet);
    const auto asker = askers[abort ? 1 : 0].get_future().get();
    CHttpExchange holder(waitForHandle());
    const auto isGone = [&] {
      const auto somebody = asker.lock();
      return !somebody || somebody->isGone();
    };
    EXPECT_FALSE(isGone());
    client.reset(abort);
    EXPECT_TRUE(eventually(isGone)) << abort;
    if (!abort) continue;  // it may still read
    EXPECT_TRUE(eventually([&] { return CHttpExchange(holder.getHttpHandle()).getUrl().empty(); }));
    EXPECT_EQ(holder.response("x", 1), HTTP_LINK_BROKEN);
    EXPECT_EQ(holder.getUrl(), "/a?b=1");
  }
}

// Several threads, the time-out and the client's next request race for every exchange.
TEST_F(HttpAnswerTest, ManyAnswerersAndTheTimeoutGiveOneAnswer) {
  bounds_.answer = 2ms;
  std::atomic<bool> done{false};
  std::atomic<int> accepted{0};
  start();
  std::vector<std::thread> answerers;
  for (int i = 0; i < 3; ++i) {
    answerers.emplace_back([&] {
      while (!done) {
        CHttpExchange exchange(handle_);
        exchange.setHead("X-A", "b");
        if (exchange.response("ok", 2) == 2) ++accepted;
        std::this_thread::yield();
      }
    });
  }
  int ok = 0;
  RawClient client(port());
  for (int i = 0; i < 500; ++i) {
    const HttpAnswer got = client.ask(kGet);
    ASSERT_TRUE(got.status == 504 || (got.status == 200 && got.body == "ok")) << got.status;
    ok += got.status == 200;
  }
  done = true;
  for (auto& thread : answerers) thread.join();
  EXPECT_EQ(accepted, ok);
}

TEST_F(HttpAnswerTest, StoppingLetsRequestsFinishAndRefusesNewClients) {
  HttpService& service = start();
  RawClient client(port(), kGet);
  const int handle = waitForHandle();
  const uint16_t closedPort = port();
  service.stopAccepting();
  EXPECT_FALSE(RawClient(closedPort).connected());
  EXPECT_FALSE(service.drain(std::chrono::steady_clock::now() + 20ms));
  std::thread late([&] { answer(handle, "done"); });
  EXPECT_TRUE(service.drain(std::chrono::steady_clock::now() + 10s));
  late.join();
  const HttpAnswer got = client.answer();
  EXPECT_EQ(got.body, "done");
  EXPECT_TRUE(got.has("connection: close\r\n"));
}

TEST_F(HttpAnswerTest, CloseUnderLoadBreaksEveryLinkAndReturns) {
  std::atomic<bool> done{false};
  HttpService& service = start();
  std::vector<std::thread> clients;
  for (int i = 0; i < 4; ++i) {
    clients.emplace_back([&, target = port()] {
      while (!done) {
        RawClient(target, kGet).read(1);
      }
    });
  }
  std::thread answerer([&] {
    while (!done) answer(handle_.exchange(0), "x");
  });
  const int handle = waitForHandle();
  CHttpExchange holder(handle);
  ::usleep(50'000);
  service.close();
  EXPECT_EQ(holder.response("x", 1), HTTP_LINK_BROKEN);
  done = true;
  for (auto& client : clients) client.join();
  answerer.join();
}

}  // namespace
}  // namespace qn
