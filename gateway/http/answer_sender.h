// The answering side of a client's connection: one message at a time. Part of ClientConnection.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "gateway/http/client_stream.h"
#include "gateway/http/memory_budget.h"
#include "gateway/http/service_core.h"

namespace qn {

template <class Stream>
class AnswerSender {
 public:
  // `onSent` is called when a message has gone out.
  AnswerSender(ClientStream<Stream>& client, ServiceCore& core, std::function<void()> onSent)
      : client_(client), onSent_(std::move(onSent)), unsent_(client, core.bounds, core.counts) {}

  // Mostly all goes out in one write, so the bytes are copied only when they do not.
  // shareOf() tells what the rest is held of.
  template <class ShareOf>
  void send(std::string_view message, ShareOf shareOf) {
    const auto count = unsent_.begin(message);
    if (!count) return;
    if (*count == message.size()) return onSent_();
    share_ = shareOf();
    if (!share_.set(message.size() - *count)) return client_.end();
    unsent_.finish(std::string(message.substr(*count)), 0, [this] {
      share_.set(0);
      onSent_();
    });
  }
  // The connection has ended.
  void end() { share_.set(0); }

 private:
  ClientStream<Stream>& client_;
  const std::function<void()> onSent_;
  UnsentBytes<Stream> unsent_;
  MemoryBudget::Share share_;
};

}  // namespace qn
