// Where a Redis server is and how to log in there. Read from [cluster] redis.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qn {

struct RedisAddress {
  std::string host;
  uint16_t port = 6379;
  std::string username;  // none: the default user
  std::string password;  // none: no login
  int database = 0;
};

// redis://[USER[:PASSWORD]@]HOST[:PORT][/DATABASE], an IPv6 host in brackets, "%41" in user and
// password as "A". Nothing for any other text.
std::optional<RedisAddress> parseRedisUrl(std::string_view url);

}  // namespace qn
