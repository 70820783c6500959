// A device's reply as the device-configuration bus reads it: in pieces, whose size the first byte
// gives, through the connection's buffer.
#include <algorithm>
#include <boost/beast/http/error.hpp>
#include <cstring>

#include "fuzz/require.h"
#include "gateway/devices/message.h"

namespace {
constexpr std::size_t kBodyLimit = 4096;
}

void fuzz(std::string_view rest) {
  if (rest.empty()) return;
  const std::size_t piece = static_cast<unsigned char>(rest[0]) + std::size_t{1};
  rest.remove_prefix(1);
  qn::ReadBuffer buffer;
  qn::ReplyParser reply(kBodyLimit);
  while (!rest.empty() && !reply.is_done()) {
    const auto space = buffer.space();
    if (space.size() == 0) return;
    const std::size_t count = std::min({piece, space.size(), rest.size()});
    std::memcpy(space.data(), rest.data(), count);
    buffer.commit(count);
    rest.remove_prefix(count);
    boost::system::error_code error;
    const std::string_view bytes = buffer.unread();
    buffer.consume(reply.put(boost::asio::buffer(bytes), error));
    if (error && error != boost::beast::http::error::need_more) return;
    if (!reply.is_done()) reply.keepBody();
  }
  Require(reply.body().data() != nullptr && reply.body().size() <= kBodyLimit);
}
