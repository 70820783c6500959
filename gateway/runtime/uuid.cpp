// UUIDs of platform/zrt.h.
#include <sys/random.h>

#include <cerrno>
#include <span>

#include "gateway/runtime/last_error.h"
#include "platform/zrt.h"
#include "text/hex.h"

int ZRT_GetUUID(ZRT_UUID& uuid) {
  // Up to 256 bytes come whole or not at all; only the wait for the first seed can be interrupted.
  while (getrandom(uuid.bytes, sizeof uuid.bytes, 0) < 0) {
    if (errno != EINTR) return qn::fail(errno);
  }
  uuid.bytes[6] = static_cast<uint8_t>((uuid.bytes[6] & 0x0f) | 0x40);  // version 4
  uuid.bytes[8] = static_cast<uint8_t>((uuid.bytes[8] & 0x3f) | 0x80);  // RFC 4122's variant
  return 0;
}

int ZRT_StringFromUUID(const ZRT_UUID& uuid, char* text, int size) {
  constexpr int kTextSize = 37;
  if (text == nullptr || size < kTextSize) return qn::fail(EINVAL);
  std::span<const uint8_t> rest(uuid.bytes);
  char* out = text;
  for (const std::size_t group : {4, 2, 2, 2, 6}) {
    if (out != text) *out++ = '-';
    out = qn::text::writeHex(rest.first(group), out);
    rest = rest.subspan(group);
  }
  *out = '\0';
  return 0;
}
