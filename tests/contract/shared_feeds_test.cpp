// What the alarm bus may expect of its feeds, whether each comes from its device or from the
// gateway that holds it: the same test on both. And what only several gateways can suffer. On a
// real server.
#include "gateway/cluster/shared_feeds.h"

#include <list>
#include <map>

#include "tests/contract/engines.h"

namespace qn {
namespace {

using namespace std::chrono_literals;
using Alarms = std::vector<std::string>;

constexpr auto kLease = 600ms;

// One device with the streams that gateways have to it.
class TestDevice {
 public:
  class Stream final : public AlarmFeed {
   public:
    Stream(TestDevice& device, AlarmSink sink) : device_(device), sink_(std::move(sink)) {}
    void stop() override { device_.close(this); }
    void bring(const std::string& alarm) const { sink_(alarm); }

   private:
    TestDevice& device_;
    const AlarmSink sink_;
  };

  std::shared_ptr<Stream> open(AlarmSink sink) {
    const std::lock_guard lock(mutex_);
    return streams_.emplace_back(std::make_shared<Stream>(*this, std::move(sink)));
  }
  void close(const Stream* stream) {
    const std::lock_guard lock(mutex_);
    std::erase_if(streams_, [&](const auto& each) { return each.get() == stream; });
  }
  // On all of its streams, the oldest first, or on those from there on that are asked for.
  void raise(const std::string& alarm, std::size_t first = 0, std::size_t most = 100) {
    std::vector<std::shared_ptr<Stream>> to;
    {
      const std::lock_guard lock(mutex_);
      to = streams_;
    }
    const std::size_t end = std::min(to.size(), first + most);
    for (std::size_t i = first; i < end; ++i) to[i]->bring(alarm);
  }
  // On one of them, the oldest first.
  void raiseOn(std::size_t stream, const std::string& alarm) {
    std::unique_lock lock(mutex_);
    if (stream >= streams_.size()) return;
    const auto to = streams_[stream];
    lock.unlock();
    to->bring(alarm);
  }
  std::size_t streams() {
    const std::lock_guard lock(mutex_);
    return streams_.size();
  }

 private:
  std::mutex mutex_;
  std::vector<std::shared_ptr<Stream>> streams_;
};

class OpensDevice final : public FeedOpener {
 public:
  explicit OpensDevice(TestDevice& device) : device_(device) {}
  std::shared_ptr<AlarmFeed> open(const DeviceConfig&, AlarmSink sink) override {
    return device_.open(std::move(sink));
  }

 private:
  TestDevice& device_;
};

// The clients of one gateway.
class Clients {
 public:
  AlarmSink sink() {
    return [this](const std::string& alarm) {
      const std::lock_guard lock(mutex_);
      alarms_.push_back(alarm);
    };
  }
  Alarms alarms() {
    const std::lock_guard lock(mutex_);
    return alarms_;
  }
  bool have(const std::string& alarm) {
    const Alarms all = alarms();
    return std::ranges::find(all, alarm) != all.end();
  }
  // Each is greater than the one before, so none came twice or late.
  bool isAscending() {
    const Alarms all = alarms();
    return std::ranges::adjacent_find(all, std::greater_equal<>()) == all.end();
  }

 private:
  std::mutex mutex_;
  Alarms alarms_;
};

DeviceConfig configured() {
  DeviceConfig device;
  device.index = "7";
  return device;
}

std::string numbered(int number) { return std::to_string(1'000'000 + number); }

void expectFeeds(FeedOpener& opener, TestDevice& device) {
  Clients clients;
  const auto feed = opener.open(configured(), clients.sink());
  ASSERT_TRUE(eventually([&] { return device.streams() == 1; }));
  Alarms sent;
  for (int i = 0; i < 100; ++i) {
    sent.push_back(numbered(i));
    device.raise(sent.back());
  }
  EXPECT_EQ(clients.alarms(), sent);
  feed->stop();
  EXPECT_TRUE(eventually([&] { return device.streams() == 0; }));
  device.raise("late");
  EXPECT_FALSE(clients.have("late"));
}

TEST(FeedsOfOneGateway, KeepTheContract) {
  TestDevice device;
  OpensDevice opener(device);
  expectFeeds(opener, device);
}

// A gateway with clients of the device.
struct Member {
  Member(uint16_t port, TestDevice& device, const std::string& name,
         std::chrono::milliseconds lease = kLease)
      : redis({"127.0.0.1", port, "", "", 0}, "alone"),
        devices(device),
        feeds(redis, devices, "qn:0:", name, lease) {
    redis.start();
    EXPECT_TRUE(eventually([&] { return redis.isConnected(); }));
  }
  ~Member() { die(); }
  void watch() { feed = feeds.open(configured(), clients.sink()); }
  // The server sees no more of it, and the device's stream breaks.
  void die() {
    redis.stop();
    feeds.stop();
  }

