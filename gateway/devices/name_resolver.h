// Finds the addresses that host names of devices stand for. The system's look-up blocks for as long
// as name servers are silent and cannot be interrupted, so it runs on threads of its own, which
// nobody waits for. Owned by the DeviceDirectory, asked by the dialers.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/ip/address.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

namespace qn {

// Any thread. Each name is looked up once at a time, however many ask, and backs off by itself.
class NameResolver {
 public:
  using Addresses = std::vector<boost::asio::ip::address>;
  // Blocks; none when the name has none or cannot be found. Must not throw.
  using Lookup = std::function<Addresses(const std::string& name)>;
  using Found = std::function<void(const Addresses&)>;

  static constexpr std::size_t kThreads = 16;    // names that are looked up at once
  static constexpr std::size_t kWaiting = 1024;  // for one name
  // From one look-up of a name to the next; doubled after each that found nothing.
  static constexpr std::chrono::seconds kPause{1};
  static constexpr std::chrono::seconds kLongestPause{60};

  // The system's; others only in tests.
  explicit NameResolver(Lookup lookup = systemLookup);
  // Does not wait for look-ups under way: who asked for them is told nothing any more.
  ~NameResolver();
  NameResolver(const NameResolver&) = delete;
  NameResolver& operator=(const NameResolver&) = delete;

  // Calls `found` once, later, on the executor: with what is found, or with the last good addresses
  // while the name backs off or when it cannot be found.
  void find(const std::string& name, const boost::asio::any_io_executor& executor, Found found);
  Addresses lastGood(const std::string& name) const;
  // Forgets all other names.
  void keep(const std::unordered_set<std::string>& names);

  static Addresses systemLookup(const std::string& name);

 private:
  class Names;

  const std::shared_ptr<Names> names_;  // the threads' too
};

}  // namespace qn
