// Changes [[users]] and [[devices]] in the text of a TOML file and leaves every other byte of it as
// it stands: comments, blank lines, the order and the notation of what nobody asked to change. Used
// by the commands.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qn {

struct Assignment {
  std::string key;
  std::optional<std::string> value;  // as TOML; none: the key goes, with its line
};
using Assignments = std::vector<Assignment>;

// Which section of the file: that of `list` where `key` has this text.
struct EntryName {
  std::string_view list;
  std::string_view key;
  std::string_view name;
};

// All of them throw std::runtime_error with what is wrong: the text is no TOML, the entry is not
// there, or it is written in a way that cannot be changed without touching others (inline tables).

bool hasEntry(const std::string& text, const EntryName& entry);
// Appends a section; the name is its first key.
std::string withEntry(const std::string& text, const EntryName& entry, const Assignments& keys);
// Keys that are there get their value in place, others a line behind the last one.
std::string withChanged(const std::string& text, const EntryName& entry, const Assignments& keys);
// Without the section, from its head to its last key; comments above and below stay.
std::string withoutEntry(const std::string& text, const EntryName& entry);

}  // namespace qn
