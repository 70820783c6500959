// Reads one table of the configuration file by the list of its keys: which there are, of what kind,
// within which bounds, and into which member each goes. Used by configuration_file.
#pragma once

#include <toml++/toml.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "gateway/config/text_rules.h"

namespace qn {

// One value of the file, for error texts.
struct Place {
  const std::string& file;
  toml::source_index line;  // 0: unknown
  std::string key;          // with its section's name; empty: unknown

  [[noreturn]] void fail(const std::string& what) const;
};

struct Range {
  int64_t min = 0;
  int64_t max = std::numeric_limits<int64_t>::max();
};

// One row: a key of a section that is kept in an S.
template <class S>
struct Key {
  using Member =
      std::variant<bool S::*, int S::*, uint16_t S::*, std::size_t S::*, std::chrono::seconds S::*,
                   std::string S::*, std::vector<std::string> S::*, DigestAlgorithm S::*,
                   PictureOptions::WhenFull S::*, DeviceAuth S::*>;

  std::string_view name;
  Member member;
  Range range = {};                // of a number
  const TextRule* rule = nullptr;  // of a text, or of each text of a list
  bool required = false;
};

// One value as the kind of its target; each throws ConfigurationError at the place.
struct ValueReader {
  const toml::node& node;
  const Place& place;
  Range range;
  const TextRule* rule;

  int64_t integer() const;
  std::string text(const toml::node& from) const;

  void into(bool& target) const;
  void into(std::string& target) const { target = text(node); }
  void into(std::vector<std::string>& target) const;
  void into(DigestAlgorithm& target) const;
  void into(PictureOptions::WhenFull& target) const;
  void into(DeviceAuth& target) const;
  void into(std::chrono::seconds& target) const { target = std::chrono::seconds(integer()); }
  void into(int& target) const { target = int(integer()); }
  void into(uint16_t& target) const { target = uint16_t(integer()); }
  void into(std::size_t& target) const { target = std::size_t(integer()); }
};

// Keys that the table does not have leave their members alone.
template <class S, std::size_t N>
void readTable(const toml::table& table, const Key<S> (&keys)[N], const Place& section, S& target) {
  const auto placeOf = [&section](std::string_view key, toml::source_index line) {
    return Place{section.file, line, section.key + '.' + std::string(key)};
  };
  for (const auto& [tomlKey, node] : table) {
    const std::string_view name = tomlKey.str();
    const Place place = placeOf(name, tomlKey.source().begin.line);
    const auto* const key = std::find_if(std::begin(keys), std::end(keys),
                                         [name](const Key<S>& k) { return k.name == name; });
    if (key == std::end(keys)) place.fail("unknown key");
    const ValueReader reader{node, place, key->range, key->rule};
    std::visit([&](auto member) { reader.into(target.*member); }, key->member);
  }
  for (const Key<S>& key : keys) {
    if (key.required && !table.contains(key.name)) {
      placeOf(key.name, section.line).fail("is missing");
    }
  }
}

}  // namespace qn
