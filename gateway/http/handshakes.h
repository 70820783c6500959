// The TLS handshakes that are under way on one reactor: bounded in number, in all and for each
// client, and taking turns, so that many at once keep nobody's request waiting for more than one of
// them. Held by the service's core.
#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>

#include "gateway/metrics/counts.h"

namespace qn {

class OpenConnection;

// On its reactor, but for underWay() and setMost().
class Handshakes {
 public:
  using Clock = std::chrono::steady_clock;

  Handshakes(boost::asio::io_context& reactor, Sharded<HttpCounts>& counts)
      : reactor_(reactor), counts_(counts) {}

  // From now on so many; a quarter of them for one client.
  void setMost(std::size_t most) { most_ = most; }
  std::size_t underWay() const { return underWay_; }

 private:
  struct Entry {
    OpenConnection* connection;
    boost::asio::ip::address client;
    Clock::time_point since;
    std::function<void()> step = {};  // that waits for its turn
  };
  using Entries = std::list<Entry>;  // the longest first

 public:
  // One of them, from its begin() to its end; the connection outlives it.
  class Turn {
   public:
    // Where there is no room, the one that has taken longest is closed, and counts as failed. The
    // unspecified address stands for those who may have as many as there are.
    Turn(Handshakes& of, OpenConnection& connection, const boost::asio::ip::address& client)
        : of_(of), entry_(of.begin(connection, client)) {}
    ~Turn() { of_.end(entry_, succeeded_); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    Clock::time_point since() const { return entry_->since; }
    // Has its costly part run when those have run that came before; never inside of the call.
    void take(std::function<void()> step) { of_.queue(*entry_, std::move(step)); }
    void succeeded(bool resumed);

   private:
    Handshakes& of_;
    const Entries::iterator entry_;
    bool succeeded_ = false;
  };

 private:
  Entries::iterator begin(OpenConnection& connection, const boost::asio::ip::address& client);
  void end(Entries::iterator entry, bool succeeded);
  void closeLongest(const boost::asio::ip::address& client);
  void queue(Entry& entry, std::function<void()> step);
  void runNextSoon();
  void runNext();

  boost::asio::io_context& reactor_;
  Sharded<HttpCounts>& counts_;
  std::atomic<std::size_t> most_{1};
  std::atomic<std::size_t> underWay_{0};
  Entries entries_;
  std::deque<Entry*> waiting_;  // for their turns
  bool coming_ = false;         // runNext() is
};

}  // namespace qn