  Clients clients;
  RedisClient redis;
  OpensDevice devices;
  SharedFeeds feeds;
  std::shared_ptr<AlarmFeed> feed;
};

class SharedFeedsTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!TestRedis::isInstalled()) GTEST_SKIP() << "redis-server is not installed";
    server_ = std::make_unique<TestRedis>();
    asking_ = std::make_unique<RedisClient>(RedisAddress{"127.0.0.1", server_->port(), "", "", 0},
                                            "no answers");
    asking_->start();
  }
  // What a gateway has sent before is done, and it has taken the answers.
  static void settle(RedisClient& redis) {
    Events answered;
    EXPECT_TRUE(redis.send({"PING"}, [&](const RedisAnswer*) { answered.signal(); }));
    EXPECT_TRUE(answered.wait());
  }
  std::string ask(std::initializer_list<std::string_view> words) {
    Events answered;
    std::string text;
    EXPECT_TRUE(eventually([&] {
      return asking_->send(words, [&](const RedisAnswer* answer) {
        if (answer) text = answer->texts[0];
        answered.signal();
      });
    }));
    EXPECT_TRUE(answered.wait());
    return text;
  }
  // Who has the lease, and its number; empty when it is free.
  std::string lease() { return ask({"GET", "qn:0:feed:7"}); }
  Member& join(const std::string& name, std::chrono::milliseconds lease = kLease) {
    return members_.emplace_back(server_->port(), device_, name, lease);
  }
  Member* member(int i) { return &*std::next(members_.begin(), i); }
  // The first one holds the feed.
  void joinAll(int count) {
    for (int i = 0; i < count; ++i) {
      Member& member = join("gateway" + std::to_string(i));
      member.watch();
      ASSERT_TRUE(eventually([&] { return device_.streams() == 1; }));
      ASSERT_TRUE(flows(member));
    }
  }
  // Whose further alarms are published.
  Member* holderOf(std::initializer_list<Member*> members) {
    std::map<Member*, uint64_t> before;
    for (Member* each : members) before[each] = each->feeds.counts().published.value();
    Member* holder = nullptr;
    EXPECT_TRUE(eventually([&] {
      device_.raise(numbered(next_++));
      for (const auto& [each, count] : before) {
        if (each->feeds.counts().published.value() > count) holder = each;
      }
      return holder != nullptr;
    }));
    return holder;
  }
  // And another one takes it, unless the holder asks for it again first.
  void forgetTheLease() {
    ASSERT_TRUE(eventually([&] {
      member(0)->redis.send({"FLUSHALL"});
      member(0)->redis.send({"PUBLISH", "qn:0:alarms:7", "free"});  // those who read claim it
      return eventually([&] { return device_.streams() == 2; }, 2s);
    }));
  }
  // Raises alarms until one comes.
  bool flows(Member& member) {
    return eventually([&] {
      const std::string alarm = numbered(next_++);
      device_.raise(alarm);
      return eventually([&] { return member.clients.have(alarm); }, 50ms);
    });
  }
  static bool eventually(const std::function<bool()>& holds,
                         std::chrono::milliseconds patience = 20s) {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!holds()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(2ms);
    }
    return true;
  }
  // Further alarms, which all of these clients get, in their order.
  void expectAll(std::initializer_list<Member*> members, int count) {
    Alarms sent;
    for (int i = 0; i < count; ++i) sent.push_back(numbered(next_++));
    for (const std::string& alarm : sent) device_.raise(alarm);
    for (Member* member : members) {
      EXPECT_TRUE(eventually([&] { return member->clients.have(sent.back()); }));
      const Alarms all = member->clients.alarms();
      EXPECT_TRUE(std::ranges::includes(all, sent)) << member->feeds.counts().missed.value();
      EXPECT_TRUE(member->clients.isAscending());
    }
  }

  int next_ = 0;
  TestDevice device_;
  std::unique_ptr<TestRedis> server_;
  std::unique_ptr<RedisClient> asking_;
  std::list<Member> members_;
};

