// See redis_url.h.
#include "gateway/config/redis_url.h"

#include <algorithm>

#include "text/hex.h"
#include "text/number.h"

namespace qn {
namespace {

constexpr int kDatabases = 1024;  // more than anybody configures

std::optional<std::string> decoded(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    const auto byte = text::wholeNumber<unsigned>(text.substr(std::min(i + 1, text.size()), 2), 16);
    if (!byte || i + 2 >= text.size()) return std::nullopt;
    out += static_cast<char>(*byte);
    i += 2;
  }
  return out;
}

bool readLogin(std::string_view text, RedisAddress& address) {
  const std::size_t colon = std::min(text.find(':'), text.size());
  const auto user = decoded(text.substr(0, colon));
  const auto password = decoded(text.substr(std::min(colon + 1, text.size())));
  if (!user || !password || password->empty()) return false;
  address.username = *user;
  address.password = *password;
  return true;
}

bool readHost(std::string_view text, RedisAddress& address) {
  const bool bracketed = text.starts_with('[');
  const std::size_t end = std::min(bracketed ? text.find(']') : text.find(':'), text.size());
  if (bracketed && end == text.size()) return false;
  address.host = bracketed ? text.substr(1, end - 1) : text.substr(0, end);
  text.remove_prefix(bracketed ? end + 1 : end);
  if (address.host.empty() || text.empty()) return !address.host.empty();
  const auto port = text::wholeNumber<uint16_t>(text.substr(1));
  address.port = port.value_or(0);
  return text.front() == ':' && address.port != 0;
}

}  // namespace

std::optional<RedisAddress> parseRedisUrl(std::string_view url) {
  constexpr std::string_view kScheme = "redis://";
  if (!url.starts_with(kScheme)) return std::nullopt;
  url.remove_prefix(kScheme.size());
  RedisAddress address;
  const std::size_t slash = std::min(url.find('/'), url.size());
  std::string_view authority = url.substr(0, slash);
  const std::string_view database = url.substr(std::min(slash + 1, url.size()));
  if (const std::size_t at = authority.rfind('@'); at != authority.npos) {
    if (!readLogin(authority.substr(0, at), address)) return std::nullopt;
    authority.remove_prefix(at + 1);
  }
  if (!readHost(authority, address)) return std::nullopt;
  if (!database.empty()) {
    const auto number = text::wholeNumber<int>(database);
    if (!number || *number < 0 || *number >= kDatabases) return std::nullopt;
    address.database = *number;
  }
  return address;
}

}  // namespace qn
