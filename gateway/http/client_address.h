// Who a client is to the HTTP service: its address, the network that it is counted by, and the
// proxies that speak for others.
#pragma once

#include <boost/asio/ip/address.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace qn {

// An IPv4 client of an IPv6 socket has its IPv4 address. Everything below takes plain addresses.
boost::asio::ip::address plainAddress(const boost::asio::ip::address& peer);

// What counts as one client: an IPv4 address; of an IPv6 address the /64, because a host has as
// many addresses in it as it likes.
boost::asio::ip::address clientNetwork(const boost::asio::ip::address& address);

// Constant after construction.
class TrustedProxies {
 public:
  // Addresses and networks (ADDRESS/BITS). Throws std::system_error for any other text.
  explicit TrustedProxies(const std::vector<std::string>& networks);

  bool contains(const boost::asio::ip::address& address) const;
  // The client behind a peer that is trusted. Proxies append the address they see to
  // X-Forwarded-For, so what stands before the first that no trusted proxy wrote is the client's
  // own invention. `fields` are the header lines.
  boost::asio::ip::address client(boost::asio::ip::address peer, std::string_view fields) const;

 private:
  struct Network {
    boost::asio::ip::address address;
    unsigned short bits;
  };
  std::vector<Network> networks_;
};

}  // namespace qn
