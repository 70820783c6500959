// What the admin listener is made of: counters, the last few of something, the pulse of the
// reactors and health, reloads. The listener itself: tests/e2e/test_admin.py.
#include <gtest/gtest.h>

#include <boost/asio/post.hpp>
#include <future>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "gateway/admin/health.h"
#include "gateway/admin/reloads.h"
#include "gateway/metrics/counts.h"
#include "gateway/metrics/recent.h"
#include "gateway/net/pulse.h"

namespace qn {
namespace {

using namespace std::chrono_literals;

TEST(Counts, RequestsGoToTheirFamilyMethodAndClass) {
  using enum ResourceFamily;
  using enum StatusClass;
  struct Row {
    const char* url;
    int method, status;
    ResourceFamily family;
    std::size_t column;
    StatusClass statusClass;
  };
  constexpr Row kRows[] = {
      {"/KAVRO/System/deviceInfo", 0, 200, System, 0, Success},
      {"/KAVRO/Streaming/channels/1", 1, 401, Streaming, 1, ClientError},
      {"/KAVRO/PTZCtrl/channels", 3, 503, Ptz, 3, ServerError},
      {"/KAVRO/ContentMgmt/search", 2, 399, Record, 2, Success},
      {"/KAVRO/Event/x", 4, 400, Event, 4, ClientError},
      {"/NovGatewayStorage/a.jpg", 6, 499, Picture, 4, ClientError},
      {"/KAVRO/Systems", 0, 199, Other, 0, ServerError},
      {"", 0, 999, Other, 0, ServerError},
  };
  for (const Row& row : kRows) {
    HttpCounts counts;
    counts.countAnswer(row.url, row.method, row.status, 1ms);
    EXPECT_EQ(counts
                  .answered[static_cast<std::size_t>(row.family)][row.column]
                           [static_cast<std::size_t>(row.statusClass)]
                  .value(),
              1u)
        << row.url;
  }
}

TEST(Counts, TimesGoToTheFirstBoundThatTheyDoNotExceed) {
  HttpCounts counts;
  for (const auto time : {-5ns, 50'000ns, 50'001ns, 2'000'000'000ns}) counts.ownTime.add(time);
  EXPECT_EQ(counts.ownTime.inBucket(0), 2u);
  EXPECT_EQ(counts.ownTime.inBucket(1), 1u);
  EXPECT_EQ(counts.ownTime.inBucket(decltype(counts.ownTime)::kBuckets - 1), 1u);
  EXPECT_EQ(counts.ownTime.nanoseconds(), 2'000'100'001u);
}

TEST(Counts, ThreadsTogetherLoseNothing) {
  Sharded<LoginCounts> counts;
  Recent<int, 4> recent;
  std::vector<std::thread> threads;
  for (int i = 0; i < 20; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 1000; ++n) {
        counts.here().wrong.add();
        recent.add([n](int& entry) { entry = n; });
      }
    });
  }
  EXPECT_LE(recent.newestFirst().size(), 4u);
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counts.sum(&LoginCounts::wrong), 20000u);
  recent.add([](int& entry) { entry = -1; });
  EXPECT_EQ(recent.newestFirst().size(), 4u);
  EXPECT_EQ(recent.newestFirst().front(), -1);
}

TEST(HealthTest, AStuckReactorShowsWithinTwoSeconds) {
  Reactors reactors(2);
  Pulse pulse(reactors);
  Health health(pulse);
  reactors.start();
  pulse.start();
  EXPECT_EQ(health.againstStart(), Health::Reasons{"starting"});
  health.setStarted();
  std::this_thread::sleep_for(Pulse::kStuck + 300ms);
  EXPECT_EQ(health.againstReadiness(), Health::Reasons{}) << "idle ones live";
  std::promise<void> entered, released;
  boost::asio::post(reactors.context(1), [&] {
    entered.set_value();
    released.get_future().wait();
  });
  entered.get_future().wait();
  const auto end = std::chrono::steady_clock::now() + 2s;
  while (health.againstLife().empty() && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(20ms);
  }
  ASSERT_EQ(health.againstLife().size(), 1u);
  EXPECT_EQ(health.againstLife().front().find("reactor 1 has not run for"), 0u);
  EXPECT_EQ(health.againstReadiness().size(), 1u);
  released.set_value();
  while (!health.againstLife().empty()) std::this_thread::sleep_for(20ms);
  health.setStopping();
  EXPECT_EQ(health.againstReadiness(), Health::Reasons{"stopping"});
  reactors.stop();
}

TEST(ReloadsTest, WhoAsksGetsTheOutcomeOfALaterReload) {
  std::counting_semaphore<> rung(0);
  Reloads reloads([&] { rung.release(); });
  reloads.begin();  // has read the file already
  auto asked = std::async(std::launch::async, [&] { return reloads.ask(); });
  rung.acquire();
  reloads.end("the old file's fault");
  EXPECT_EQ(asked.wait_for(50ms), std::future_status::timeout);
  reloads.begin();
  reloads.end("");
  EXPECT_EQ(asked.get(), "");
  EXPECT_EQ(reloads.state().ended, 2u);
  EXPECT_EQ(reloads.state().refusal, "");
  asked = std::async(std::launch::async, [&] { return reloads.ask(); });
  reloads.close();
  ASSERT_EQ(asked.wait_for(30s), std::future_status::ready)
      << "a gateway that stops waits for none";
  EXPECT_EQ(asked.get(), std::nullopt);
}

}  // namespace
}  // namespace qn
