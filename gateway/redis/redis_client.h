// A client of one Redis server on a thread of its own: commands with their replies, and channels.
// Used by gateway/cluster.
#pragma once

#include <atomic>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "gateway/config/redis_url.h"
#include "gateway/engine/engine_state.h"
#include "gateway/metrics/counter.h"
#include "gateway/net/reactors.h"
#include "gateway/sync/mutex.h"

struct redisReply;

namespace qn {

class RedisLink;

// What came back: one text for a simple reply, those of a flat or nested list in order.
struct RedisAnswer {
  std::vector<std::string> texts;
};

// Connects by itself, and again when it is cut off. Everything it calls runs on its thread.
class RedisClient {
 public:
  // Bounds of what waits for an answer; what finds no room is dropped and counted.
  static constexpr std::size_t kCommands = 16 * 1024;
  static constexpr std::size_t kBytes = 16 * 1024 * 1024;
  static constexpr std::chrono::milliseconds kFirstRetry{100};
  static constexpr std::chrono::milliseconds kLongestRetry{1000};
  static constexpr std::chrono::milliseconds kPingTime{500};  // at least so often it is asked
  static constexpr std::chrono::milliseconds kStopTime{200};  // for answers, when it stops

  // Null when the connection was lost before the answer came, or the server refused the command.
  using Done = std::function<void(const RedisAnswer* answer)>;
  using Message = std::function<void(std::string_view payload)>;

  // `without`: what holds while it is away.
  RedisClient(RedisAddress address, const std::string& without);
  ~RedisClient();  // stops
  RedisClient(const RedisClient&) = delete;
  RedisClient& operator=(const RedisClient&) = delete;

  // Called each time when commands and the channels listened to until then both work, from `start`
  // on; set before it.
  void onConnected(std::function<void()> routine) {
    connectedRoutines_.push_back(std::move(routine));
  }
  // Called when they stop working; set before the start.
  void onLost(std::function<void()> routine) { lostRoutines_.push_back(std::move(routine)); }
  void start();
  // Waits until what was sent is done, if the server is there. Nothing is called afterwards.
  // Harmless when repeated; by the thread that started it.
  void stop();

  // Any thread; returns at once. False when it is dropped, without a call: it is not connected, or
  // too much is waiting.
  bool send(std::initializer_list<std::string_view> words, Done done = {});
  // Any thread. Of a channel there is one listener.
  void listen(const std::string& channel, Message message);
  void ignore(const std::string& channel);

  bool isConnected() const { return connected_; }
  // Any thread: runs it on the client's own.
  void post(std::function<void()> routine);
  boost::asio::io_context& context() { return reactor_.context(0); }

  const EngineState& engine() const { return engine_; }
  // Commands that found no room.
  const Counter& dropped() const { return dropped_; }

 private:
  void connect();
  void linkReady();
  void listening();
  void linkLost(const std::string& reason);
  void takeReply(const redisReply& reply);
  void takePush(const redisReply& reply);
  void ping();
  void retry();
  void awaitAnswers();

  const RedisAddress address_;
  EngineState engine_;
  Counter dropped_;
  std::atomic<bool> connected_{false};
  std::atomic<std::size_t> waitingCommands_{0};
  std::atomic<std::size_t> waitingBytes_{0};
  std::vector<std::function<void()>> connectedRoutines_;  // constant after the start
  std::vector<std::function<void()>> lostRoutines_;       // the same

  Reactors reactor_;
  // The thread's own:
  boost::asio::steady_timer timer_;
  std::shared_ptr<RedisLink> commands_;
  std::shared_ptr<RedisLink> channels_;
  int ready_ = 0;  // links
  struct Waiting {
    Done done;
    std::size_t bytes;
  };
  std::deque<Waiting> waiting_;
  std::map<std::string, Message, std::less<>> listeners_;
  std::chrono::milliseconds retryTime_ = kFirstRetry;
  std::minstd_rand random_{std::random_device{}()};
};

}  // namespace qn
