// What platform/device_cfg_bus.h promises, against scripted devices on loopback.

#include <future>

#include "gateway/devicebus/device_url.h"
#include "gateway/devices/device.h"
#include "gateway/log/request_id.h"
#include "gateway/net/asker.h"
#include "tests/contract/bus_fixture.h"

namespace qn::devicebus::test {
namespace {

using std::chrono::seconds;
using namespace std::string_literals;

constexpr unsigned int ERROR_RESOURCE_NOT_FOUND = 0x40000006;
constexpr milliseconds kShort{300};

TEST(DeviceUrl, TheLastDevIndexNamesTheDevice) {
  const std::pair<const char*, const char*> cases[] = {
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
  for (const auto& [url, device] : cases) EXPECT_EQ(namedDevice(url), device) << url;
}

TEST(DeviceUrl, NoSpellingLeadsOutOfTheDevicesPathOrHidesTheDevIndex) {
  for (const char* path :
       {"/a/../b", "/a/..", "/a/%2e%2E/b", "/a/.%2e/b", "/a/..%2fb", "/a%2F../b", "/a/..\\b",
        "/a%5c..%5cb", "/a/..;x/b", "/a/..%00/b", "/a?x=1#", "/a#b"}) {
    EXPECT_FALSE(isRequestTarget(path)) << path;
  }
  for (const char* path :
       {"/a/..b/c", "/a/b../c", "/a/.../c", "/a/1.5/%20", "/a/./b", "/a?file=../b"}) {
    EXPECT_TRUE(isRequestTarget(path)) << path;
  }
}

TEST(Circuit, OpensAfterThreeFailuresAndLetsOneProbeThroughEachSecond) {
  testing::internal::CaptureStderr();
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
  std::istringstream log(testing::internal::GetCapturedStderr());
  const std::string opened = "device 1 does not answer: probing it from now on";
  for (const auto& line : {opened, std::string("device 1 answers again"), std::string()}) {
    std::string found;
    std::getline(log, found);
    EXPECT_TRUE(found.ends_with(line) && found.empty() == line.empty()) << found;
  }
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
  const std::tuple<unsigned char, const char*, std::string> cases[] = {
      {GET, "", "GET" + target + "   "},
      {PUT, " {}", "PUT" + target + " application/json 3  {}"},
      {POST, "[1]", "POST" + target + " application/json 3 [1]"},
      {PUT, "<a/>", "PUT" + target + " application/xml 4 <a/>"},
      {PUT, "a", "PUT" + target + " application/octet-stream 1 a"},
      {POST, "", "POST" + target + "  0 "},
      {DELETE, "", "DELETE" + target + "   "},
      {PATCH, "{}", "PATCH" + target + " application/json 2 {}"},
  };
  for (const auto& [method, body, seen] : cases) {
    EXPECT_EQ(send("1", seconds(20), method, body)->text(), seen);
  }
}

TEST_F(DeviceBusTest, TheClientsRequestIsNamedToTheDevice) {
  ScriptedDevice device(ScriptedDevice::answering(
      [](const DeviceRequest& request) { return jsonReply(request.field("X-Request-Id")); }));
  addDevice("1", device.port());
  EXPECT_EQ(send("1")->text(), "");
  {
    const RequestIdScope scope("id-1");
    EXPECT_EQ(send("1")->text(), "id-1");
  }
  EXPECT_EQ(device.connections(), 1);
}

TEST_F(DeviceBusTest, RefusesWhatItCannotSend) {
  addDevice("1", 1);
  const auto refusal = [](const std::string& url, unsigned char method = GET) {
    return Sent(method, url, "", seconds(1)).refusal();
  };
  for (const char* target : {"/a?devIndex=9", "/a?devIndex=1&devIndex=9", "/a"}) {
    EXPECT_EQ(refusal(target), DEVCFGBUS_UNKNOWN_DEVICE) << target;
  }
  for (const std::string& target :
       {"/a b?devIndex=1"s, "/a\r\nX:y?devIndex=1"s, "/a\0?devIndex=1"s, "a?devIndex=1"s,
        "/a/../b?devIndex=1"s, "/a?devIndex=2#&devIndex=1"s, ""s}) {
    EXPECT_EQ(refusal(target), DEVCFGBUS_BAD_ARGUMENT) << target;
  }
  EXPECT_EQ(refusal(url("1"), 7), DEVCFGBUS_BAD_ARGUMENT);
}

TEST_F(DeviceBusTest, TenMegabytesGoBothWaysAndAreTranslatedOffTheReactor) {
  ScriptedDevice device(ScriptedDevice::answering(
      [](const DeviceRequest& request) { return jsonReply(request.body); }));
  addDevice("1", device.port());
  std::string body;
  while (body.size() < 10 * 1024 * 1024) body += std::to_string(body.size()) + ' ';
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
  ScriptedDevice device(ScriptedDevice::answering([](const auto&) { return jsonReply("{}"); }));
  addDevice("1", 1);
  EXPECT_EQ(send("1")->error(), ERROR_DEVICE_UNREACHABLE);
  const auto at = [&](const std::string& host) {
    configuration_.devices[0].host = host;
    configuration_.devices[0].port = device.port();
    publish();
    return send("1")->text();
  };
  EXPECT_EQ(errorCode(at("name.invalid")), ERROR_DEVICE_UNREACHABLE);
  EXPECT_EQ(at("localhost"), "{}");
}

// A device that answers nothing until the test opens it.
struct ClosedDevice {
  std::latch opened{1};
  std::atomic<int> asked{0};
  ScriptedDevice device{[this](Peer& peer) {
    while (peer.read()) {
      ++asked;
      opened.wait();
      peer.write(jsonReply("{}"));
    }
  }};
};

TEST_F(DeviceBusTest, TimeOutCountsFromTheCallAndEndsSlowReplies) {
  ClosedDevice closed;
  ScriptedDevice trickling([](Peer& peer) {
    peer.read();
    peer.write(kHead + "Content-Length: 10\r\n\r\n{");
    peer.waitForClose();
  });
  configuration_.bus.deviceConnections = 1;
  addDevice("1", closed.device.port());
  addDevice("2", trickling.port());
  const auto first = send("1");
  for (const auto& sent : sendMany(2, "1", kShort)) EXPECT_EQ(sent->error(), ERROR_DEVICE_TIMEOUT);
  EXPECT_EQ(closed.device.connections(), 1) << "they ended in the queue";
  closed.opened.count_down();
  EXPECT_EQ(first->text(), "{}");
  EXPECT_EQ(closed.asked, 1);
  EXPECT_EQ(send("2", kShort)->error(), ERROR_DEVICE_TIMEOUT);
}

TEST_F(DeviceBusTest, HangingDeviceDelaysNoOtherAndHoldsABoundedNumber) {
  ClosedDevice hanging;
  ScriptedDevice good(ScriptedDevice::answering([](const auto&) { return jsonReply("{}"); }));
  configuration_.bus.deviceConnections = 2;
  configuration_.bus.deviceQueue = 3;
  addDevice("1", hanging.device.port());
  addDevice("2", good.port());
  const auto waiting = sendMany(5, "1");
  EXPECT_EQ(send("1")->refusal(), DEVCFGBUS_QUEUE_FULL);
  EXPECT_EQ(send("2")->text(), "{}");
  EXPECT_TRUE(eventually([&] { return hanging.asked == 2; }));
  hanging.opened.count_down();
  for (const auto& sent : waiting) EXPECT_EQ(sent->text(), "{}");
  EXPECT_EQ(hanging.device.connections(), 2);
}

TEST_F(DeviceBusTest, AHandshakeEndsWithItsRequestAndWhatIsNoTlsIsNoDevice) {
  ScriptedDevice silent(ScriptedDevice::hanging());
  ScriptedDevice plain([](Peer& peer) {
    peer.write("HTTP/1.1 400 Bad Request\r\n\r\n");
    peer.waitForClose();
  });
  addDevice("1", silent.port());
  addDevice("2", plain.port());
  for (DeviceConfig& device : configuration_.devices) device.tls = true;
  publish();
  const auto hanging = send("1", milliseconds(300));
  EXPECT_EQ(send("2")->error(), ERROR_DEVICE_UNREACHABLE);
  EXPECT_EQ(hanging->error(), ERROR_DEVICE_TIMEOUT);
}

TEST_F(DeviceBusTest, WhatWaitsIsBoundedInBytesForEachDeviceAndInAll) {
  ClosedDevice closed;
  configuration_.bus.deviceBytes = 250'000;
  configuration_.bus.bytes = 450'000;
  for (const char* index : {"1", "2", "3"}) addDevice(index, closed.device.port());
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
  closed.opened.count_down();
  const std::string large(1'000'000, ' ');
  EXPECT_TRUE(eventually([&] { return refusalOf("3", large) == DEVCFGBUS_OK; }))
      << "all is given back, and what alone is over the bounds goes when nothing else waits";
  for (const auto& sent : waiting) {
    if (sent->refusal() == DEVCFGBUS_OK) {
      EXPECT_EQ(sent->text(), "{}");
    }
  }
}

// Says what the request's body asks for: a length to announce, how many bytes to send, and how.
ScriptedDevice::Script talkative(Events& written) {
  return [&written](Peer& peer) {
    while (const auto request = peer.read()) {
      std::size_t announced = 0;
      std::size_t sent = 0;
      char how = ' ';
      std::sscanf(request->body.c_str(), "%zu %zu %c", &announced, &sent, &how);
      const std::string body(sent, how);
      peer.write(how == 'u'
                     ? kHead + "\r\n" + body
                     : kHead + "Content-Length: " + std::to_string(announced) + "\r\n\r\n" + body);
      written.signal();
      if (how == 'u') return;
    }
  };
}

TEST_F(DeviceBusTest, LongRepliesWaitForRoomAndShortOnesDoNot) {
  Events written;
  Events ignored;
  ScriptedDevice one(talkative(written));
  ScriptedDevice other(talkative(ignored));
  configuration_.bus.replyMemory = 3'600'000;  // one reply of 300,000 bytes, or three of 100,000
  addDevice("1", one.port());
  addDevice("2", other.port());
  const auto ask = [](const char* device, const char* reply, milliseconds timeout = seconds(20)) {
    return send(device, timeout, PUT, reply);
  };
  const auto hanging = ask("1", "290000 10", milliseconds(2500));
  ASSERT_TRUE(written.wait());
  EXPECT_EQ(ask("1", "9 9")->text().size(), 9u);
  const auto refused = ask("2", "100000 100000", milliseconds(1200));
  const auto waiting = ask("2", "100000 100000");
  const auto large = ask("2", "900000 900000");
  EXPECT_EQ(ask("2", "60000 60000")->text().size(), 60000u);
  EXPECT_EQ(ask("2", "0 200000 u")->error(), ERROR_TOO_MANY_REQUESTS) << "it cannot wait";
  EXPECT_EQ(refused->error(), ERROR_TOO_MANY_REQUESTS);
  EXPECT_EQ(waiting->calls() + large->calls() + hanging->calls(), 0);
  EXPECT_EQ(hanging->error(), ERROR_DEVICE_TIMEOUT);
  EXPECT_EQ(waiting->text().size(), 100000u);
  EXPECT_EQ(large->text().size(), 900000u) << "alone it may be over the bound";
  EXPECT_TRUE(eventually([&] { return ask("2", "0 100000 u")->text().size() == 100000; }))
      << "what a reply held is given back when its answer is taken";

  const auto ownPart = ask("1", "100000 10", milliseconds(2500));  // half of all is one device's
  ASSERT_TRUE(written.wait(3));
  const auto beyond = ask("1", "100000 100000");
  EXPECT_EQ(ask("2", "100000 100000")->text().size(), 100000u);
  EXPECT_EQ(beyond->calls(), 0);
  EXPECT_EQ(ownPart->error(), ERROR_DEVICE_TIMEOUT);
  EXPECT_EQ(beyond->text().size(), 100000u);
  EXPECT_EQ(hanging->calls() + waiting->calls() + large->calls() + beyond->calls(), 4);
}

struct SomebodyAsking : Asker {
  bool isGone() const override { return gone; }
  void waited(std::chrono::nanoseconds time) const override { waitedFor = time; }
  std::atomic<bool> gone{false};
  mutable std::atomic<std::chrono::nanoseconds> waitedFor{};
};

TEST_F(DeviceBusTest, RequestWhoseClientHasGoneLeavesTheQueue) {
  ClosedDevice closed;
  configuration_.bus.deviceConnections = 1;
  addDevice("1", closed.device.port());
  const auto inFlight = send("1");
  const auto gone = std::make_shared<SomebodyAsking>();
  const auto there = std::make_shared<SomebodyAsking>();
  auto forgotten = std::make_shared<SomebodyAsking>();
  std::vector<SentPtr> waiting;
  for (const auto& asker : {there, gone, forgotten}) {
    const AskerScope scope(asker);
    waiting.push_back(send("1", seconds(20), PUT, "{}"));
  }
  waiting.push_back(send("1", seconds(20), PUT, "{}"));
  gone->gone = true;
  forgotten.reset();
  EXPECT_NE(waiting[1]->error(), 0u) << "answered, for the record's sake, before it was sent";
  EXPECT_NE(waiting[2]->error(), 0u);
  closed.opened.count_down();
  EXPECT_EQ(inFlight->text(), "{}");
  EXPECT_EQ(waiting[0]->text(), "{}");
  EXPECT_EQ(waiting[3]->text(), "{}") << "of nobody in particular";
  EXPECT_GT(there->waitedFor.load().count(), 0) << "told how long the device took";
  EXPECT_EQ(closed.asked, 3);
}

TEST_F(DeviceBusTest, DeadDeviceIsProbedAndComesBack) {
  std::atomic<bool> alive{false};
  std::atomic<int> asked{0};
  ScriptedDevice device([&](Peer& peer) {
    while (peer.read()) {
      ++asked;
      if (alive) peer.write(jsonReply("{}"));
    }
  });
  addDevice("1", device.port());
  for (const auto& sent : sendMany(3, "1", kShort)) EXPECT_EQ(sent->error(), ERROR_DEVICE_TIMEOUT);
  int sent = 3;  // and a probe each second
  EXPECT_TRUE(eventually([&] {
    const bool notSent = send("1", kShort)->error() == ERROR_DEVICE_UNREACHABLE;
    sent += notSent ? 0 : 1;
    return notSent;
  }));
  EXPECT_LE(asked, sent) << "failed without being sent";
  alive = true;
  EXPECT_TRUE(eventually([] { return send("1")->text() == "{}"; }));
  for (const auto& each : sendMany(3, "1")) EXPECT_EQ(each->text(), "{}");
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
  ClosedDevice before;
  ScriptedDevice after(
      ScriptedDevice::answering([](const auto&) { return jsonReply("\"after\""); }));
  configuration_.bus.deviceConnections = 1;
  addDevice("1", before.device.port());
  const auto inFlight = send("1");
  ASSERT_TRUE(eventually([&] { return before.asked == 1; }));
  const auto waiting = send("1");
  configuration_.devices[0].port = after.port();
  publish();
  EXPECT_EQ(send("1")->text(), "\"after\"");
  EXPECT_EQ(waiting->text(), "\"after\"");
  configuration_.devices.clear();
  publish();
  EXPECT_EQ(send("1")->refusal(), DEVCFGBUS_UNKNOWN_DEVICE);
  EXPECT_EQ(inFlight->calls(), 0);
  before.opened.count_down();
  EXPECT_EQ(inFlight->text(), "{}");
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
  ClosedDevice hanging;
  addDevice("1", hanging.device.port());
  std::atomic<std::size_t> answered{0};
  std::atomic<std::size_t> refused{0};
  std::vector<std::jthread> threads;
  for (std::size_t i = 0; i < DeviceBus::kAwaited + 3; ++i) {
    threads.emplace_back([&] {
      std::string reply;
      const int result = QN_DeviceCfgBus_ProcessSyn(GET, url("1"), "", reply, 20000);
      ++(result == DEVCFGBUS_QUEUE_FULL ? refused : answered);
    });
  }
  EXPECT_TRUE(eventually([&] { return refused == 3; }));
  EXPECT_EQ(answered, 0u);
  hanging.opened.count_down();
  threads.clear();
  EXPECT_EQ(answered, DeviceBus::kAwaited);
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

TEST_F(ConcurrentBusTest, LongRepliesHoldNoMoreThanTheirBudgetAndAllAreRead) {
  constexpr std::size_t kReply = 100'000;
  configuration_.bus.replyMemory = 5 * kReply * ReplyBudget::kFactor;
  const std::string long_(kReply, ' ');
  ScriptedDevice device(ScriptedDevice::answering([&](const auto&) { return jsonReply(long_); }));
  for (const char* index : {"1", "2", "3"}) addDevice(index, device.port());
  std::vector<SentPtr> all(60);
  onThreads(4, [&](int thread) {
    for (std::size_t i = static_cast<std::size_t>(thread); i < all.size(); i += 4) {
      all[i] = send(std::to_string(i % 3 + 1));
    }
  });
  std::size_t most = 0;
  for (const auto& sent : all) {
    while (sent->calls() == 0) most = std::max(most, bus_.replyMemory());
    EXPECT_EQ(sent->text(), long_);
  }
  EXPECT_GT(most, 0u);
  EXPECT_LE(most, configuration_.bus.replyMemory);
  EXPECT_TRUE(eventually([&] { return bus_.replyMemory() == 0; }));
  for (const auto& sent : all) EXPECT_EQ(sent->calls(), 1);
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
