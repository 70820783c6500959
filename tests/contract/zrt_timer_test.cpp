// What platform/zrt.h promises of timers.

#include "gateway/runtime/timers.h"
#include "platform/zrt.h"
#include "tests/contract/events.h"

namespace qn {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Routine = std::function<void(int timerId)>;

int runRoutine(int timerId, void* user) {
  (*static_cast<Routine*>(user))(timerId);
  return 0;
}

struct Timer {
  Timer(Routine& routine, int periodMs) {
    EXPECT_EQ(ZRT_SetTimer(runRoutine, &routine, periodMs, id, 0), 0);
  }
  ~Timer() { ZRT_KillTimer(id); }
  int kill() { return ZRT_KillTimer(id); }

  int id = -1;
};

TEST(Timer, SkipsTheRunsMissedByASlowOne) {
  constexpr auto kPeriod = 20ms;
  Events never, ran;
  int run = 0;
  Clock::time_point slowRunEnded, thirdRunStarted;
  Routine routine = [&](int) {
    ++run;
    if (run == 1) {
      never.wait(1, 3 * kPeriod);
      slowRunEnded = Clock::now();
    }
    if (run == 3) thirdRunStarted = Clock::now();
    ran.signal();
  };
  Timer timer(routine, kPeriod.count());
  ASSERT_TRUE(ran.wait(3));
  timer.kill();
  EXPECT_GE(thirdRunStarted - slowRunEnded, kPeriod);  // no two runs at once to catch up
}

TEST(Timer, IsOverdueWhileItsRoutineHangs) {
  Events entered, opened, never;
  Routine quick = [](int) {};
  Routine hanging = [&](int) {
    entered.signal();
    EXPECT_TRUE(opened.wait());
  };
  Timer other(quick, 1000);
  EXPECT_EQ(timersOverdue(), 0ms);
  Timer timer(hanging, 1);
  ASSERT_TRUE(entered.wait());
  never.wait(1, 50ms);
  EXPECT_GE(timersOverdue(), 50ms);
  opened.signal();
  timer.kill();
  EXPECT_EQ(timersOverdue(), 0ms);
}

TEST(Timer, KillWaitsForARunningRoutineAndNoRunFollows) {
  Events entered, never;
  std::atomic<bool> running = false;
  Routine routine = [&](int) {
    running = true;
    entered.signal();
    never.wait(1, 30ms);
    running = false;
  };
  Timer timer(routine, 1);
  ASSERT_TRUE(entered.wait());
  EXPECT_EQ(timer.kill(), 0);
  EXPECT_FALSE(running);
  EXPECT_FALSE(entered.wait(entered.count() + 1, 20ms));
}

TEST(Timer, ARoutineCanKillItsOwnTimer) {
  Events ran;
  Routine routine = [&](int timerId) {
    EXPECT_EQ(ZRT_KillTimer(timerId), 0);
    EXPECT_EQ(ZRT_KillTimer(timerId), -1);
    ran.signal();
  };
  Timer timer(routine, 1);
  ASSERT_TRUE(ran.wait());
  EXPECT_FALSE(ran.wait(2, 20ms));
  EXPECT_EQ(timer.kill(), -1);
}

TEST(Timer, ASlowTimerDelaysNoOther) {
  Events slowEntered, opened, ran;
  Routine slow = [&](int) {
    slowEntered.signal();
    EXPECT_TRUE(opened.wait());
  };
  Routine quick = [&](int) { ran.signal(); };
  Timer slowTimer(slow, 1);
  ASSERT_TRUE(slowEntered.wait());
  Timer quickTimer(quick, 1);
  EXPECT_TRUE(ran.wait(3));
  opened.signal();
}

TEST(Timer, ARoutineThatThrowsRunsAgain) {
  Events ran;
  Routine routine = [&](int) {
    ran.signal();
    throw std::runtime_error("expected by the test");
  };
  Timer timer(routine, 1);
  EXPECT_TRUE(ran.wait(2));
  timer.kill();
}

TEST(Timer, RefusesTooMany) {
  Routine routine = [](int) {};
  int id = 7;
  std::vector<int> ids;
  while (ids.size() < 1000 && ZRT_SetTimer(runRoutine, &routine, 3600000, id, 0) == 0)
    ids.push_back(id);
  EXPECT_GE(ids.size(), 100u);
  EXPECT_LT(ids.size(), 1000u);
  for (const int each : ids) EXPECT_EQ(ZRT_KillTimer(each), 0);
  EXPECT_EQ(ZRT_SetTimer(runRoutine, &routine, 3600000, id, 0), 0);
  EXPECT_EQ(std::count(ids.begin(), ids.end(), id), 0);  // a new id, not one of the killed
  EXPECT_EQ(ZRT_KillTimer(id), 0);
}

TEST(Timer, OfTwoKillsAtAnyMomentOneSucceeds) {
  for (int round = 0; round < 50; ++round) {
    Events ran;
    Routine routine = [&](int) { ran.signal(); };
    std::atomic<int> succeeded = 0;
    {
      Timer timer(routine, 1);
      std::thread other([&] { succeeded += timer.kill() == 0; });
      succeeded += timer.kill() == 0;
      other.join();
    }
    EXPECT_EQ(succeeded, 1);
  }
}

}  // namespace
}  // namespace qn