TEST_F(SharedFeedsTest, KeepTheContract) {
  Member& member = join("one");
  expectFeeds(member.feeds, device_);
  EXPECT_EQ(member.feeds.counts().published.value(), 0u) << "nobody else wants them";
}

TEST_F(SharedFeedsTest, OneStreamServesTheClientsOfAllGateways) {
  joinAll(3);
  expectAll({member(0), member(1), member(2)}, 2000);
  EXPECT_EQ(device_.streams(), 1u);
}

TEST_F(SharedFeedsTest, AnotherTakesOverWhenTheHolderIsGoneOrLetsGo) {
  joinAll(4);
  member(0)->die();
  ASSERT_EQ(device_.streams(), 0u);
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_TRUE(eventually([&] { return device_.streams() == 1; }));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kLease + 3s);
  expectAll({member(1), member(2), member(3)}, 200);
  for (int i = 1; i < 4; ++i) {
    if (member(i)->feeds.counts().published.value() == 0) continue;
    member(i)->feed->stop();
    ASSERT_TRUE(eventually([&] { return device_.streams() == 1 && flows(*member(i % 3 + 1)); }));
    break;
  }
}

// As one that was stopped by its machine: it wakes up with alarms at hand and a lease that is over,
// and perhaps with an answer that says it is not.
TEST_F(SharedFeedsTest, AHolderThatSleptPublishesNothingUnderItsOldNumber) {
  joinAll(3);
  for (const bool hasAnswer : {false, true}) {
    Member* const holder = holderOf({member(0), member(1), member(2)});
    Events asleep, wake;
    const auto sleep = [&] {
      asleep.signal();
      wake.wait();
    };
    if (hasAnswer) {
      server_->process().pause();
      holder->redis.send({"PING"}, [&](const RedisAnswer*) { sleep(); });
      std::this_thread::sleep_for(kLease / 2);  // a claim is sent meanwhile, and answered behind it
      server_->process().resume();
    } else {
      holder->redis.post(sleep);
    }
    ASSERT_TRUE(asleep.wait());
    ASSERT_TRUE(eventually([&] { return device_.streams() == 2; })) << "another one holds it";
    const auto before = holder->feeds.counts().published.value();
    for (int i = 0; i < 50; ++i) device_.raise(numbered(next_++));
    wake.signal();
    ASSERT_TRUE(eventually([&] { return device_.streams() == 1; }));
    EXPECT_EQ(holder->feeds.counts().published.value(), before);
    expectAll({member(0), member(1), member(2)}, 200);
  }
}

// One that reads, or wants the device only now, and takes the lease while others cannot say that
// they read: they miss nothing of it, and it nothing of the former holder's.
TEST_F(SharedFeedsTest, WhoTakesOverGoesOnWhereTheFormerHolderHasEnded) {
  for (const bool reads : {true, false}) {
    members_.clear();
    joinAll(3);
    Member* const holder = holderOf({member(0), member(1), member(2)});
    std::vector<Member*> others;
    for (Member& each : members_) {
      if (&each != holder) others.push_back(&each);
    }
    Events asleep, wakeFirst, wakeSecond;
    const auto sleep = [&](Events& wake) {
      return [&] {
        asleep.signal();
        wake.wait();
      };
    };
    others[0]->redis.post(sleep(wakeFirst));
    others[1]->redis.post(sleep(wakeSecond));
    ASSERT_TRUE(asleep.wait(2));
    Alarms sent;
    const auto raise = [&](int count) {
      for (int i = 0; i < count; ++i) sent.push_back(numbered(next_++));
      for (int i = count; i > 0; --i) device_.raise(sent[sent.size() - std::size_t(i)]);
    };
    raise(900);
    settle(holder->redis);
    holder->die();
    ASSERT_EQ(device_.streams(), 0u);
    ASSERT_TRUE(eventually([&] { return lease().empty(); }));
    if (!reads) join("another").watch();
    if (reads) wakeFirst.signal();
    ASSERT_TRUE(eventually([&] { return device_.streams() == 1; }));
    raise(5);
    wakeFirst.signal();
    wakeSecond.signal();
    for (Member* each : others) {
      EXPECT_TRUE(eventually([&] { return each->clients.have(sent.back()); })) << reads;
      EXPECT_TRUE(std::ranges::includes(each->clients.alarms(), sent)) << reads;
      EXPECT_TRUE(each->clients.isAscending());
    }
  }
}

