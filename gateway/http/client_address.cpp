// See client_address.h.
#include "gateway/http/client_address.h"

#include <algorithm>
#include <boost/asio/error.hpp>
#include <boost/asio/ip/network_v4.hpp>
#include <boost/asio/ip/network_v6.hpp>
#include <optional>
#include <system_error>

#include "gateway/http/header_lines.h"
#include "text/ascii.h"
#include "text/number.h"

namespace qn {
namespace {

namespace ip = boost::asio::ip;

constexpr unsigned short kIPv4Bits = 32;
constexpr unsigned short kIPv6Bits = 128;
constexpr unsigned short kClientBits = 64;  // of an IPv6 address

std::optional<ip::address> parsed(std::string_view text) {
  boost::system::error_code ec;
  const ip::address address = ip::make_address(std::string(text), ec);
  return ec ? std::nullopt : std::optional(address);
}

// The address with only its first bits.
ip::address network(const ip::address& address, unsigned short bits) {
  if (address.is_v4()) return ip::make_network_v4(address.to_v4(), bits).network();
  return ip::make_network_v6(address.to_v6(), bits).network();
}

// The values of all lines of that name, as one list.
std::string allValues(std::string_view fields, std::string_view name) {
  std::string list;
  for (HeaderLine line = findHeader(fields, name); line.found();
       line = findHeader(fields, name, line.end)) {
    if (!list.empty()) list += ',';
    list += line.value;
  }
  return list;
}

// An address as proxies write it: some put it in brackets, some add the port.
std::optional<ip::address> forwardedAddress(std::string_view text) {
  if (text.starts_with('[')) {
    text = text.substr(1, text.find(']') - 1);
  } else if (const std::size_t colon = text.find(':'); text.rfind(':') == colon) {
    text = text.substr(0, colon);
  }
  const auto address = parsed(text);
  return address ? std::optional(plainAddress(*address)) : std::nullopt;
}

}  // namespace

ip::address plainAddress(const ip::address& peer) {
  if (!peer.is_v6() || !peer.to_v6().is_v4_mapped()) return peer;
  return ip::make_address_v4(ip::v4_mapped, peer.to_v6());
}

ip::address clientNetwork(const ip::address& address) {
  return address.is_v4() ? address : network(address, kClientBits);
}

TrustedProxies::TrustedProxies(const std::vector<std::string>& networks) {
  for (const std::string_view text : networks) {
    const std::size_t slash = text.find('/');
    const auto address = parsed(text.substr(0, slash));
    const unsigned short all = address && address->is_v4() ? kIPv4Bits : kIPv6Bits;
    const auto bits =
        slash == text.npos ? all : text::wholeNumber<unsigned short>(text.substr(slash + 1));
    if (!address || !bits || *bits > all) {
      throw std::system_error(std::make_error_code(std::errc::invalid_argument),
                              "trusted proxy \"" + std::string(text) + "\"");
    }
    // ::ffff:10.0.0.0/104 is 10.0.0.0/8.
    const ip::address plain = plainAddress(*address);
    const int dropped = plain.is_v4() && all == kIPv6Bits ? kIPv6Bits - kIPv4Bits : 0;
    const auto left = static_cast<unsigned short>(std::max(*bits - dropped, 0));
    networks_.push_back({network(plain, left), left});
  }
}

bool TrustedProxies::contains(const ip::address& address) const {
  return std::ranges::any_of(networks_, [&](const Network& trusted) {
    return trusted.address.is_v4() == address.is_v4() &&
           network(address, trusted.bits) == trusted.address;
  });
}

ip::address TrustedProxies::client(ip::address peer, std::string_view fields) const {
  const std::string forwarded = allValues(fields, "X-Forwarded-For");
  std::string_view rest = forwarded;
  while (contains(peer) && !rest.empty()) {
    const std::size_t comma = rest.rfind(',');
    const std::size_t start = comma == rest.npos ? 0 : comma + 1;
    const auto next = forwardedAddress(text::trim(rest.substr(start)));
    if (!next) break;  // nobody knows who that is: the proxy answers for it
    peer = *next;
    rest = rest.substr(0, start == 0 ? 0 : comma);
  }
  return peer;
}

}  // namespace qn
