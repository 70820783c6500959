// The connections that the service has room for, in all and for each client. The listener takes a
// place for every connection, which gives it back when it closes.
#pragma once

#include <atomic>
#include <boost/asio/ip/address.hpp>
#include <cstddef>
#include <map>
#include <utility>

#include "gateway/sync/mutex.h"

namespace qn {

// Any thread. Outlives its places.
class Places {
 public:
  Places(std::size_t all, std::size_t ofOne) : all_(all), ofOne_(ofOne) {}

  // One that was taken; given back at the end.
  class Place {
   public:
    Place() = default;
    Place(Place&& other) noexcept
        : places_(std::exchange(other.places_, nullptr)), client_(std::move(other.client_)) {}
    Place& operator=(Place&& other) noexcept {
      std::swap(places_, other.places_);
      std::swap(client_, other.client_);
      return *this;
    }
    ~Place() { giveBack(); }

    void giveBack() {
      if (places_ != nullptr) std::exchange(places_, nullptr)->leave(client_);
    }

   private:
    friend class Places;
    Places* places_ = nullptr;  // null when it holds nothing
    boost::asio::ip::address client_;
  };

  // From now on; places beyond it stay until they are given back.
  void setLimits(std::size_t all, std::size_t ofOne) {
    all_ = all;
    ofOne_ = ofOne;
  }
  bool hasRoom() const { return taken_ < all_; }
  std::size_t taken() const { return taken_; }
  std::size_t all() const { return all_; }
  // For a client by its network (clientNetwork of client_address.h). The unspecified address stands
  // for those who may have as many as they like.
  // False when all are taken or the client has enough.
  bool take(const boost::asio::ip::address& client, Place& place) {
    const MutexLock lock(mutex_);
    if (taken_ >= all_) return false;
    if (!client.is_unspecified()) {
      const auto [entry, isNew] = byClient_.try_emplace(client, 0);
      if (entry->second >= ofOne_) return false;
      ++entry->second;
    }
    ++taken_;
    place.places_ = this;
    place.client_ = client;
    return true;
  }

 private:
  void leave(const boost::asio::ip::address& client) {
    const MutexLock lock(mutex_);
    --taken_;
    const auto found = byClient_.find(client);
    if (found != byClient_.end() && --found->second == 0) byClient_.erase(found);
  }

  std::atomic<std::size_t> all_;
  std::atomic<std::size_t> ofOne_;
  std::atomic<std::size_t> taken_{0};  // changed with the mutex held
  Mutex mutex_;
  std::map<boost::asio::ip::address, std::size_t> byClient_ QN_GUARDED_BY(mutex_);
};

}  // namespace qn
