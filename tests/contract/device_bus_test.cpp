// What platform/device_cfg_bus.h promises, against scripted devices on loopback.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "gateway/devicebus/device_url.h"
#include "gateway/devices/device.h"
#include "gateway/net/asker.h"
#include "tests/contract/bus_fixture.h"
#include "tests/contract/events.h"
#include "tests/contract/scripted_device.h"

namespace qn::devicebus::test {
namespace {

using std::chrono::seconds;

constexpr unsigned int ERROR_RESOURCE_NOT_FOUND = 0x40000006;
constexpr milliseconds kShort{300};

TEST(DeviceUrl, TheLastDevIndexNamesTheDevice) {
  const struct {
    const char* url;
    const char* device;
  } cases[] = {
      {"/a?format=json&devIndex=7", "7"},
      {"/a?devIndex=1&devIndex=2", "2"},
      {"/a?devIndex=2&format=json", "2"},
      {"/a?devIndex=1&dev%49ndex=2", "2"},
      {"/a?dev%49ndex=2&devIndex=1", "1"},
      {"/a?devIndex=1&devIndex=%32", "2"},
      {"/a?x=1?devIndex=3&devIndex=1", "1"},
      {"/a?devIndex=1&devIndex", "1"},
      {"/a?devIndex=1&devIndex=", ""},
      {"/a?mydevIndex=1", ""},
      {"/a&devIndex=1", ""},
      {"/a?devIndex=%zz%", "%zz%"},
      {"/a?", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(namedDevice(c.url), c.device) << c.url;
}

TEST(DeviceUrl, NoSpellingLeadsOutOfTheDevicesPathOrHidesTheDevIndex) {
  const struct {
    const char* path;
    bool sent;
  } cases[] = {
      {"/a/../b", false},   {"/a/..", false},       {"/a/%2e%2E/b", false}, {"/a/.%2e/b", false},
      {"/a/..%2fb", false}, {"/a%2F../b", false},   {"/a/..\\b", false},    {"/a%5c..%5cb", false},
      {"/a/..;x/b", false}, {"/a/..%00/b", false},  {"/a?x=1#", false},     {"/a#b", false},
      {"/a/..b/c", true},   {"/a/b../c", true},     {"/a/.../c", true},     {"/a/1.5/%20", true},
      {"/a/./b", true},     {"/a?file=../b", true},
  };
  for (const auto& c : cases) EXPECT_EQ(isRequestTarget(c.path), c.sent) << c.path;
}

TEST(Circuit, OpensAfterThreeFailuresAndLetsOneProbeThroughEachSecond) {
  Circuit circuit("1");
  const Circuit::Clock::time_point start{seconds(1000)};
  circuit.failed(start);
  circuit.failed(start);
  circuit.succeeded();
  circuit.failed(start);
  circuit.failed(start);
  EXPECT_TRUE(circuit.admit(start)) << "only failures in a row count";
  circuit.failed(start);
  EXPECT_TRUE(circuit.blocked(start));
  EXPECT_FALSE(circuit.admit(start + milliseconds(999)));
  EXPECT_FALSE(circuit.blocked(start + seconds(1)));
  EXPECT_TRUE(circuit.admit(start + seconds(1)));
  EXPECT_FALSE(circuit.admit(start + seconds(1))) << "one probe at a time";
  circuit.failed(start + seconds(1));
  EXPECT_TRUE(circuit.admit(start + seconds(2)));
  circuit.succeeded();
  EXPECT_TRUE(circuit.admit(start + seconds(2)));
  EXPECT_FALSE(circuit.blocked(start + seconds(2)));
}

class DeviceBusTest : public BusTest {};

const std::string kHead = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n";
const std::string kChunked = kHead + "Transfer-Encoding: chunked\r\n\r\n";
const std::string kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

std::string repeated(const std::string& text, int count) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}

// What the device says before it closes, and what the callback gets.
TEST_F(DeviceBusTest, RepliesAreHandedOverOrReplaced) {
  const std::pair<std::string, std::string> whole[] = {
      {jsonReply("{\"a\":1}"), "{\"a\":1}"},
      {kChunked + "3\r\n{\"a\r\n4;x=y\r\n\":1}\r\n0\r\n\r\n", "{\"a\":1}"},
      {kChunked + "2\r\n{}\r\n0\r\nX: y\r\n\r\n", "{}"},
      {kHead + "\r\n{\"a\":1}", "{\"a\":1}"},
      {"HTTP/1.0 200 OK\r\n\r\n{}", "{}"},
      {jsonReply(""), ""},
      {"HTTP/1.1 204 No Content\r\n\r\n", ""},
      {repeated(kContinue, 2) + jsonReply("{}"), "{}"},
      {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello", "hello"},
      {jsonReply("{\"statusCode\":4}", "403 Forbidden"), "{\"statusCode\":4}"},
      {"HTTP/1.1 500 X\r\nContent-Type: text/xml\r\nContent-Length: 4\r\n\r\n<a/>", "<a/>"},
  };
  const std::pair<unsigned int, std::vector<std::string>> replaced[] = {
      {ERROR_RESOURCE_NOT_FOUND,
       {"HTTP/1.1 404 X\r\nContent-Type: text/html\r\nContent-Length: 4\r\n\r\n<p/>"}},
      {ERROR_DEVICE_LOGIN_REFUSED, {jsonReply("{}", "401 Unauthorized")}},
      {ERROR_DEVICE_REPLY_UNUSABLE,
       {"", "\x01\x02garbage\r\n\r\n", "HTTP/1.1 200 OK\r\nConte", "HTTP/1.1 101 X\r\n\r\n",
        "HTTP/1.1 500 X\r\nContent-Length: 0\r\n\r\n"}},
      {ERROR_DEVICE_REPLY_UNUSABLE,  // cut or contradictory
       {kHead + "Content-Length: 10\r\n\r\n{\"a\"", kChunked + "a\r\n{\"a\"", kChunked + "zz\r\n",
        kHead + "Content-Length: 1\r\nContent-Length: 2\r\n\r\n{}"}},
      {ERROR_DEVICE_REPLY_UNUSABLE,  // too large or too many
       {kHead + "Content-Length: 99999999999\r\n\r\n", kHead + "\r\n" + std::string(2000, ' '),
        kChunked + repeated("10\r\n0123456789abcdef\r\n", 100),
        kHead + "X: " + std::string(100000, 'x') + "\r\n\r\n",
        repeated(kContinue, 100) + jsonReply("{}")}},
  };
  configuration_.bus.replyBytes = 1000;
  const auto exchange = [this](const std::string& bytes) {
    ScriptedDevice device([&bytes](Peer& peer) {
      if (peer.read()) peer.write(bytes);
    });
    configuration_.devices.clear();
    addDevice("1", device.port());
    return send("1")->text();
  };
  for (const auto& [bytes, body] : whole) EXPECT_EQ(exchange(bytes), body) << bytes;
  for (const auto& [error, replies] : replaced) {
    for (const std::string& bytes : replies) {
      EXPECT_EQ(errorCode(exchange(bytes)), error) << bytes.substr(0, 100);
    }
  }
}

TEST_F(DeviceBusTest, SendsTheUrlAsItStandsAndFindsTheContentType) {
  ScriptedDevice device(ScriptedDevice::answering([](const DeviceRequest& request) {
    return jsonReply(request.method + " " + request.target + " " + request.field("Content-Type") +
                     " " + request.field("Content-Length") + " " + request.body);
  }));
  addDevice("1", device.port());
  configuration_.devices[0].basePath = "/base";
  publish();
  const std::string target = " /base" + url("1");
  const struct {
    unsigned char method;
    const char* body;
    std::string seen;
  } cases[] = {
      {GET, "", "GET" + target + "   "},
      {PUT, " {}", "PUT" + target + " application/json 3  {}"},
      {POST, "[1]", "POST" + target + " application/json 3 [1]"},
      {PUT, "<a/>", "PUT" + target + " application/xml 4 <a/>"},
      {PUT, "a", "PUT" + target + " application/octet-stream 1 a"},
      {POST, "", "POST" + target + "  0 "},
      {DELETE, "", "DELETE" + target + "   "},
      {PATCH, "{}", "PATCH" + target + " application/json 2 {}"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(send("1", seconds(20), c.method, c.body)->text(), c.seen);
  }
  EXPECT_EQ(device.connections(), 1);
}

TEST_F(DeviceBusTest, RefusesWhatItCannotSend) {
  addDevice("1", 1);
  const struct {
    unsigned char method;
    std::string url;
    int refusal;
  } cases[] = {
      {GET, "/a?devIndex=9", DEVCFGBUS_UNKNOWN_DEVICE},
      {GET, "/a?devIndex=1&devIndex=9", DEVCFGBUS_UNKNOWN_DEVICE},
      {GET, "/a", DEVCFGBUS_UNKNOWN_DEVICE},
      {7, url("1"), DEVCFGBUS_BAD_ARGUMENT},
      {GET, "/a b?devIndex=1", DEVCFGBUS_BAD_ARGUMENT},
      {GET, "/a\r\nX:y?devIndex=1", DEVCFGBUS_BAD_ARGUMENT},
      {GET, std::string("/a\0?devIndex=1", 14), DEVCFGBUS_BAD_ARGUMENT},
      {GET, "a?devIndex=1", DEVCFGBUS_BAD_ARGUMENT},
      {GET, "/a/../b?devIndex=1", DEVCFGBUS_BAD_ARGUMENT},
      {GET, "/a?devIndex=2#&devIndex=1", DEVCFGBUS_BAD_ARGUMENT},
      {GET, "", DEVCFGBUS_BAD_ARGUMENT},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Sent(c.method, c.url, "", seconds(1)).refusal(), c.refusal) << c.url;
  }
}

TEST_F(DeviceBusTest, TenMegabytesGoBothWaysAndAreTranslatedOffTheReactor) {
  ScriptedDevice device(ScriptedDevice::answering(
      [](const DeviceRequest& request) { return jsonReply(request.body); }));
  addDevice("1", device.port());
  const std::string body = "{" + std::string(10 * 1024 * 1024, ' ') + "}";
  const Answer answer = send("1", seconds(20), PUT, body)->answer();
  EXPECT_TRUE(answer.text == body);
  EXPECT_EQ(answer.reactor, Reactors::kNone);
  EXPECT_EQ(send("1", seconds(20), PUT, "{}")->answer().reactor, 0);
}

TEST_F(DeviceBusTest, EarlyAnswerToAnUnfinishedBodyIsTheAnswer) {
  ScriptedDevice device([](Peer& peer) {
    peer.write(jsonReply("{\"early\":1}", "413 Content Too Large"));
    peer.waitForClose();
  });
  addDevice("1", device.port());
  const auto sent = send("1", seconds(20), POST, std::string(10 * 1024 * 1024, ' '));
  EXPECT_EQ(sent->text(), "{\"early\":1}");
}

TEST_F(DeviceBusTest, RefusedConnectionIsUnreachable) {
  uint16_t port;
  {
    ScriptedDevice gone(ScriptedDevice::hanging());
    port = gone.port();
  }
  addDevice("1", port);
  EXPECT_EQ(send("1")->error(), ERROR_DEVICE_UNREACHABLE);
  configuration_.devices[0].host = "name.invalid";
  publish();
  EXPECT_EQ(send("1")->error(), ERROR_DEVICE_UNREACHABLE);
  configuration_.devices[0].host = "localhost";
  ScriptedDevice device(ScriptedDevice::answering([](const auto&) { return jsonReply("{}"); }));
  configuration_.devices[0].port = device.port();
  publish();
  EXPECT_EQ(send("1")->text(), "{}");
}

TEST_F(DeviceBusTest, TimeOutCountsFromTheCallAndEndsSlowReplies) {
  ScriptedDevice trickling([](Peer& peer) {
    peer.read();
    peer.write(kHead + "Content-Length: 10\r\n\r\n{");
    peer.waitForClose();
  });
  addDevice("1", trickling.port());
  configuration_.bus.deviceConnections = 1;
  publish();
  const auto start = std::chrono::steady_clock::now();
  for (const auto& sent : sendMany(3, "1", kShort)) {
    EXPECT_EQ(sent->error(), ERROR_DEVICE_TIMEOUT);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2 * kShort + seconds(2));
  EXPECT_EQ(trickling.connections(), 1) << "the others ended in the queue";
}

TEST_F(DeviceBusTest, HangingDeviceDelaysNoOtherAndHoldsABoundedNumber) {
  ScriptedDevice hanging(ScriptedDevice::hanging());
  ScriptedDevice good(ScriptedDevice::answering([](const auto&) { return jsonReply("{}"); }));
  configuration_.bus.deviceConnections = 2;
  configuration_.bus.deviceQueue = 3;
  addDevice("1", hanging.port());
  addDevice("2", good.port());
  const auto waiting = sendMany(5, "1", seconds(2));
  EXPECT_EQ(send("1")->refusal(), DEVCFGBUS_QUEUE_FULL);
  EXPECT_EQ(send("2")->text(), "{}");
  for (const auto& sent : waiting) {
    EXPECT_EQ(sent->refusal(), DEVCFGBUS_OK);
    EXPECT_EQ(sent->error(), ERROR_DEVICE_TIMEOUT);
  }
  EXPECT_EQ(hanging.connections(), 2);
}

TEST_F(DeviceBusTest, WhatWaitsIsBoundedInBytesForEachDeviceAndInAll) {
  std::latch opened{1};
  ScriptedDevice device([&](Peer& peer) {
    while (peer.read()) {
      opened.wait();
      peer.write(jsonReply("{}"));
    }
  });
  configuration_.bus.deviceBytes = 250'000;
  configuration_.bus.bytes = 450'000;
  for (const char* index : {"1", "2", "3"}) addDevice(index, device.port());
  const std::string body(100'000, ' ');
  std::vector<SentPtr> waiting;
  const auto refusalOf = [&](const char* index, const std::string& what) {
    waiting.push_back(send(index, seconds(30), PUT, what));
    return waiting.back()->refusal();
  };
  EXPECT_EQ(refusalOf("1", body), DEVCFGBUS_OK);
  EXPECT_EQ(refusalOf("1", body), DEVCFGBUS_OK);
  EXPECT_EQ(refusalOf("1", body), DEVCFGBUS_QUEUE_FULL);
  EXPECT_EQ(refusalOf("1", "{}"), DEVCFGBUS_OK);
  EXPECT_EQ(refusalOf("2", body), DEVCFGBUS_OK);
  EXPECT_EQ(refusalOf("2", body), DEVCFGBUS_OK);
  EXPECT_EQ(refusalOf("3", body), DEVCFGBUS_QUEUE_FULL);
  opened.count_down();
  const std::string large(1'000'000, ' ');
  EXPECT_TRUE(eventually([&] { return refusalOf("3", large) == DEVCFGBUS_OK; }))
      << "all is given back, and what alone is over the bounds goes when nothing else waits";
  for (const auto& sent : waiting) {
    if (sent->refusal() == DEVCFGBUS_OK) {
      EXPECT_EQ(sent->text(), "{}");
    }
  }
}

struct SomebodyAsking : Asker {
  bool isGone() const override { return gone; }
  void waited(std::chrono::nanoseconds time) const override { waitedFor = time; }
  std::atomic<bool> gone{false};
  mutable std::atomic<std::chrono::nanoseconds> waitedFor{};
};

TEST_F(DeviceBusTest, RequestWhoseClientHasGoneLeavesTheQueue) {
  std::atomic<int> bodies{0};
  Events taken;
  Events released;
  ScriptedDevice device([&](Peer& peer) {
    while (const auto request = peer.read()) {
      bodies += request->body.empty() ? 0 : 1;
      taken.signal();
      released.wait();
      peer.write(jsonReply("{}"));
    }
  });
  configuration_.bus.deviceConnections = 1;
  addDevice("1", device.port());
  const auto inFlight = send("1");
  ASSERT_TRUE(taken.wait());
  const auto gone = std::make_shared<SomebodyAsking>();
  const auto there = std::make_shared<SomebodyAsking>();
  auto forgotten = std::make_shared<SomebodyAsking>();
  std::vector<SentPtr> waiting;
  for (const auto& asker : {gone, forgotten, there}) {
    const AskerScope scope(asker);
    waiting.push_back(send("1", seconds(20), PUT, "{}"));
  }
  waiting.push_back(send("1", seconds(20), PUT, "{}"));
  gone->gone = true;
  forgotten.reset();
  EXPECT_NE(waiting[0]->error(), 0u) << "answered, for the record's sake, before it was sent";
  EXPECT_NE(waiting[1]->error(), 0u);
  EXPECT_EQ(bodies, 0);
  released.signal();
  EXPECT_EQ(inFlight->text(), "{}");
  EXPECT_EQ(waiting[2]->text(), "{}");
  EXPECT_EQ(waiting[3]->text(), "{}") << "of nobody in particular";
  EXPECT_GT(there->waitedFor.load().count(), 0) << "told how long the device took";
}

TEST_F(DeviceBusTest, DeadDeviceIsProbedAndComesBack) {
  std::atomic<bool> alive{false};
  ScriptedDevice device([&](Peer& peer) {
    while (peer.read()) {
      if (alive) peer.write(jsonReply("{}"));
    }
  });
  addDevice("1", device.port());
  for (const auto& sent : sendMany(3, "1", kShort)) EXPECT_EQ(sent->error(), ERROR_DEVICE_TIMEOUT);
  const int asked = device.connections();
  EXPECT_EQ(send("1")->error(), ERROR_DEVICE_UNREACHABLE);
  EXPECT_EQ(device.connections(), asked) << "failed without being sent";
  alive = true;
  unsigned int error = ERROR_DEVICE_UNREACHABLE;
  const auto deadline = std::chrono::steady_clock::now() + seconds(20);
  while (error == ERROR_DEVICE_UNREACHABLE && std::chrono::steady_clock::now() < deadline) {
    error = send("1")->error();
  }
  EXPECT_EQ(error, 0u);
  for (const auto& sent : sendMany(3, "1")) EXPECT_EQ(sent->text(), "{}");
}

TEST_F(DeviceBusTest, BrokenReusedConnectionIsTriedAgainOnceUnlessItMayDoHarm) {
  std::atomic<int> requests{0};
  // Every connection answers one request and breaks on the next.
  ScriptedDevice device([&](Peer& peer) {
    if (peer.read()) peer.write(jsonReply(std::to_string(++requests)));
    if (peer.read()) ++requests;
  });
  addDevice("1", device.port());
  EXPECT_EQ(send("1")->text(), "1");
  EXPECT_EQ(send("1", seconds(20), DELETE)->text(), "3");
  EXPECT_EQ(send("1", seconds(20), POST, "{}")->error(), ERROR_DEVICE_REPLY_UNUSABLE);
  EXPECT_EQ(requests, 4) << "a POST is sent once";
}

TEST_F(DeviceBusTest, ChangedConfigurationHoldsForTheNextRequest) {
  std::promise<void> taken;
  std::promise<void> released;
  ScriptedDevice before([&](Peer& peer) {
    if (peer.read()) taken.set_value();
    released.get_future().wait();
    peer.write(jsonReply("\"before\""));
    peer.waitForClose();
  });
  ScriptedDevice after(
      ScriptedDevice::answering([](const auto&) { return jsonReply("\"after\""); }));
  addDevice("1", before.port());
  configuration_.bus.deviceConnections = 1;
  publish();
  const auto inFlight = send("1");
  taken.get_future().wait();
  const auto waiting = send("1");
  configuration_.devices[0].port = after.port();
  publish();
  EXPECT_EQ(send("1")->text(), "\"after\"");
  EXPECT_EQ(waiting->text(), "\"after\"");
  configuration_.devices.clear();
  publish();
  EXPECT_EQ(send("1")->refusal(), DEVCFGBUS_UNKNOWN_DEVICE);
  EXPECT_EQ(inFlight->calls(), 0);
  released.set_value();
  EXPECT_EQ(inFlight->text(), "\"before\"");
}

TEST_F(DeviceBusTest, SynchronousRequestWaitsForTheDeviceButNotOnABusThread) {
  ScriptedDevice good(
      ScriptedDevice::answering([](const auto&) { return jsonReply(std::string(100000, ' ')); }));
  addDevice("1", good.port());
  std::string reply = "untouched";
  EXPECT_EQ(QN_DeviceCfgBus_ProcessSyn(GET, url("3"), "", reply, 100), DEVCFGBUS_UNKNOWN_DEVICE);
  std::promise<int> onReactor;
  boost::asio::post(reactors_.context(0), [&] {
    onReactor.set_value(QN_DeviceCfgBus_ProcessSyn(GET, url("1"), "", reply, 20000));
  });
  EXPECT_EQ(onReactor.get_future().get(), -1);
  EXPECT_EQ(reply, "untouched");
  EXPECT_EQ(QN_DeviceCfgBus_ProcessSyn(GET, url("1"), "", reply, 20000), 0);
  EXPECT_EQ(reply.size(), 100000u);
}

TEST_F(DeviceBusTest, HangingDeviceKeepsABoundedNumberOfThreadsWaiting) {
  ScriptedDevice hanging(ScriptedDevice::hanging());
  addDevice("1", hanging.port());
  std::atomic<std::size_t> waited{0};
  std::atomic<std::size_t> refused{0};
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < DeviceBus::kAwaited + 3; ++i) {
    threads.emplace_back([&] {
      std::string reply;
      const int result = QN_DeviceCfgBus_ProcessSyn(GET, url("1"), "", reply, 2000);
      ++(result == DEVCFGBUS_QUEUE_FULL ? refused : waited);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(waited, DeviceBus::kAwaited);
  EXPECT_EQ(refused, 3u);
}

TEST_F(DeviceBusTest, CallbackMaySendTheNextRequest) {
  ScriptedDevice device(ScriptedDevice::answering([](const auto&) { return jsonReply("{}"); }));
  addDevice("1", device.port());
  struct Chain {
    int left = 50;
    std::promise<void> ended;
    static int next(void*, int, void* userData) {
      auto& self = *static_cast<Chain*>(userData);
      if (self.left-- == 0) {
        self.ended.set_value();
      } else {
        EXPECT_EQ(QN_DeviceCfgBus_ProcessAsyn(GET, url("1"), "", &next, &self, 20000), 0);
      }
      return 0;
    }
  } chain;
  ASSERT_EQ(QN_DeviceCfgBus_ProcessAsyn(GET, url("1"), "", &Chain::next, &chain, 20000), 0);
  EXPECT_EQ(chain.ended.get_future().wait_for(seconds(30)), std::future_status::ready);
  bus_.stop();
}

class ConcurrentBusTest : public BusTest {
 protected:
  ConcurrentBusTest() : BusTest(2) {}

  // Calls `work` on so many threads at once.
  template <typename Work>
  static void onThreads(int count, Work work) {
    std::latch start(count);
    std::vector<std::jthread> threads;
    for (int i = 0; i < count; ++i) {
      threads.emplace_back([&, i] {
        start.arrive_and_wait();
        work(i);
      });
    }
  }
};

TEST_F(ConcurrentBusTest, EveryRequestOfManyThreadsIsAnsweredOnce) {
  ScriptedDevice good(ScriptedDevice::answering(
      [](const DeviceRequest& request) { return jsonReply(request.body); }));
  ScriptedDevice moody([](Peer& peer) {
    while (peer.read()) {
      if (peer.number() % 3 == 1) return;
      peer.write(jsonReply("{}"));
    }
  });
  addDevice("1", good.port());
  addDevice("2", moody.port());
  constexpr int kThreads = 8;
  std::vector<SentPtr> all(25 * kThreads);
  onThreads(kThreads, [&](int thread) {
    for (std::size_t i = static_cast<std::size_t>(thread); i < all.size(); i += kThreads) {
      all[i] = send(i % 5 == 0 ? "2" : "1", seconds(20), PUT, "[" + std::to_string(i) + "]");
    }
  });
  for (std::size_t i = 0; i < all.size(); ++i) {
    ASSERT_EQ(all[i]->refusal(), DEVCFGBUS_OK);
    const std::string text = all[i]->text();
    EXPECT_TRUE(i % 5 == 0 || text == "[" + std::to_string(i) + "]") << text;
  }
  bus_.stop();
  for (const auto& sent : all) EXPECT_EQ(sent->calls(), 1);
  EXPECT_LE(good.connections(), 16);
}

TEST_F(ConcurrentBusTest, StopAnswersEverythingOnceAndRefusesTheRest) {
  ScriptedDevice hanging(ScriptedDevice::hanging());
  addDevice("1", hanging.port());
  std::vector<std::vector<SentPtr>> sent(4);
  std::latch someSent(4);
  std::atomic<bool> refused{false};
  std::jthread stopping([&] {
    someSent.wait();
    bus_.stop();
  });
  onThreads(4, [&](int thread) {
    auto& own = sent[static_cast<std::size_t>(thread)];
    for (int i = 0; own.size() < 10 || own.back()->refusal() != DEVCFGBUS_STOPPING; ++i) {
      if (i == 10) someSent.count_down();
      own.push_back(send("1"));
      if (own.back()->refusal() == DEVCFGBUS_QUEUE_FULL) own.pop_back();
    }
  });
  stopping.join();
  for (const auto& own : sent) {
    for (const auto& one : own) {
      const bool accepted = one->refusal() == DEVCFGBUS_OK;
      EXPECT_EQ(one->calls(), accepted ? 1 : 0);
      EXPECT_EQ(accepted ? one->error() : ERROR_GATEWAY_STOPPING, ERROR_GATEWAY_STOPPING);
    }
  }
}

}  // namespace
}  // namespace qn::devicebus::test
