// What a login tells the other gateways, and asks of them. Login decides by itself and at once;
// whoever implements this keeps its state near that of the others. Set by the host.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string_view>

#include "gateway/login/lockout.h"

namespace qn {

// Any thread. All but `fetch` only say what has happened here; nothing waits for anything.
class LoginPeers {
 public:
  virtual ~LoginPeers() = default;

  // Names are hashes, as Lockout::hash makes them.
  virtual void failed(ClientNetwork network, uint32_t name, std::chrono::seconds lockTime) = 0;
  // Unless others have locked the network meanwhile.
  virtual void forgotten(ClientNetwork network, uint32_t name, const LockOptions& options) = 0;
  virtual void unlocked(ClientNetwork network) = 0;

  // Asks for a nonce that another gateway has made. `done` is called once, on any thread, when it
  // is here (Login::take) or cannot be had; at the latest after kFetchTime.
  static constexpr std::chrono::milliseconds kFetchTime{50};
  virtual void fetch(uint32_t maker, std::string_view nonce, std::string_view user,
                     std::function<void()> done) = 0;
};

// A gateway by itself.
class NoPeers final : public LoginPeers {
 public:
  void failed(ClientNetwork, uint32_t, std::chrono::seconds) override {}
  void forgotten(ClientNetwork, uint32_t, const LockOptions&) override {}
  void unlocked(ClientNetwork) override {}
  void fetch(uint32_t, std::string_view, std::string_view, std::function<void()> done) override {
    done();
  }
};

}  // namespace qn
