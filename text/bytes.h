// What is asked of all bytes of a text, and texts put together from pieces, for the ways that every
// request goes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>

namespace qn::text {

// Whether there is a byte of a kind. `isOfKind` is asked about one signed char and about vectors of
// them, which the processor compares at once; so it consists of comparisons with constants, joined
// by & and |.
template <class Kind>
bool anyByte(std::string_view text, Kind isOfKind) {
  using Long [[gnu::vector_size(16)]] = signed char;
  using Short [[gnu::vector_size(8)]] = signed char;
  const auto inBlock = [isOfKind](const char* at, auto block) {
    std::memcpy(&block, at, sizeof block);
    const auto found = isOfKind(block);
    std::uint64_t words[sizeof block / 8];
    std::memcpy(words, &found, sizeof words);
    return (words[0] | words[sizeof block / 8 - 1]) != 0;
  };
  const char* at = text.data();
  const char* const end = at + text.size();
  if (text.size() >= sizeof(Long)) {
    const char* const last = end - sizeof(Long);  // may overlap the one before
    for (; at < last; at += sizeof(Long)) {
      if (inBlock(at, Long())) return true;
    }
    return inBlock(last, Long());
  }
  if (text.size() >= sizeof(Short)) {
    return inBlock(at, Short()) || inBlock(end - sizeof(Short), Short());
  }
  for (; at != end; ++at) {
    if (isOfKind(static_cast<signed char>(*at))) return true;
  }
  return false;
}

// Copies the text to `out`, which has room for it: the place behind.
inline char* copyTo(char* out, std::string_view text) { return out + text.copy(out, text.size()); }

// Appends the pieces, none of which is a part of `out`. It grows once at most.
inline void appendAll(std::string& out, std::initializer_list<std::string_view> pieces) {
  std::size_t size = 0;
  for (const std::string_view piece : pieces) size += piece.size();
  const std::size_t before = out.size();
  out.resize(before + size);
  char* at = out.data() + before;
  for (const std::string_view piece : pieces) at = copyTo(at, piece);
}

}  // namespace qn::text
