// The answering side of a client's connection: one message at a time. Part of ClientConnection.
#pragma once

#include <algorithm>
#include <array>
#include <boost/asio/buffer.hpp>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "gateway/http/client_stream.h"
#include "gateway/http/memory_budget.h"
#include "gateway/http/service_core.h"

namespace qn {

// An answer as it goes out. Good while what it was made of is.
struct Message {
  std::string_view head;  // and the body, when that is short
  std::string_view body{};
  SharedBytes keeper{};  // of the body; null when nobody keeps it

  std::size_t size() const { return head.size() + body.size(); }
  std::array<boost::asio::const_buffer, 2> buffers() const {
    return {boost::asio::buffer(head.data(), head.size()),
            boost::asio::buffer(body.data(), body.size())};
  }
  LeftOver behind(std::size_t count) const {
    std::string own(head.substr(std::min(count, head.size())));
    const std::string_view rest = body.substr(count - std::min(count, head.size()));
    if (keeper) return LeftOver(std::move(own), keeper, rest);
    return LeftOver(own.append(rest));
  }
};

template <class Stream>
class AnswerSender {
 public:
  // `onSent` is called when a message has gone out.
  AnswerSender(ClientStream<Stream>& client, ServiceCore& core, std::function<void()> onSent)
      : client_(client), onSent_(std::move(onSent)), unsent_(client, core.bounds, core.counts) {}

  // Mostly all goes out in one write, so the bytes are copied only when they do not, and a body
  // that somebody keeps never. shareOf() tells what the rest is held of.
  template <class ShareOf>
  void send(const Message& message, ShareOf shareOf) {
    const auto count = message.body.empty() ? unsent_.begin(boost::asio::buffer(message.head))
                                            : unsent_.begin(message.buffers());
    if (!count) return;
    if (*count == message.size()) return onSent_();
    share_ = shareOf();
    LeftOver rest = message.behind(*count);
    const std::size_t held = message.keeper ? message.keeper->size() : rest.size();
    if (!share_.set(held)) return client_.end();
    unsent_.finish(std::move(rest), [this] {
      share_.set(0);
      onSent_();
    });
  }
  // The connection has ended.
  void end() { share_.set(0); }

  ClientStream<Stream>& client() { return client_; }
  // For a connection that carries parts instead of answers from now on.
  UnsentBytes<Stream>& unsent() { return unsent_; }

 private:
  ClientStream<Stream>& client_;
  const std::function<void()> onSent_;
  UnsentBytes<Stream> unsent_;
  MemoryBudget::Share share_;
};

}  // namespace qn
