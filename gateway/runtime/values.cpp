// UUIDs and C-strings of platform/zrt.h.
#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <span>

#include "gateway/runtime/operation.h"
#include "platform/zrt.h"
#include "text/hex.h"

namespace {

const char* orEmpty(const char* text) { return text == nullptr ? "" : text; }

std::size_t orZero(int count) { return count < 0 ? 0 : static_cast<std::size_t>(count); }

}  // namespace

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

int32_t ZRT_Atoi32(const char* text) {
  using Limits = std::numeric_limits<int32_t>;
  const long long value = std::strtoll(orEmpty(text), nullptr, 10);
  return static_cast<int32_t>(std::clamp<long long>(value, Limits::min(), Limits::max()));
}

char* ZRT_Itoa(int32_t value, char* text, int size, int base) {
  if (text == nullptr || size < 1 || base < 2 || base > 36) return nullptr;
  const auto [end, error] = std::to_chars(text, text + size - 1, value, base);
  if (error != std::errc()) return nullptr;
  *end = '\0';
  return text;
}

int ZRT_Strcmp(const char* a, const char* b) { return std::strcmp(orEmpty(a), orEmpty(b)); }

int ZRT_Strncmp(const char* a, const char* b, int count) {
  return std::strncmp(orEmpty(a), orEmpty(b), orZero(count));
}

char* ZRT_Strncpy(char* to, const char* from, int count) {
  if (to == nullptr) return nullptr;
  const std::size_t length = strnlen(orEmpty(from), orZero(count));
  std::memcpy(to, orEmpty(from), length);
  to[length] = '\0';
  return to;
}

const char* ZRT_Strstr(const char* text, const char* part) {
  return std::strstr(orEmpty(text), orEmpty(part));
}
