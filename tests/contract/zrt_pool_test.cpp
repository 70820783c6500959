// What platform/zrt.h promises of the flexible pool.
#include <pthread.h>

#include <cerrno>

#include "tests/contract/flex_pool.h"

namespace qn {
namespace {

using namespace std::chrono_literals;
TEST(FlexPool, StartsThreadsUpToTheMaximumAndNoMore) {
  constexpr int kThreads = 3;
  constexpr int kJobs = 12;
  Blocking blocking;
  Pool pool(kThreads);
  for (int i = 0; i < kJobs; ++i) EXPECT_EQ(pool.work(blocking.job), 0);
  EXPECT_TRUE(blocking.entered.wait(kThreads));
  EXPECT_FALSE(blocking.entered.wait(kThreads + 1, 20ms));
  blocking.opened.signal();
  EXPECT_EQ(pool.destroy(), 0);
  EXPECT_EQ(blocking.entered.count(), kJobs);
}

// Idle threads are woken sparingly, but jobs that block must not hold up those behind them.
TEST(FlexPool, BlockedJobsLeaveTheOthersToIdleThreads) {
  constexpr int kThreads = 6;
  Events quick;
  Blocking first, again;
  Job runs = [&] { quick.signal(); };
  Pool pool(kThreads);
  for (int i = 0; i < kThreads; ++i) EXPECT_EQ(pool.work(first.job), 0);
  ASSERT_TRUE(first.entered.wait(kThreads));
  first.opened.signal();  // from now on all threads idle
  for (int i = 1; i < kThreads; ++i) EXPECT_EQ(pool.work(again.job), 0);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(pool.work(runs), 0);
  EXPECT_TRUE(again.entered.wait(kThreads - 1));
  EXPECT_TRUE(quick.wait(100));
  again.opened.signal();
}

// Jobs that come just as threads give up waiting are not forgotten.
TEST(FlexPool, NoJobIsLostBetweenWaitingAndEnding) {
  for (const int idleMs : {0, 1}) {
    Events ran;
    Job job = [&] { ran.signal(); };
    Pool pool(3, idleMs);
    int expected = 0;
    for (int round = 0; round < 1500; ++round) {
      for (int i = 0; i <= round % 4; ++i, ++expected) ASSERT_EQ(pool.work(job), 0);
      ASSERT_TRUE(ran.wait(expected)) << round;
      if (round % 5 == 0) std::this_thread::sleep_for(idleMs * 1ms);
    }
  }
}

TEST(FlexPool, IdleThreadsEndAndComeBack) {
  static Events ended;
  struct AtThreadEnd {
    ~AtThreadEnd() { ended.signal(); }
  };
  Events entered;
  Job job = [&] {
    static thread_local AtThreadEnd atEnd;
    (void)atEnd;
    entered.signal();
  };
  Pool pool(1, 5);
  for (int round = 1; round <= 3; ++round) {
    ASSERT_EQ(pool.work(job), 0);
    ASSERT_TRUE(entered.wait(round));
    ASSERT_TRUE(ended.wait(round));
  }
}

TEST(FlexPool, WorkFailsQuietlyWhenTheQueueIsFull) {
  constexpr int kQueue = 65536;
  Blocking blocking;
  std::atomic<int> ran = 0;
  Job counting = [&] { ++ran; };
  Pool pool(1);
  ASSERT_EQ(pool.work(blocking.job), 0);
  ASSERT_TRUE(blocking.entered.wait());
  for (int i = 0; i < kQueue; ++i) ASSERT_EQ(pool.work(counting), 0) << i;
  EXPECT_EQ(pool.work(counting), -1);
  EXPECT_EQ(ZRT_GetLastError(), EAGAIN);
  blocking.opened.signal();
  EXPECT_EQ(pool.destroy(), 0);  // runs what is queued
  EXPECT_EQ(ran, kQueue);
}

TEST(FlexPool, AJobCannotDestroyItsOwnPool) {
  Pool pool(1);
  int result = 0;
  Job job = [&] { result = pool.destroy(); };
  ASSERT_EQ(pool.work(job), 0);
  EXPECT_EQ(pool.destroy(), 0);
  EXPECT_EQ(result, -1);
}

TEST(FlexPool, ThreadsHaveTheStackThatWasAskedFor) {
  for (const int asked : {1, 0x40000, 0x1000000}) {
    std::size_t actual = 0;
    Job job = [&] {
      pthread_attr_t attributes;
      ASSERT_EQ(pthread_getattr_np(pthread_self(), &attributes), 0);
      pthread_attr_getstacksize(&attributes, &actual);
      pthread_attr_destroy(&attributes);
    };
    Pool pool(1, kLongIdleMs, asked);
    ASSERT_EQ(pool.work(job), 0);
    pool.destroy();
    EXPECT_GE(actual, static_cast<std::size_t>(asked));
    EXPECT_LE(actual, static_cast<std::size_t>(asked) + 0x200000);  // the sanitizers' share
  }
}

TEST(FlexPool, AJobThatThrowsDoesNotEndTheThread) {
  bool ran = false;
  Job throwing = [] { throw std::runtime_error("expected by the test"); };
  Job next = [&] { ran = true; };
  Pool pool(1);
  ASSERT_EQ(pool.work(throwing), 0);
  ASSERT_EQ(pool.work(next), 0);
  pool.destroy();
  EXPECT_TRUE(ran);
}

TEST(FlexPool, EveryJobAcceptedDuringDestroyRunsOnce) {
  for (int round = 0; round < 20; ++round) {
    std::atomic<int> accepted = 0;
    std::atomic<int> ran = 0;
    Events started;
    Job job = [&] { ++ran; };
    Pool pool(2, round % 2);  // idle threads end at once, or nearly
    std::vector<std::thread> producers;
    for (int i = 0; i < 2; ++i) {
      producers.emplace_back([&] {
        for (int n = 0; n < 100000 && pool.work(job) == 0; ++n) {
          ++accepted;
          if (n == 50) started.signal();
        }
      });
    }
    EXPECT_TRUE(started.wait());
    EXPECT_EQ(pool.destroy(), 0);
    const int ranWhenDestroyed = ran;
    for (auto& producer : producers) producer.join();
    EXPECT_EQ(accepted, ranWhenDestroyed);
    EXPECT_EQ(accepted, ran);
  }
}

TEST(FlexPool, OfTwoDestroysOneGetsThePool) {
  Pool pool(1);
  Job job = [] {};
  ASSERT_EQ(pool.work(job), 0);
  std::atomic<int> succeeded = 0;
  std::thread other([&] { succeeded += pool.destroy() == 0; });
  succeeded += pool.destroy() == 0;
  other.join();
  EXPECT_EQ(succeeded, 1);
}

}  // namespace
}  // namespace qn
