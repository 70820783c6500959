// Plays a recorded conversation as a device: answers each request as it was answered then.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "subdevice/alert_stream.h"
#include "subdevice/conversation.h"
#include "subdevice/message.h"

namespace subdevice {

// One device's own place in a conversation, which outlives it.
class Replay {
 public:
  explicit Replay(const Conversation& conversation);

  // What was said to this request: of the recorded requests with its method and URL those with the
  // same body, or else any, or else those with its path; one after the other, the last again and
  // again. "devIndex" does not count: it names the gateway's device. Null: nothing was recorded.
  const RecordedExchange* next(const Request& request);

 private:
  struct Said {
    const RecordedExchange* exchange;
    bool used = false;
  };
  using Choice = std::vector<Said*>;

  static const RecordedExchange* take(const Choice& choice);

  std::vector<Said> all_;
  std::unordered_map<std::string, Choice> byUrl_;   // method and URL without devIndex
  std::unordered_map<std::string, Choice> byPath_;  // method and path
};

// A recorded stream that is played to a client: its parts at their times. Lives as long as its
// timer or its client.
class ReplayedStream : public std::enable_shared_from_this<ReplayedStream> {
 public:
  static void play(boost::asio::io_context& io, ClientStream&& client,
                   const RecordedExchange& exchange);

  ReplayedStream(boost::asio::io_context& io, const RecordedExchange& exchange)
      : exchange_(exchange), timer_(io) {}

 private:
  void sendDue();
  void waitUntil(std::chrono::milliseconds sinceBegin);

  const RecordedExchange& exchange_;
  boost::asio::steady_timer timer_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  std::shared_ptr<AlertStream> stream_;  // null when the client has gone
  std::size_t next_ = 0;
};

}  // namespace subdevice
