// One connection to a Redis server: connects, logs in, writes commands and hands out what comes
// back. Made by redis_client.cpp, anew for each connection.
#pragma once

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "gateway/config/redis_url.h"

struct redisReader;
struct redisReply;

namespace qn {

// A command as the protocol has it.
std::string redisCommand(std::initializer_list<std::string_view> words);

// On the thread of its context alone.
class RedisLink : public std::enable_shared_from_this<RedisLink> {
 public:
  static constexpr std::chrono::seconds kConnectTime{2};  // with the login
  static constexpr std::chrono::seconds kSilence{2};      // then it is asked, and as long to answer

  struct Events {
    std::function<void()> ready;
    std::function<void(const redisReply& reply)> reply;   // also of what was pushed
    std::function<void(const std::string& reason)> lost;  // the last one, at most once
  };

  RedisLink(boost::asio::io_context& context, const RedisAddress& address, Events events);
  ~RedisLink();

  void start();
  // No event comes after it.
  void stop();
  // While it is ready. All that is said before the thread's next turn goes in one write.
  void send(std::string_view command);
  std::size_t unsentBytes() const { return waiting_.size() + writing_.size(); }

 private:
  using Error = boost::system::error_code;
  using Tcp = boost::asio::ip::tcp;
  struct Free {
    void operator()(redisReader* reader) const;
  };

  void resolved(const Tcp::resolver::results_type& endpoints);
  void logIn();
  void write();
  void read();
  void parse(std::size_t bytes);
  void take(const redisReply& reply);
  void takeLogin(const redisReply& reply);
  void watch();
  void fail(const std::string& reason);

  const RedisAddress address_;
  const Events events_;
  Tcp::resolver resolver_;
  Tcp::socket socket_;
  boost::asio::steady_timer timer_;
  std::unique_ptr<redisReader, Free> reader_;
  std::array<char, 64 * 1024> buffer_;
  std::string waiting_;
  std::string writing_;
  int loginReplies_ = 0;  // that are awaited
  std::chrono::steady_clock::time_point lastBytes_;
  bool ready_ = false;
  bool over_ = false;
};

}  // namespace qn