// A client that comes and goes at once; a lease would keep others from the device until it ends.
TEST_F(SharedFeedsTest, NoLeaseStaysBehind) {
  Member& member = join("one", 60s);
  server_->process().pause();
  member.watch();
  member.feed->stop();
  server_->process().resume();
  join("two", 60s).watch();
  ASSERT_TRUE(eventually([&] { return device_.streams() == 1; }));
  members_.back().feed->stop();
  members_.back().die();  // at once
  join("three").watch();
  ASSERT_TRUE(eventually([&] { return device_.streams() == 1; }));
}

// The server's clock was set back meanwhile.
TEST_F(SharedFeedsTest, NumbersGrowForAsLongAsTheFeedIsHeld) {
  Member& first = join("first");
  ASSERT_TRUE(first.redis.send({"SET", "qn:0:number:7", "9999999999999", "PX", "60000"}));
  joinAll(2);
  first.watch();
  ASSERT_TRUE(flows(first));
  ASSERT_TRUE(first.redis.send({"PEXPIRE", "qn:0:number:7", std::to_string(kLease.count())}));
  expectAll({member(0), member(1), member(2)}, 50);
  std::this_thread::sleep_for(2 * kLease);  // claims come in between
  Member* const holder = holderOf({member(0), member(1), member(2)});
  holder->die();
  for (Member& each : members_) {
    EXPECT_TRUE(&each == holder || flows(each));
  }
}

// A holder lets go while two sources are compared, and the device's own one is the slower one.
TEST_F(SharedFeedsTest, NoAlarmComesTwiceWhenTheLeaseComesWhileItsOwnStreamEnds) {
  joinAll(2);
  server_->stop();
  ASSERT_TRUE(eventually([&] { return device_.streams() == 2; }));
  server_->start();
  Member* const holder = holderOf({member(0), member(1)});
  Member* const leaving = member(holder == member(0) ? 1 : 0);
  const std::size_t ofHolder = holder == member(0) ? 0 : 1;
  const Counter& received = leaving->feeds.counts().received;
  uint64_t before = received.value();
  ASSERT_TRUE(eventually([&] {
    device_.raise(numbered(next_++));
    return received.value() > before;
  }));
  if (device_.streams() != 2) GTEST_SKIP() << "the machine was too slow";
  before = received.value();
  const std::string alarm = numbered(next_++);
  device_.raise(alarm, ofHolder, 1);
  ASSERT_TRUE(eventually([&] { return received.value() > before; }));
  holder->feed->stop();
  ASSERT_TRUE(
      eventually([&] { return lease().starts_with(ofHolder == 0 ? "gateway1" : "gateway0"); }));
  settle(leaving->redis);
  device_.raise(alarm);
  device_.raise(numbered(next_++));
  EXPECT_TRUE(leaving->clients.have(alarm));
  EXPECT_TRUE(leaving->clients.isAscending());
}

// As when the server is emptied, or another one takes its place.
TEST_F(SharedFeedsTest, AHolderWhoseLeaseIsForgottenBringsAllAlarmsOnceWhenAnotherTakesIt) {
  joinAll(3);
  for (int round = 0; round < 3; ++round) {
    forgetTheLease();
    expectAll({member(0), member(1), member(2)}, 50);
    ASSERT_TRUE(eventually([&] {
      device_.raise(numbered(next_++));
      return device_.streams() == 1;
    }));
  }
}

