// Which entry of a list has a name: a table of positions with open addressing, 8 to 16 bytes for
// each entry, where nodes of a map take ten times that. Used by Configuration.
#pragma once

#include <bit>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace qn {

// `name` is the entries' member. Good for the list that it was built for and for copies of that.
template <class Entry, std::string Entry::*name>
class NameIndex {
 public:
  // Of two with one name the first counts.
  void build(const std::vector<Entry>& entries) {
    slots_.assign(std::bit_ceil(2 * entries.size()), kFree);
    for (uint32_t i = 0; i < entries.size(); ++i) {
      uint32_t& slot = slots_[slotOf(entries[i].*name, entries)];
      if (slot == kFree) slot = i;
    }
  }

  // Null when there is none, or nothing was built.
  const Entry* find(std::string_view text, const std::vector<Entry>& entries) const {
    if (slots_.empty()) return nullptr;
    const uint32_t found = slots_[slotOf(text, entries)];
    return found == kFree ? nullptr : &entries[found];
  }

 private:
  static constexpr uint32_t kFree = std::numeric_limits<uint32_t>::max();

  // That of the name, or the free one where it would be; half of them are free.
  std::size_t slotOf(std::string_view text, const std::vector<Entry>& entries) const {
    const std::size_t mask = slots_.size() - 1;
    std::size_t at = std::hash<std::string_view>()(text) & mask;
    while (slots_[at] != kFree && entries[slots_[at]].*name != text) at = (at + 1) & mask;
    return at;
  }

  std::vector<uint32_t> slots_;
};

}  // namespace qn
