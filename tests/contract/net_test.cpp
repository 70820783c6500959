// What gateway/net promises of I/O threads and workers.

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include "gateway/net/reactors.h"
#include "gateway/net/worker_pool.h"
#include "tests/contract/events.h"

namespace qn {
namespace {

namespace asio = boost::asio;

TEST(Reactors, EachRunsItsHandlersOnItsOwnThread) {
  Events ran;
  Reactors reactors(3);
  EXPECT_EQ(reactors.size(), 3u);
  EXPECT_EQ(Reactors::current(), Reactors::kNone);
  reactors.start();
  for (int i = 0; i < 3; ++i) {
    asio::post(reactors.context(static_cast<std::size_t>(i)), [&, i] {
      EXPECT_EQ(Reactors::current(), i);
      ran.signal();
    });
  }
  EXPECT_TRUE(ran.wait(3));
  reactors.stop();
  reactors.stop();
}

TEST(Reactors, HandlersLeftBehindMayOwnObjectsOfAnyReactor) {
  const auto destroyed = std::make_shared<int>();
  {
    Reactors reactors(3);
    for (const std::size_t on : {0, 1, 2}) {
      for (const std::size_t of : {0, 1, 2}) {
        auto socket = std::make_shared<asio::ip::tcp::socket>(reactors.context(of));
        socket->open(asio::ip::tcp::v4());
        auto timer = std::make_shared<asio::steady_timer>(reactors.context(of));
        timer->expires_after(std::chrono::hours(1));
        timer->async_wait([socket, destroyed](boost::system::error_code) { ADD_FAILURE(); });
        asio::post(reactors.context(on), [socket, timer, destroyed] { ADD_FAILURE(); });
      }
    }
  }
  EXPECT_EQ(destroyed.use_count(), 1);
}

TEST(WorkerPool, RefusesWhatIsBeyondTheQueueAndRunsTheRestAtTheStop) {
  Events entered, opened;
  std::atomic<int> ran = 0;
  WorkerPool pool(1, 2);
  ASSERT_TRUE(pool.post([&] {
    entered.signal();
    EXPECT_TRUE(opened.wait());
  }));
  ASSERT_TRUE(entered.wait());
  EXPECT_TRUE(pool.post([&] { ++ran; }));
  EXPECT_TRUE(pool.post([&] { ++ran; }));
  EXPECT_FALSE(pool.post([&] { ++ran; }));
  opened.signal();
  pool.stop();
  EXPECT_EQ(ran, 2);
  EXPECT_FALSE(pool.post([&] { ++ran; }));
  pool.stop();
}

TEST(WorkerPool, TakesNoJobThatNoThreadCanRun) {
  constexpr std::size_t kNoRoom = std::size_t{1} << 47;  // for such a stack
  for (const int patience : {0, 5}) {
    WorkerPool pool({.threads = 2,
                     .queueLimit = 4,
                     .patience = std::chrono::milliseconds(patience),
                     .stackBytes = kNoRoom});
    EXPECT_FALSE(pool.post([] { ADD_FAILURE(); }));
    EXPECT_EQ(pool.load().refused, 1U);
    EXPECT_EQ(pool.load().waiting, 0U);
  }
}

}  // namespace
}  // namespace qn
