// UUIDs of platform/zrt.h.
#include <sys/random.h>

#include <cerrno>

#include "gateway/runtime/last_error.h"
#include "platform/zrt.h"

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
  constexpr char kHex[] = "0123456789abcdef";
  char* out = text;
  for (int i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) *out++ = '-';
    *out++ = kHex[uuid.bytes[i] >> 4];
    *out++ = kHex[uuid.bytes[i] & 0xf];
  }
  *out = '\0';
  return 0;
}
