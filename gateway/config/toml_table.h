// Reads one table of the configuration file by the list of its keys, and writes values as the file
// has them. Used by configuration_file and by key_texts.
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

#include "gateway/config/configuration.h"
#include "gateway/config/findings.h"
#include "gateway/config/text_rules.h"

namespace qn {

struct Range {
  int64_t min = 0;
  int64_t max = std::numeric_limits<int64_t>::max();
};

// What else holds for a key.
struct KeyTraits {
  bool required = false;
  bool secret = false;              // its value is never shown
  bool restart = false;             // takes effect at the next start only
  const char* unit = "";            // of a number
  std::string_view otherwise = {};  // what holds without it, where no default says that
  std::string_view example = {};    // as TOML, for what has no default that helps
};

// One row: a key of a section that is kept in an S.
template <class S>
struct Key {
  using Member =
      std::variant<bool S::*, int S::*, uint16_t S::*, std::size_t S::*, std::chrono::seconds S::*,
                   std::string S::*, std::vector<std::string> S::*, DigestAlgorithm S::*,
                   PictureOptions::WhenFull S::*, DeviceAuth S::*, ClientCertificates S::*>;

  std::string_view name;
  Member member;
  Range range = {};                // of a number
  const TextRule* rule = nullptr;  // of a text, or of each text of a list
  std::string_view about = {};     // one line
  KeyTraits traits = {};
};

// The values as TOML.
std::string tomlText(bool value);
std::string tomlText(int64_t value);
std::string tomlText(const std::string& value);
std::string tomlText(const std::vector<std::string>& value);
std::string tomlText(DigestAlgorithm value);
std::string tomlText(PictureOptions::WhenFull value);
std::string tomlText(DeviceAuth value);
std::string tomlText(ClientCertificates value);
inline std::string tomlText(std::chrono::seconds value) { return tomlText(value.count()); }
inline std::string tomlText(int value) { return tomlText(int64_t{value}); }
inline std::string tomlText(uint16_t value) { return tomlText(int64_t{value}); }
inline std::string tomlText(std::size_t value) { return tomlText(int64_t(value)); }

// What a user sees of a value that is wrong: its kind when it is long.
std::string shownValue(const toml::node& node);

// One value as the kind of its target. What is wrong is found at the place and leaves the target
// alone.
struct ValueReader {
  const toml::node& node;
  const Place& place;
  Range range;
  const TextRule* rule;
  bool secret;
  Findings& findings;

  void into(bool& target) const;
  void into(std::string& target) const;
  void into(std::vector<std::string>& target) const;
  void into(DigestAlgorithm& target) const;
  void into(PictureOptions::WhenFull& target) const;
  void into(DeviceAuth& target) const;
  void into(ClientCertificates& target) const;
  void into(std::chrono::seconds& target) const;
  void into(int& target) const { number(target); }
  void into(uint16_t& target) const { number(target); }
  void into(std::size_t& target) const { number(target); }

 private:
  template <class Number>
  void number(Number& target) const {
    if (isNumber()) target = Number(node.as_integer()->get());
  }
  bool isNumber() const;
  bool isText(const toml::node& from) const;
  void fail(const toml::node& from, std::string what) const;
};

inline Place placeOf(const toml::source_region& at, std::string key) {
  return {at.begin.line, at.begin.column, std::move(key), at.path};
}

// Keys that the table does not have, or has wrong, leave their members alone.
template <class S, std::size_t N>
void readTable(const toml::table& table, const Key<S> (&keys)[N], const Place& section, S& target,
               Findings& findings) {
  const auto fullName = [&](std::string_view key) { return section.key + '.' + std::string(key); };
  for (const auto& [tomlKey, node] : table) {
    const std::string_view name = tomlKey.str();
    const auto key = std::ranges::find(keys, name, &Key<S>::name);
    if (key == std::end(keys)) {
      std::vector<std::string_view> names;
      for (const Key<S>& each : keys) names.push_back(each.name);
      findings.error(placeOf(tomlKey.source(), fullName(name)),
                     "unknown key" + didYouMean(name, names));
      continue;
    }
    const Place place = placeOf(node.source(), fullName(name));
    const ValueReader reader{node, place, key->range, key->rule, key->traits.secret, findings};
    std::visit([&](auto member) { reader.into(target.*member); }, key->member);
  }
  for (const Key<S>& key : keys) {
    if (key.traits.required && !table.contains(key.name)) {
      findings.absence({section.line, section.column, fullName(key.name), section.file},
                       "is missing");
    }
  }
}

}  // namespace qn
