// See handshakes.h.
#include "gateway/http/handshakes.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <utility>

#include "gateway/http/service_core.h"

namespace qn {

constexpr std::size_t kPartOfOne = 4;

Handshakes::Entries::iterator Handshakes::begin(OpenConnection& connection,
                                                const boost::asio::ip::address& client) {
  const std::size_t most = most_;
  const auto ofClient = std::size_t(
      std::ranges::count(entries_, client, [](const Entry& each) { return each.client; }));
  if (!client.is_unspecified() && ofClient >= std::max<std::size_t>(most / kPartOfOne, 1)) {
    closeLongest(client);
  }
  if (entries_.size() >= most) closeLongest({});
  ++underWay_;
  return entries_.insert(entries_.end(), {&connection, client, Clock::now()});
}

// Of that client, or of all for the unspecified address.
void Handshakes::closeLongest(const boost::asio::ip::address& client) {
  const auto longest = std::ranges::find_if(entries_, [&](const Entry& each) {
    return client.is_unspecified() || each.client == client;
  });
  if (longest != entries_.end()) longest->connection->close();
}

void Handshakes::end(Entries::iterator entry, bool succeeded) {
  if (!succeeded) counts_.here().handshakesFailed.add();
  --underWay_;
  std::erase(waiting_, &*entry);
  entries_.erase(entry);
}

void Handshakes::Turn::succeeded(bool resumed) {
  succeeded_ = true;
  HttpCounts& counts = of_.counts_.here();
  (resumed ? counts.handshakesResumed : counts.handshakesFull).add();
}

void Handshakes::queue(Entry& entry, std::function<void()> step) {
  entry.step = std::move(step);
  waiting_.push_back(&entry);
  runNextSoon();
}

void Handshakes::runNextSoon() {
  if (waiting_.empty() || std::exchange(coming_, true)) return;
  boost::asio::post(reactor_, [this] { runNext(); });
}

// One at a time, so that whatever else is ready comes between them.
void Handshakes::runNext() {
  coming_ = false;
  if (waiting_.empty()) return;
  const auto step = std::exchange(waiting_.front()->step, nullptr);
  waiting_.pop_front();
  step();
  runNextSoon();
}

}  // namespace qn
