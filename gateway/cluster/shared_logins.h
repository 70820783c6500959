// Failed logins, locks and nonces of several gateways, through Redis. Made by the host when
// [cluster] redis names a server.
#pragma once

#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "gateway/login/login.h"
#include "gateway/login/peers.h"
#include "gateway/metrics/counts.h"
#include "gateway/redis/redis_client.h"

namespace qn {

// Failures: each is counted in Redis by one script, which sets the expiry too and tells all
// gateways; each has all of them in its own table and decides by that. A gateway that was cut off,
// or finds Redis empty, says what it knows and reads what the others do.
//
// Nonces: the gateway that holds one gives it away when another asks; the one that asks is the
// holder from then on. What stands in Redis of it is only whom to ask: that a count is accepted
// once does not rest on it. A nonce that is lost on the way, or whose holder is gone, is stale.
//
// The client and the login outlive it; the client is started afterwards and stopped before it goes.
class SharedLogins final : public LoginPeers {
 public:
  // Keys and channels begin with `prefix`. `nameKey`: the same secret on all gateways. `fetchTime`:
  // the longest that a request waits for its nonce.
  SharedLogins(RedisClient& redis, Login& login, std::string prefix, std::string_view nameKey,
               std::chrono::milliseconds fetchTime = kFetchTime);

  // This process's number, as its nonces carry it.
  const std::string& self() const { return self_; }

  const SharedLoginCounts& counts() const { return counts_; }

  void failed(ClientNetwork network, uint32_t name, std::chrono::seconds lockTime) override;
  void forgotten(ClientNetwork network, uint32_t name, const LockOptions& options) override;
  void unlocked(ClientNetwork network) override;
  void fetch(uint32_t maker, std::string_view nonce, std::string_view user,
             std::function<void()> done) override;

 private:
  void connected();
  void load(const std::string& cursor);
  void hear(std::string_view message);
  void learn(std::string_view record);
  void asked(std::string_view message);
  void give(std::string_view asker, std::string_view token, std::string_view nonce,
            std::string_view user);
  void given(std::string_view token, std::string_view rest);
  void ask(uint32_t maker, const std::string& nonce, const std::string& user,
           std::function<void()> done);
  void finish(uint64_t token);
  void lose(uint64_t token, NonceLoss reason);
  void countLoss(NonceLoss reason) { counts_.noncesLost[std::size_t(reason)].add(); }
  std::string keyOf(ClientNetwork network) const;
  std::string keyOf(std::string_view nonce, std::string_view user) const;

  RedisClient& redis_;
  Login& login_;
  const std::string prefix_;
  const std::string channel_;  // of all
  const std::string self_;
  const std::chrono::milliseconds fetchTime_;
  SharedLoginCounts counts_;

  // The client's thread's own:
  struct Fetch {
    std::function<void()> done;
    std::unique_ptr<boost::asio::steady_timer> deadline;
  };
  std::unordered_map<uint64_t, Fetch> fetches_;
  uint64_t lastToken_ = 0;
};

}  // namespace qn
