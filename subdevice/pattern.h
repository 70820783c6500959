// The path of a resource, with "%d" where a number stands. The tables of the simulator have them.
#pragma once

#include <array>
#include <charconv>
#include <string_view>

#include "text/ascii.h"

namespace subdevice {

class Pattern {
 public:
  consteval Pattern(const char* text) : text_(text), head_(text_.substr(0, text_.find("%d"))) {}

  std::string_view text() const { return text_; }
  bool hasNumber() const { return head_.size() != text_.size(); }

  // Takes the path's start off it and fills the numbers (at most two) when it fits; what follows is
  // left in `path`.
  bool takeFrom(std::string_view& path, std::array<int, 2>& ids) const {
    std::string_view pattern = text_;
    std::size_t head = head_.size();
    for (std::size_t next = 0;; ++next) {
      if (path.substr(0, head) != pattern.substr(0, head)) return false;
      path.remove_prefix(head);
      pattern.remove_prefix(head);
      if (pattern.empty()) return true;
      if (!takeNumber(path, ids[next])) return false;
      pattern.remove_prefix(2);
      head = std::min(pattern.find("%d"), pattern.size());
    }
  }

  static bool takeNumber(std::string_view& path, int& number) {
    if (path.empty() || !qn::text::isDigit(path[0])) return false;
    const auto read = std::from_chars(path.data(), path.data() + path.size(), number);
    if (read.ec != std::errc()) return false;
    path.remove_prefix(static_cast<std::size_t>(read.ptr - path.data()));
    return true;
  }

 private:
  std::string_view text_;
  std::string_view head_;  // up to the first number
};

}  // namespace subdevice
