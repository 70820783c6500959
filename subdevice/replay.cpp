// See replay.h.
#include "subdevice/replay.h"

#include <algorithm>
#include <utility>

namespace subdevice {
namespace {

// Method and URL, without the parameter that names the gateway's device.
std::string urlKey(std::string_view method, std::string_view target) {
  std::string key(method);
  key += ' ';
  const auto mark = target.find('?');
  key += target.substr(0, mark);
  std::string_view query = mark == std::string_view::npos ? "" : target.substr(mark + 1);
  char before = '?';
  while (!query.empty()) {
    const std::string_view pair = query.substr(0, query.find('&'));
    query.remove_prefix(std::min(query.size(), pair.size() + 1));
    if (pair.starts_with("devIndex=")) continue;
    key += std::exchange(before, '&');
    key += pair;
  }
  return key;
}

std::string pathKey(std::string_view method, std::string_view target) {
  return std::string(method) + " " + std::string(target.substr(0, target.find('?')));
}

}  // namespace

Replay::Replay(const Conversation& conversation) {
  for (const auto& exchange : conversation) all_.push_back({&exchange});
  for (auto& said : all_) {
    const auto& [method, target] = std::tie(said.exchange->method, said.exchange->target);
    byUrl_[urlKey(method, target)].push_back(&said);
    byPath_[pathKey(method, target)].push_back(&said);
  }
}

const RecordedExchange* Replay::next(const Request& request) {
  auto found = byUrl_.find(urlKey(request.method, request.target));
  if (found == byUrl_.end()) {
    found = byPath_.find(pathKey(request.method, request.target));
    if (found == byPath_.end()) return nullptr;
  }
  Choice same;
  std::ranges::copy_if(found->second, std::back_inserter(same), [&](const Said* said) {
    return contentOf(said->exchange->request) == request.body;
  });
  return take(same.empty() ? found->second : same);
}

const RecordedExchange* Replay::take(const Choice& choice) {
  const auto fresh = std::ranges::find(choice, false, &Said::used);
  Said* const said = fresh == choice.end() ? choice.back() : *fresh;
  said->used = true;
  return said->exchange;
}

void ReplayedStream::play(boost::asio::io_context& io, ClientStream&& client,
                          const RecordedExchange& exchange) {
  const auto self = std::make_shared<ReplayedStream>(io, exchange);
  self->stream_ = std::make_shared<AlertStream>(std::move(client), StreamFraming{},
                                                [weak = std::weak_ptr(self)](AlertStream*) {
                                                  if (const auto player = weak.lock())
                                                    player->stream_.reset();
                                                });
  self->stream_->start();
  self->sendDue();
}

void ReplayedStream::sendDue() {
  if (stream_ == nullptr) return;
  const auto now = std::chrono::steady_clock::now() - begin_;
  for (; next_ < exchange_.parts.size() && exchange_.parts[next_].at <= now; ++next_) {
    const RecordedBody& body = exchange_.parts[next_].body;
    stream_->push(contentOf(body), body.type);
  }
  if (next_ < exchange_.parts.size()) return waitUntil(exchange_.parts[next_].at);
  if (exchange_.ended == RecordedExchange::kOpen) return;  // the stream keeps itself
  if (exchange_.ended > now) return waitUntil(exchange_.ended);
  stream_->closeWhenSent();
}

void ReplayedStream::waitUntil(std::chrono::milliseconds sinceBegin) {
  timer_.expires_at(begin_ + sinceBegin);
  timer_.async_wait([self = shared_from_this()](boost::system::error_code error) {
    if (!error) self->sendDue();
  });
}

}  // namespace subdevice
