// See redis_link.h.
#include "gateway/redis/redis_link.h"

#include <hiredis/hiredis.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <utility>

#include "text/number.h"

namespace qn {
namespace {

constexpr char kNoAnswer[] = "it did not answer in time";

struct FreeReply {
  void operator()(redisReply* reply) const { freeReplyObject(reply); }
};

}  // namespace

std::string redisCommand(std::initializer_list<std::string_view> words) {
  std::string out = "*";
  text::appendDecimal(out, words.size());
  for (const std::string_view word : words) {
    out += "\r\n$";
    text::appendDecimal(out, word.size());
    out.append("\r\n").append(word);
  }
  return out += "\r\n";
}

void RedisLink::Free::operator()(redisReader* reader) const { redisReaderFree(reader); }

RedisLink::RedisLink(boost::asio::io_context& context, const RedisAddress& address, Events events)
    : address_(address),
      events_(std::move(events)),
      resolver_(context),
      socket_(context),
      timer_(context),
      reader_(redisReaderCreate()) {}

RedisLink::~RedisLink() = default;

void RedisLink::start() {
  timer_.expires_after(kConnectTime);
  timer_.async_wait([self = shared_from_this()](Error error) {
    if (!error && !self->ready_) self->fail(kNoAnswer);
  });
  resolver_.async_resolve(
      address_.host, std::to_string(address_.port),
      [self = shared_from_this()](Error error, const Tcp::resolver::results_type& endpoints) {
        if (error) return self->fail(error.message());
        self->resolved(endpoints);
      });
}

void RedisLink::resolved(const Tcp::resolver::results_type& endpoints) {
  if (over_) return;
  boost::asio::async_connect(socket_, endpoints,
                             [self = shared_from_this()](Error error, const Tcp::endpoint&) {
                               if (error) return self->fail(error.message());
                               if (!self->over_) self->logIn();
                             });
}

void RedisLink::logIn() {
  Error ignored;
  socket_.set_option(Tcp::no_delay(true), ignored);
  if (!address_.password.empty()) {
    waiting_ += address_.username.empty()
                    ? redisCommand({"AUTH", address_.password})
                    : redisCommand({"AUTH", address_.username, address_.password});
    ++loginReplies_;
  }
  waiting_ += redisCommand({"SELECT", std::to_string(address_.database)});
  ++loginReplies_;
  write();
  read();
}

void RedisLink::stop() {
  over_ = true;
  resolver_.cancel();
  timer_.cancel();
  Error ignored;
  socket_.close(ignored);
}

// Written when what the thread has to do already is done: that may be further commands.
void RedisLink::send(std::string_view command) {
  const bool isFirst = waiting_.empty();
  waiting_ += command;
  if (!isFirst || !writing_.empty()) return;
  boost::asio::post(socket_.get_executor(), [self = shared_from_this()] {
    if (!self->over_ && self->writing_.empty()) self->write();
  });
}

void RedisLink::write() {
  writing_.swap(waiting_);
  boost::asio::async_write(socket_, boost::asio::buffer(writing_),
                           [self = shared_from_this()](Error error, std::size_t) {
                             if (error) return self->fail(error.message());
                             self->writing_.clear();
                             if (!self->waiting_.empty()) self->write();
                           });
}

void RedisLink::read() {
  socket_.async_read_some(boost::asio::buffer(buffer_),
                          [self = shared_from_this()](Error error, std::size_t bytes) {
                            if (error) return self->fail(error.message());
                            self->parse(bytes);
                          });
}

void RedisLink::parse(std::size_t bytes) {
  lastBytes_ = std::chrono::steady_clock::now();
  redisReaderFeed(reader_.get(), buffer_.data(), bytes);
  while (!over_) {
    void* made = nullptr;
    if (redisReaderGetReply(reader_.get(), &made) != REDIS_OK) return fail("no Redis protocol");
    if (!made) return read();
    const std::unique_ptr<redisReply, FreeReply> reply(static_cast<redisReply*>(made));
    take(*reply);
  }
}

void RedisLink::take(const redisReply& reply) {
  if (loginReplies_ > 0) return takeLogin(reply);
  events_.reply(reply);
}

void RedisLink::takeLogin(const redisReply& reply) {
  if (reply.type == REDIS_REPLY_ERROR) return fail(std::string(reply.str, reply.len));
  if (--loginReplies_ > 0) return;
  ready_ = true;
  watch();
  events_.ready();
}

// Once there was silence for as long, it is over.
void RedisLink::watch() {
  timer_.expires_at(lastBytes_ + kSilence);
  timer_.async_wait([self = shared_from_this()](Error error) {
    if (error || self->over_) return;
    if (self->lastBytes_ + kSilence > std::chrono::steady_clock::now()) return self->watch();
    self->fail(kNoAnswer);
  });
}

void RedisLink::fail(const std::string& reason) {
  if (over_) return;
  stop();
  events_.lost(reason);
}

}  // namespace qn
