// The HTTP service: what a client sends and what it gets, on real connections.
#include <future>
#include <set>

#include "tests/contract/http_fixture.h"

namespace qn {
namespace {

TEST_F(HttpFixture, AnswersOnOneConnectionAndDoesNotNameItself) {
  start();
  RawClient client(port());
  for (int i = 0; i < 3; ++i) {
    const HttpAnswer answer = client.ask(kGet);
    EXPECT_TRUE(answer.status == 200 && answer.body == "/a?b=1|");
    EXPECT_TRUE(answer.has("content-type: application/xml\r\n") && answer.has("\ndate: "));
    EXPECT_FALSE(answer.has("server:") || answer.has("connection:")) << answer.head;
  }
}

TEST_F(HttpFixture, RequestsThatAreServed) {
  // The request, the body of its answer, and whether the connection stays.
  const std::tuple<std::string, const char*, bool> cases[] = {
      {"\r\n\r\nGET / HTTP/1.1\r\nhOsT: h\r\n\r\n", "/|", true},
      {"GET http://h:80/x/y?z HTTP/1.1\r\nHost: h\r\n\r\n", "/x/y?z|", true},
      {"GET HTTP://h HTTP/1.1\r\nHost: h\r\n\r\n", "/|", true},
      {"GET / HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n", "/|", false},
      {"GET / HTTP/1.0\r\n\r\n", "/|", false},
      {"GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n", "/|", true},
      {"OPTIONS * HTTP/1.1\r\nHost: h\r\n\r\n", "*|", true},
      {"PUT /p HTTP/1.1\r\nHost: h\r\nContent-Length: 3\r\n\r\nabc", "/p|abc", true},
      {"PUT /p HTTP/1.1\r\nHost: h\r\nContent-Length: 33\r\n\r\nGET /hidden HTTP/1.1\r\nHost: "
       "h\r\n\r\n",
       "/p|GET /hidden HTTP/1.1\r\nHost: h\r\n\r\n", true},
      {"PUT /p HTTP/1.1\r\nHost: h\r\nContent-Length: 0\r\n\r\n", "/p|", true},
      {"POST /p HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n"
       "3;x=y\r\nabc\r\n2\r\nde\r\n0\r\nTrailer: t\r\n\r\n",
       "/p|abcde", true},
  };
  start();
  for (const auto& [request, body, stays] : cases) {
    SCOPED_TRACE(request);
    RawClient whole(port());
    const HttpAnswer answer = whole.ask(request);
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, body);
    if (stays) {
      EXPECT_EQ(whole.ask(kGet).body, "/a?b=1|");
    } else {
      EXPECT_TRUE(answer.has("connection: close\r\n"));
      EXPECT_TRUE(whole.closedByServer());
    }
    RawClient slow(port());
    for (const char& byte : request) slow.send({&byte, 1});
    EXPECT_EQ(slow.answer().body, body);
  }
}

TEST_F(HttpFixture, RequestsThatAreRefused) {
  const std::string get = "GET / HTTP/1.1\r\nHost: h\r\n";
  const std::string put = "PUT / HTTP/1.1\r\nHost: h\r\n";
  const std::string chunks = put + "Transfer-Encoding: chunked\r\n\r\n";
  const std::string length = put + "Content-Length: ";
  const std::string many(9000, 'x');
  const std::pair<int, std::vector<std::string>> cases[] = {
      {400,
       {"\x16\x03\x01\x02", "GET\r\n\r\n", "GET /\r\n\r\n",
        "GET : h\r\n\r\n" /* asks for more of the version */, "GET / HTTP/1.1\r\n\r\n",
        "GET / HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n", "GET / HTTP/1.1\nHost: h\n\n",
        "GET / HTTP/2.0\r\nHost: h\r\n\r\n", "GET x HTTP/1.1\r\nHost: h\r\n\r\n",
        "GET /a b HTTP/1.1\r\nHost: h\r\n\r\n", "GET ftp://h/x HTTP/1.1\r\nHost: h\r\n\r\n",
        "GET * HTTP/1.1\r\nHost: h\r\n\r\n", "G\x80T / HTTP/1.1\r\nHost: h\r\n\r\n"}},
      {400,
       {get + "A: b\r\n c\r\n\r\n", get + "A:\r\n c\r\n\r\n", get + "A : b\r\n\r\n",
        get + ": b\r\n\r\n", get + "No colon\r\n\r\n", get + "A: b\rc\r\n\r\n",
        get + std::string("A: b\0c\r\n\r\n", 11)}},
      {400,
       {length + "1\r\nContent-Length: 2\r\n\r\na", length + "1, 2\r\n\r\na",
        length + "+1\r\n\r\na", length + "-1\r\n\r\n", length + "x\r\n\r\n",
        length + "99999999999999999999999\r\n\r\n",
        length + "1\r\nTransfer-Encoding: chunked\r\n\r\n",
        put + "Transfer-Encoding: chunked\r\nContent-Length: 1\r\n\r\n",
        put + "Transfer-Encoding: chunked, gzip\r\n\r\n",
        put + "Transfer-Encoding: xchunked\r\n\r\n",
        "PUT / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"}},
      {400,
       {chunks + "xyz\r\n", chunks + "1\r\nabc\r\n", chunks + "fffffffffffffffff\r\n",
        chunks + "1;" + many}},
      {413,
       {length + "1001\r\n\r\n", length + "99999999999999999\r\n\r\n",
        put + "Expect: 100-continue\r\nContent-Length: 1001\r\n\r\n", chunks + "3e9\r\n",
        chunks + "1\r\na\r\n3e8\r\n", length + "1000000\r\n\r\n" + std::string(1'000'000, 'x')}},
      {431, {get + "A: " + many, get + "A: " + many + "\r\n\r\n", "GET /" + many}},
      {501, {"BREW / HTTP/1.1\r\nHost: h\r\n\r\n", "CONNECT h:1 HTTP/1.1\r\nHost: h\r\n\r\n"}},
  };
  options_.headBytes = 8192;
  options_.bodyBytes = 1000;
  start();
  for (const auto& [status, requests] : cases) {
    for (const std::string& request : requests) {
      SCOPED_TRACE(request.substr(0, 120));
      RawClient client(port());
      const HttpAnswer answer = client.ask(request);
      EXPECT_EQ(answer.status, status);
      EXPECT_TRUE(answer.has("connection: close\r\n"));
      EXPECT_TRUE(answer.has("content-type: application/json\r\n"));
      EXPECT_NE(answer.body.find("\"statusString\""), std::string::npos) << answer.body;
      client.endSending();
      EXPECT_TRUE(client.closedByServer());
    }
  }
  EXPECT_EQ(ask(kGet).status, 200);
}

TEST_F(HttpFixture, LargestHeadAndBodyPass) {
  options_.headBytes = 8192;
  options_.bodyBytes = 200'000;
  start();
  RawClient client(port());
  std::string head = "PUT / HTTP/1.1\r\nHost: h\r\nContent-Length: 200000\r\nA: ";
  head.append(8192 - head.size() - 4, 'x').append("\r\n\r\n");
  const std::string body(200'000, 'b');
  EXPECT_EQ(client.ask(head + body).body, "/|" + body);
  EXPECT_EQ(client.ask(kGet).status, 200);
}

// The time for a head is a total: a byte now and then does not extend it.
TEST_F(HttpFixture, SlowClientsAreToldAndIdleOnesClosed) {
  const std::pair<const char*, int> cases[] = {
      {"GET / HTTP/1.1\r\nHo", 408},
      {"PUT / HTTP/1.1\r\nHost: h\r\nContent-Length: 5\r\n\r\nab", 408},
      {"", 0},
  };
  options_.headTime = options_.bodyTime = options_.idleTime = 1s;
  start();
  std::vector<std::unique_ptr<RawClient>> clients;
  for (const auto& [begun, status] : cases) {
    clients.push_back(std::make_unique<RawClient>(port(), begun));
  }
  std::atomic<bool> told{false};
  std::jthread drip([&] {
    while (!told && clients[0]->send("x")) ::usleep(50'000);
  });
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(clients[i]->answer().status, cases[i].second) << cases[i].first;
    told = true;
    EXPECT_TRUE(clients[i]->closedByServer());
  }
}

TEST_F(HttpFixture, AsksForTheBodyThatAClientHoldsBack) {
  start();
  RawClient client(
      port(), "PUT / HTTP/1.1\r\nHost: h\r\nExpect: 100-continue\r\nContent-Length: 2\r\n\r\n");
  EXPECT_EQ(client.answer().status, 100);
  EXPECT_EQ(client.ask("ab").body, "/|ab");
}

TEST_F(HttpFixture, ABrowserAtTheDoorIsToldWhatThisIs) {
  start();
  const auto asks = [&](const std::string& request, const std::string& accept) {
    return ask(request.substr(0, request.size() - 2) + "Accept: " + accept + "\r\n\r\n");
  };
  const HttpAnswer page = asks(get("/"), "text/html,*/*;q=0.8");
  EXPECT_EQ(page.status, 404);
  EXPECT_TRUE(page.has("content-type: text/html"));
  EXPECT_NE(page.body.find("/KAVRO/"), std::string::npos);
  EXPECT_EQ(asks(get("/"), "*/*").body, "/|") << "the module's";
  EXPECT_EQ(asks(get("/x"), "text/html").body, "/x|");
}

TEST_F(HttpFixture, HeadAndBodylessStatusesHaveNoBody) {
  script([](int&, std::string& body, int&, const stHttpRes& request) {
    body = request.exchange->getUrl() == "/empty" ? "" : "text";
    return request.exchange->getMethod() == QNHttpService::HTTP_HEAD ? 200 : 204;
  });
  start();
  RawClient client(port(), "HEAD / HTTP/1.1\r\nHost: h\r\n\r\n");
  EXPECT_TRUE(client.answer(true).has("content-length: 4\r\n"));
  client.send(get("/empty", "HEAD"));
  EXPECT_FALSE(client.answer(true).has("content-length")) << "GET might have a body";
  const HttpAnswer none = client.ask(kGet);
  EXPECT_EQ(none.status, 204);
  EXPECT_FALSE(none.has("content-length"));
  EXPECT_EQ(client.ask(kGet).status, 204);
}

TEST_F(HttpFixture, PipelinedRequestsAreAnsweredInOrder) {
  std::mutex mutex;
  std::vector<std::thread> threads;
  script([&](int&, std::string& body, int& asyncReply, const stHttpRes& request) {
    const std::string url = request.exchange->getUrl();
    if (url.back() % 2 == 0) {  // every other one is answered from another thread
      asyncReply = 1;
      const std::lock_guard lock(mutex);
      threads.emplace_back([handle = request.exchange->getHttpHandle(), url] {
        CHttpExchange(handle).response(url.data(), static_cast<int>(url.size()));
      });
    } else {
      body = url;
    }
    return 200;
  });
  start();
  RawClient client(port());
  std::string requests;
  for (int i = 0; i < 500; ++i) {
    requests += get("/" + std::to_string(i));
  }
  std::thread sender([&] { client.send(requests); });
  for (int i = 0; i < 500; ++i) ASSERT_EQ(client.answer().body, "/" + std::to_string(i));
  sender.join();
  const std::lock_guard lock(mutex);
  for (auto& thread : threads) thread.join();
}

// A client that sends and never reads is made to wait: what it can have served is bounded.
TEST_F(HttpFixture, PipeliningWithoutReadingIsBounded) {
  std::atomic<int> served{0};
  answering([&](const stHttpRes&) {
    ++served;
    return std::string(100'000, 'x');
  });
  start();
  std::string requests;
  for (int i = 0; i < 1000; ++i) requests += kGet;
  RawClient client(port(), requests, 8192);
  int before = -1;
  ASSERT_TRUE(eventually([&] {
    const int now = served;
    ::usleep(100'000);
    return std::exchange(before, now) == now && now > 0;
  }));
  EXPECT_LT(served, 200);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(client.answer().body.size(), 100'000u);
}

TEST_F(HttpFixture, ClientThatEndedItsSideGetsEveryAnswerItAskedFor) {
  leaving();
  start();
  RawClient client(port(), get("/1") + get("/2") + "GET /3");
  client.endSending();
  for (const std::string url : {"/1", "/2"}) {
    const int handle = waitForHandle();
    ::usleep(20'000);  // so that the end arrives first
    EXPECT_EQ(CHttpExchange(handle).getUrl(), url);
    answer(handle, url);
    EXPECT_EQ(client.answer().body, url);
  }
  EXPECT_TRUE(client.closedByServer());
}

TEST_F(HttpFixture, ExchangeShowsTheRequestAndRefusesBadHeaders) {
  script([](int&, std::string& body, int&, const stHttpRes& request) {
    CHttpExchange& exchange = *request.exchange;
    body = std::to_string(exchange.getMethod()) + exchange.getHead("x-one") +
           exchange.getHead("X-None") + exchange.getHead("authorization");
    exchange.setHead("X-Good", "old");
    exchange.setHead("x-good", "new");
    exchange.setHead("X-Bad", "a\r\nX-Injected: 1");
    exchange.setHead("X-Injected: 1\r\nX-Bad", "a");
    exchange.setHead("Content-Length", "7");
    exchange.setHead("Connection", "close");
    return 404;
  });
  start();
  RawClient client(port());
  const HttpAnswer answer = client.ask(
      "PATCH /t HTTP/1.1\r\nHost: h\r\nX-One:  v 1\t\r\n"
      "Authorization: Digest username=\"u\", uri=\"/other\"\r\n\r\n");
  EXPECT_EQ(answer.status, 404);
  EXPECT_EQ(answer.body, "6v 1") << "credentials for another target are dropped";
  EXPECT_EQ(
      client.ask("GET /t?x HTTP/1.1\r\nHost: h\r\nAuthorization: Digest uri=\"/t?x\"\r\n\r\n").body,
      "0Digest uri=\"/t?x\"");
  EXPECT_TRUE(answer.has("x-good: new\r\n")) << answer.head;
  EXPECT_FALSE(answer.has("old") || answer.has("injected") || answer.has("x-bad"));
  EXPECT_TRUE(answer.has("content-length: 4\r\n")) << answer.head;
}

// Proxies append to what the client wrote, so only the end of the list can be believed.
TEST_F(HttpFixture, ClientAddressIsThePeerUnlessATrustedProxyWroteIt) {
  answering([](const stHttpRes& request) { return request.exchange->getHead("x-forwarded-for"); });
  const auto client = [&](const std::string& value) {
    return ask("GET / HTTP/1.1\r\nHost: h\r\nX-Forwarded-For: " + value + "\r\n\r\n").body;
  };
  start();
  EXPECT_EQ(client("9.9.9.9"), "127.0.0.1");
  EXPECT_EQ(ask(kGet).body, "127.0.0.1");
  options_.trustedProxies = {"127.0.0.1", "10.0.0.1"};
  listen();
  EXPECT_EQ(ask(kGet).body, "127.0.0.1");
  const std::pair<std::string, std::string> cases[] = {
      {"9.9.9.9", "9.9.9.9"},
      {"6.6.6.6, 9.9.9.9", "9.9.9.9"},
      {"6.6.6.6\r\nX-Forwarded-For: 9.9.9.9", "9.9.9.9"},
      {"6.6.6.6, 9.9.9.9, 10.0.0.1", "9.9.9.9"},
      {"10.0.0.1", "10.0.0.1"},
      {"9.9.9.9:1234", "9.9.9.9"},
      {"[2001:db8::1]:1234", "2001:db8::1"},
      {"2001:DB8:0::1", "2001:db8::1"},
      {"::ffff:9.9.9.9", "9.9.9.9"},
      {"made up, 10.0.0.1", "10.0.0.1"},
  };
  for (const auto& [value, address] : cases) EXPECT_EQ(client(value), address) << value;
  for (const char* value : {"6.6.6.6, made up", "9.9.9.9,", "[", ""}) {
    EXPECT_EQ(client(value), "127.0.0.1") << value;
  }
  const int probe = ::socket(AF_INET6, SOCK_STREAM, 0);
  if (probe < 0) return;  // a machine without IPv6
  ::close(probe);
  options_.address = "::";
  listen();
  EXPECT_EQ(ask(kGet).body, "127.0.0.1") << "an IPv4 client of an IPv6 socket";
}

TEST_F(HttpFixture, ModuleThatThrowsIsAFailedRequestOnly) {
  script([](int&, std::string&, int&, const stHttpRes& request) -> int {
    request.exchange->setHead("X-Half-Done", "1");
    if (request.exchange->getUrl() == "/a?b=1") throw std::runtime_error("broken");
    throw 1;
  });
  start();
  RawClient client(port());
  for (const char* url : {"/a?b=1", "/", "/KAVRO/System/Audio/channels"}) {
    const HttpAnswer answer = client.ask(get(url));
    EXPECT_EQ(answer.status, 500);
    EXPECT_FALSE(answer.has("x-half-done"));
  }
}

TEST_F(HttpFixture, ConnectionsOverTheLimitAreToldToComeBack) {
  options_.connectionsPerAddress = 2;
  start();
  auto first = std::make_unique<RawClient>(port());
  RawClient second(port());
  EXPECT_EQ(first->ask(kGet).status, 200);
  EXPECT_EQ(second.ask(kGet).status, 200);
  RawClient third(port());
  const HttpAnswer refused = third.ask(kGet);
  EXPECT_EQ(refused.status, 503);
  EXPECT_TRUE(refused.has("retry-after: "));
  third.endSending();
  EXPECT_TRUE(third.closedByServer());
  first.reset();
  EXPECT_TRUE(eventually([&] { return ask(kGet).status == 200; }));
}

TEST_F(HttpFixture, RequestsOverTheLimitAreRefusedAndTheConnectionServesOn) {
  leaving("/wait");
  options_.requests = 1;
  start();
  RawClient waiting(port(), get("/wait"));
  const int handle = waitForHandle();
  RawClient other(port());
  const HttpAnswer refused = other.ask(kGet);
  EXPECT_EQ(refused.status, 503);
  EXPECT_TRUE(refused.has("retry-after: "));
  answer(handle, "x");
  EXPECT_EQ(waiting.answer().status, 200);
  EXPECT_EQ(other.ask(kGet).status, 200);
}

TEST_F(HttpFixture, BodiesThatWaitForAWorkerCountAsHeld) {
  bounds_.bodyMemory = 100'000;
  std::promise<void> release;
  std::atomic<bool> working{false};
  script([&, done = release.get_future().share()](int&, std::string&, int&, const stHttpRes&) {
    working = true;
    done.wait();
    return 200;
  });
  start();
  const std::string put =
      "PUT /KAVRO/Intelligent/FDLib/FDSetUp HTTP/1.1\r\nHost: h\r\nContent-Length: 60000\r\n\r\n" +
      std::string(60'000, 'x');
  RawClient waiting(port(), put);
  ASSERT_TRUE(eventually([&] { return working.load(); }));
  EXPECT_EQ(ask(put).status, 503);
  release.set_value();
  EXPECT_EQ(waiting.answer().status, 200);
  EXPECT_TRUE(eventually([&] { return ask(put).status == 200; }));
}

// The module's slow resources and the service's own.
TEST_F(HttpFixture, BlockingResourcesRunElsewhereAndAFullPoolSaysSo) {
  std::mutex gate;
  std::atomic<int> blocked{0};
  const auto block = [&] {
    ++blocked;
    const std::lock_guard lock(gate);
  };
  answering([&](const stHttpRes& request) {
    if (request.exchange->getUrl() != "/a?b=1") block();
    return request.body ? std::string(request.body, std::size_t(request.bodyLength)) : "quick";
  });
  own_ = {{"/slow", [&](QNHttpService::ExchangeState& exchange) {
             block();
             if (exchange.url() == "/slow/throws") throw std::runtime_error("x");
             exchange.finish(200, "text/plain", "abc");
           }}};
  start();
  std::unique_lock lock(gate);
  std::vector<std::unique_ptr<RawClient>> clients;
  const auto send = [&](const std::string& request) {
    clients.push_back(std::make_unique<RawClient>(port(), request));
  };
  send(
      "PUT /KAVRO/Intelligent/FDLib/FDSetUp?x HTTP/1.1\r\nHost: h\r\nContent-Length: 3\r\n\r\nabc");
  send(get("/slow/throws"));
  ASSERT_TRUE(eventually([&] { return blocked == 2; }));
  for (int i = 0; i < 3; ++i) send(get("/slow"));  // one too many
  ASSERT_TRUE(eventually([&] { return pool_.load().refused == 1; }));
  EXPECT_EQ(ask(kGet).body, "quick");
  lock.unlock();
  std::multiset<std::string> answers;
  for (const auto& client : clients) {
    const HttpAnswer answer = client->answer();
    answers.insert(std::to_string(answer.status) + (answer.status == 200 ? answer.body : ""));
  }
  EXPECT_EQ(answers, (std::multiset<std::string>{"200abc", "200abc", "200abc", "500", "503"}));
  stop();
}

TEST_F(HttpFixture, FaceRequestsArriveAsJsonAndPicture) {
  answering([](const stHttpRes& request) {
    return std::to_string(request.hasMimePart) + request.mimeType + "|" +
           std::string(request.body, std::size_t(request.bodyLength));
  });
  start();
  const std::string body =
      "--B\r\nContent-Type: image/png\r\n\r\nPNG\r\n--B\r\n\r\n{\"a\":1}\r\n--B--\r\n";
  const auto request = [&](const char* path, const std::string& content) {
    return std::string("POST ") + path +
           " HTTP/1.1\r\nHost: h\r\nContent-Type: multipart/form-data; boundary=B\r\n"
           "Content-Length: " +
           std::to_string(content.size()) + "\r\n\r\n" + content;
  };
  RawClient client(port());
  EXPECT_EQ(client.ask(request("/KAVRO/Intelligent/FDLib/FDSetUp?format=json", body)).body,
            "1image/png|{\"a\":1}PNG");
  EXPECT_EQ(client.ask(request("/KAVRO/Other", body)).body, "0|" + body);
  EXPECT_EQ(client.ask(request("/KAVRO/Intelligent/FDLib/FaceDataRecord", "--B\r\nx")).status, 400);
  EXPECT_EQ(client.ask(request("/KAVRO/Other", body)).status, 200);
}

}  // namespace
}  // namespace qn
