// What operators read about the configuration's keys, made from their tables. Called by the host
// for --explain, --print-defaults, the manual page and the shells' completion.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qn {

// One key in words.
struct KeyFacts {
  std::string name;      // "section.key"
  std::string about;     // one line
  std::string kind;      // "integer from 1 to 65535, in seconds", "text: an IP address", ...
  std::string standard;  // what holds without it: a value as TOML, or words
  std::string line;      // of an example: "key = value"
  std::vector<std::string_view> choices = {};
  enum class Shape { Flag, Number, Text, List } shape = Shape::Text;
  bool secret = false;
  bool required = false;
  bool restart = false;
};

struct SectionFacts {
  std::string name;
  std::string about;
  bool isList;
  std::vector<KeyFacts> keys;
};

const std::vector<SectionFacts>& sectionFacts();

// What there is to say about one key, "section.key", about all keys of a section, or about all for
// an empty name. Empty for a name that there is not; didYouMeanKey() then has a guess.
std::string explanationOf(std::string_view name);
std::string didYouMeanKey(std::string_view name);

// A configuration with every key, its default behind a "#", and one user and one device.
std::string exampleConfiguration();

// gateway.toml(5), as troff.
std::string manualPage();

// Words for a shell, a line each: "section" and "section.key".
std::string completionWords();

}  // namespace qn
