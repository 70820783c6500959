// See redis_client.h.
#include "gateway/redis/redis_client.h"

#include <hiredis/hiredis.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <future>
#include <utility>

#include "gateway/redis/redis_link.h"

namespace qn {
namespace {

void collect(const redisReply& reply, RedisAnswer& answer) {
  if (reply.type == REDIS_REPLY_INTEGER) {
    answer.texts.push_back(std::to_string(reply.integer));
  } else if (reply.type == REDIS_REPLY_ARRAY) {
    for (std::size_t i = 0; i < reply.elements; ++i) collect(*reply.element[i], answer);
  } else {
    answer.texts.emplace_back(reply.str ? reply.str : "", reply.str ? reply.len : 0);
  }
}

std::string_view textOf(const redisReply& reply) {
  return reply.str ? std::string_view(reply.str, reply.len) : std::string_view();
}

}  // namespace

RedisClient::RedisClient(RedisAddress address, const std::string& without)
    : address_(std::move(address)),
      engine_("redis", without),
      reactor_(1, "redis"),
      timer_(reactor_.context(0)) {}

RedisClient::~RedisClient() { stop(); }

void RedisClient::start() {
  post([this] { connect(); });
  reactor_.start();
}

void RedisClient::stop() {
  if (connected_) awaitAnswers();
  connected_ = false;
  reactor_.stop();
  if (commands_) commands_->stop();
  if (channels_) channels_->stop();
  waiting_.clear();
}

void RedisClient::awaitAnswers() {
  const auto answered = std::make_shared<std::promise<void>>();
  post([this, answered] { send({"PING"}, [answered](auto) { answered->set_value(); }); });
  answered->get_future().wait_for(kStopTime);
}

void RedisClient::post(std::function<void()> routine) {
  boost::asio::post(reactor_.context(0), std::move(routine));
}

void RedisClient::connect() {
  ready_ = 0;
  const auto link = [this](void (RedisClient::*take)(const redisReply&)) {
    auto made = std::make_shared<RedisLink>(
        reactor_.context(0), address_,
        RedisLink::Events{[this] { linkReady(); },
                          [this, take](const redisReply& reply) { (this->*take)(reply); },
                          [this](const std::string& reason) { linkLost(reason); }});
    made->start();
    return made;
  };
  commands_ = link(&RedisClient::takeReply);
  channels_ = link(&RedisClient::takePush);
}

void RedisClient::linkReady() {
  if (++ready_ < 2) return;
  retryTime_ = kFirstRetry;
  for (const auto& [channel, message] : listeners_) {
    channels_->send(redisCommand({"SUBSCRIBE", channel}));
  }
  channels_->send(redisCommand({"PING"}));  // answered when it listens
}

void RedisClient::listening() {
  connected_ = true;
  engine_.up();
  ping();
  for (const auto& routine : connectedRoutines_) routine();
}

// Both go with one of them, so that nobody works with half of it.
void RedisClient::linkLost(const std::string& reason) {
  const bool worked = connected_.exchange(false);
  commands_->stop();
  channels_->stop();
  engine_.down(reason);
  for (Waiting& each : std::exchange(waiting_, {})) {
    --waitingCommands_;
    waitingBytes_ -= each.bytes;
    if (each.done) each.done(nullptr);
  }
  if (worked) {
    for (const auto& routine : lostRoutines_) routine();
  }
  retry();
}

// Jittered, so that gateways do not all come back at once.
void RedisClient::retry() {
  const auto delay = std::exchange(retryTime_, std::min(2 * retryTime_, kLongestRetry));
  const auto jitter = std::uniform_int_distribution<int64_t>(0, delay.count() / 2)(random_);
  timer_.expires_after(delay - std::chrono::milliseconds(jitter));
  timer_.async_wait([this](const boost::system::error_code& error) {
    if (!error) connect();
  });
}

// A link that has nothing to say is asked, and lost when it does not answer.
void RedisClient::ping() {
  if (!connected_) return;
  send({"PING"});
  channels_->send(redisCommand({"PING"}));
  timer_.expires_after(kPingTime);
  timer_.async_wait([this](const boost::system::error_code& error) {
    if (!error) ping();
  });
}

bool RedisClient::send(std::initializer_list<std::string_view> words, Done done) {
  if (!connected_) return false;
  std::string command = redisCommand(words);
  const std::size_t bytes = command.size();
  if (waitingCommands_ >= kCommands || waitingBytes_ + bytes > kBytes) {
    dropped_.add();
    return false;
  }
  ++waitingCommands_;  // threads that add at once may exceed the bounds by one command each
  waitingBytes_ += bytes;
  post([this, bytes, command = std::move(command), done = std::move(done)]() mutable {
    if (!connected_) {
      --waitingCommands_;
      waitingBytes_ -= bytes;
      if (done) done(nullptr);
      return;
    }
    waiting_.push_back({std::move(done), bytes});
    commands_->send(command);
  });
  return true;
}

void RedisClient::takeReply(const redisReply& reply) {
  if (waiting_.empty()) return linkLost("an answer to nothing");
  const Waiting asked = std::move(waiting_.front());
  waiting_.pop_front();
  --waitingCommands_;
  waitingBytes_ -= asked.bytes;
  if (!asked.done) return;
  if (reply.type == REDIS_REPLY_ERROR) return asked.done(nullptr);
  RedisAnswer answer;
  collect(reply, answer);
  asked.done(&answer);
}

void RedisClient::takePush(const redisReply& reply) {
  const bool isList = reply.type == REDIS_REPLY_ARRAY && reply.elements >= 2;
  const std::string_view kind = textOf(isList ? *reply.element[0] : reply);
  if (!connected_ && (kind == "pong" || kind == "PONG")) return listening();
  if (kind != "message" || reply.elements != 3) return;
  const auto listener = listeners_.find(textOf(*reply.element[1]));
  if (listener == listeners_.end()) return;
  const Message message = listener->second;  // it may be taken away meanwhile
  message(textOf(*reply.element[2]));
}

void RedisClient::listen(const std::string& channel, Message message) {
  post([this, channel, message = std::move(message)] {
    listeners_[channel] = message;
    if (connected_) channels_->send(redisCommand({"SUBSCRIBE", channel}));
  });
}

void RedisClient::ignore(const std::string& channel) {
  post([this, channel] {
    listeners_.erase(channel);
    if (connected_) channels_->send(redisCommand({"UNSUBSCRIBE", channel}));
  });
}

}  // namespace qn
