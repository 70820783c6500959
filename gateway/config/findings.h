// What is wrong, or looks wrong, in a configuration file: collected while it is read, shown sorted
// by place. Used by the readers of this folder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qn {

// A place of the file, or of one that it includes.
struct Place {
  uint32_t line = 0;  // 0: unknown
  uint32_t column = 0;
  std::string key = {};                          // with its section's name; empty: unknown
  std::shared_ptr<const std::string> file = {};  // that is included; null: the file itself

  std::string_view includedFile() const { return file ? std::string_view(*file) : ""; }
};

class Findings {
 public:
  // Further errors are only counted, so that a file that is no configuration at all stays readable.
  static constexpr std::size_t kMost = 100;

  // `file` stands at the start of every line.
  explicit Findings(std::string file) : file_(std::move(file)) {}

  void error(const Place& place, std::string what);
  // For something that is not there; not said once lines could not be read, where it may stand.
  void absence(const Place& place, std::string what);
  void leftLinesOut() { complete_ = false; }
  void warning(const Place& place, std::string what);

  bool hasErrors() const { return !errors_.empty(); }
  const std::string& file() const { return file_; }
  // Whether an error names this key in this line.
  bool hasErrorAt(const Place& place) const;

  // "FILE:LINE:COLUMN: KEY: what", as far as they are known, sorted by place: the file itself
  // first.
  std::vector<std::string> errors() const;
  std::vector<std::string> warnings() const { return lines(warnings_); }

 private:
  struct Finding {
    Place place;
    std::string what;
  };

  std::vector<std::string> lines(std::vector<Finding> findings) const;

  const std::string file_;
  std::vector<Finding> errors_;
  std::vector<Finding> warnings_;
  std::size_t notKept_ = 0;
  bool complete_ = true;
};

// "; did you mean "X"?" for the one of the names that differs from the text by a slip of the hand:
// upper and lower case, one or two letters missing, added, replaced or swapped, or its end.
// Otherwise empty.
std::string didYouMean(std::string_view text, std::span<const std::string_view> names);

}  // namespace qn