// The new holder's stream begins between two alarms, and the own one is slow.
TEST_F(SharedFeedsTest, WhoseOwnStreamIsBehindThatOfTheNextHolderKeepsTheOrder) {
  joinAll(3);
  bool wasLeaving = false;
  for (int round = 0; round < 20 && !wasLeaving; ++round) {
    Member* const holder = holderOf({member(0), member(1), member(2)});
    const auto received = [&] { return holder->feeds.counts().received.value(); };
    auto before = received();
    forgetTheLease();
    ASSERT_TRUE(eventually([&] {
      device_.raise(numbered(next_++));
      return received() > before;
    }));
    before = received();
    const std::string first = numbered(next_++), second = numbered(next_++);
    device_.raiseOn(1, second);
    ASSERT_TRUE(eventually([&] { return received() > before; }));
    device_.raiseOn(0, first);
    device_.raiseOn(0, second);
    wasLeaving = device_.streams() == 2;  // and not too slow for that
    EXPECT_TRUE(!wasLeaving || holder->clients.have(first));
    ASSERT_TRUE(eventually([&] {
      device_.raise(numbered(next_++));
      return device_.streams() == 1 && holder->clients.have(second);
    }));
    EXPECT_TRUE(holder->clients.isAscending());
  }
  EXPECT_TRUE(wasLeaving);
}

TEST_F(SharedFeedsTest, CountsWhatBecomesOfAlarms) {
  joinAll(2);
  expectAll({member(0), member(1)}, 100);
  const SharedFeedCounts &holder = member(0)->feeds.counts(), &reader = member(1)->feeds.counts();
  EXPECT_GE(holder.published.value(), 100u);
  EXPECT_GE(reader.received.value() + reader.filled.value(), 100u);
  EXPECT_EQ(holder.refused.value() + reader.missed.value(), 0u);
  const auto tell = [&](std::initializer_list<std::string_view> words) {
    EXPECT_TRUE(member(0)->redis.send(words));
  };
  tell({"SET", "qn:0:feed:7", "another 9999999999999", "PX", "60000"});
  EXPECT_TRUE(eventually([&] {
    device_.raise(numbered(next_++));
    return holder.refused.value() > 0;
  }));
  ASSERT_TRUE(eventually([&] {  // once it listens; what comes again is old
    tell({"PUBLISH", "qn:0:alarms:7", "9999999999999-1 the other's flow"});
    return eventually([&] { return device_.streams() == 0; }, 100ms);
  })) << "it reads from now on";
  // A server that refuses to show what is missing is asked again.
  tell({"SET", "qn:0:alarms:7", "no stream"});
  tell({"PUBLISH", "qn:0:alarms:7", "9999999999999-3 after a gap"});
  ASSERT_TRUE(eventually([&] {
    const std::string all = ask({"INFO", "commandstats"}), name = "failed_calls=";
    const std::size_t ranges = all.find("cmdstat_xrange:");
    return ranges != all.npos && all[all.find(name, ranges) + name.size()] != '0';
  }));
  tell({"DEL", "qn:0:alarms:7"});
  const struct {
    std::string_view stored, message;
    const Counter& counter;
    uint64_t more;
  } rows[] = {{"", "9999999999999-5 ", reader.missed, 3},
              {"9999999999999-6", "9999999999999-6 ", reader.filled, 1},
              {"", "9999999999999-7 alarm", reader.received, 1}};
  for (const auto& [stored, message, counter, more] : rows) {
    const uint64_t before = counter.value();
    if (!stored.empty()) tell({"XADD", "qn:0:alarms:7", stored, "alarm", "text"});
    tell({"PUBLISH", "qn:0:alarms:7", message});
    EXPECT_TRUE(eventually([&] { return counter.value() != before; })) << message;
    EXPECT_EQ(counter.value(), before + more) << message;
  }
  EXPECT_TRUE(member(1)->clients.have("after a gap"));
  EXPECT_TRUE(member(1)->clients.have("alarm"));
}

TEST_F(SharedFeedsTest, WithoutTheServerEachHasItsOwnStreamAndNoAlarmComesTwiceAfterIt) {
  joinAll(3);
  for (int round = 0; round < 3; ++round) {
    server_->stop();
    ASSERT_TRUE(eventually([&] { return device_.streams() == 3; }));
    expectAll({member(0), member(1), member(2)}, 50);
    server_->start();
    ASSERT_TRUE(eventually([&] {
      device_.raise(numbered(next_++));
      return device_.streams() == 1;
    }));
    expectAll({member(0), member(1), member(2)}, 50);
  }
}

}  // namespace
}  // namespace qn
