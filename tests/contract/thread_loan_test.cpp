// Threads that are lent to a flexible pool.
#include "gateway/net/worker_pool.h"
#include "tests/contract/flex_pool.h"

namespace qn {
namespace {

using namespace std::chrono_literals;

TEST(ThreadLoan, RunsWhatItsThreadQueuedInOrderAtItsEnd) {
  std::vector<int> ran;
  std::thread::id thread;
  Job jobs[20];  // more than a loan takes
  for (int i = 0; i < 20; ++i) {
    jobs[i] = [&, i] {
      thread = std::this_thread::get_id();
      ran.push_back(i);
    };
  }
  for (const int count : {1, 5, 20}) {
    Pool pool(1);  // so nothing else runs meanwhile, and no two of them at once
    ran.clear();
    {
      const ThreadLoan loan;
      for (int i = 0; i < count; ++i) ASSERT_EQ(pool.work(jobs[i]), 0);
      EXPECT_TRUE(ran.empty());
    }
    pool.destroy();
    ASSERT_EQ(ran.size(), std::size_t(count));
    EXPECT_TRUE(std::ranges::is_sorted(ran));
    EXPECT_EQ(thread == std::this_thread::get_id(), count < 8);
  }
}

TEST(ThreadLoan, WhatWaitsBehindABlockedJobGoesToAnotherThread) {
  Blocking blocking;
  Events quick;
  Job runs = [&] { quick.signal(); };
  Pool pool(2);
  std::thread lent([&] {
    const ThreadLoan loan;
    for (Job* job : {&blocking.job, &runs, &runs}) EXPECT_EQ(pool.work(*job), 0);
  });
  EXPECT_TRUE(blocking.entered.wait());
  EXPECT_TRUE(quick.wait(2));
  blocking.opened.signal();
  lent.join();
}

TEST(ThreadLoan, CountsAmongThePoolsThreads) {
  Blocking blocking;
  Events quick;
  Job runs = [&] { quick.signal(); };
  Pool pool(1);
  std::thread lent([&] {
    const ThreadLoan loan;
    EXPECT_EQ(pool.work(blocking.job), 0);
  });
  EXPECT_TRUE(blocking.entered.wait());
  EXPECT_EQ(pool.work(runs), 0);
  EXPECT_FALSE(quick.wait(1, 30ms));
  blocking.opened.signal();
  EXPECT_TRUE(quick.wait());
  lent.join();
}

TEST(ThreadLoan, DestroyRunsWhatItsOwnThreadQueued) {
  int ran = 0;
  int inJob = 0;
  Pool pool(2);
  Job job = [&] {
    ++ran;
    inJob = pool.destroy();
  };
  const ThreadLoan loan;
  ASSERT_EQ(pool.work(job), 0);
  EXPECT_EQ(pool.destroy(), 0);
  EXPECT_EQ(ran, 1);
  EXPECT_EQ(inJob, -1) << "it would wait for itself";
}

TEST(ThreadLoan, EveryJobAcceptedDuringDestroyRunsOnce) {
  for (int round = 0; round < 20; ++round) {
    std::atomic<int> accepted = 0;
    std::atomic<int> ran = 0;
    Events started;
    Job job = [&] { ++ran; };
    Pool pool(4);
    std::vector<std::thread> producers;
    producers.reserve(3);
    for (int i = 0; i < 3; ++i) {
      producers.emplace_back([&] {
        for (bool taken = true; taken;) {
          const ThreadLoan loan;
          for (int n = 0; n < 3 && taken; ++n) taken = pool.work(job) == 0;
          if (taken) accepted += 3;
          started.signal();
        }
      });
    }
    EXPECT_TRUE(started.wait(50));
    EXPECT_EQ(pool.destroy(), 0);
    const int ranWhenDestroyed = ran;
    for (auto& producer : producers) producer.join();
    EXPECT_EQ(ran, ranWhenDestroyed);
    EXPECT_GE(ran, accepted);
    EXPECT_LE(ran, accepted + 3 * 2);  // of a loan that was refused in the middle
  }
}

}  // namespace
}  // namespace qn
