// getBinPart: where the JSON part of a face-library body ends and the picture begins. One pass over
// the JSON part without building a tree; the picture's bytes are only copied.
#include <algorithm>
#include <array>
#include <string_view>

#include "platform/base_library.h"

namespace {

// Finds the end of the object or array at the start of a text.
class JsonEnd {
 public:
  explicit JsonEnd(std::string_view text) : rest_(text) {}

  // True when the value is complete; rest() is what follows it then.
  bool find() {
    if (!skipBlanksAndComments() || rest_.empty()) return false;
    if (rest_[0] != '{' && rest_[0] != '[') return false;
    do {
      if (!skipToken()) return false;
    } while (nesting_ != 0);
    return true;
  }
  std::string_view rest() const { return rest_; }

 private:
  // Deeper nesting is no request of the protocol's.
  static constexpr std::size_t kMaxNesting = 1000;

  bool skipToken() {
    if (rest_.empty()) return false;
    const char first = rest_[0];
    rest_.remove_prefix(1);
    switch (first) {
      case '{':
        return open('}');
      case '[':
        return open(']');
      case '}':
      case ']':
        return expected_[--nesting_] == first;
      case '"':
        return skipString();
      case '/':
        return skipComment();
      default:
        return true;
    }
  }

  bool open(char closing) {
    if (nesting_ == kMaxNesting) return false;
    expected_[nesting_++] = closing;
    return true;
  }

  bool skipString() {
    for (std::size_t i = 0; i < rest_.size(); ++i) {
      if (rest_[i] == '"') {
        rest_.remove_prefix(i + 1);
        return true;
      }
      if (rest_[i] == '\\') ++i;
    }
    return false;
  }

  // Stands behind the slash. The reader that takes the JSON part allows comments.
  bool skipComment() {
    const bool block = rest_.starts_with('*');
    if (!block && !rest_.starts_with('/')) return false;
    const std::string_view mark = block ? "*/" : "\n";
    const std::size_t end = rest_.find(mark, 1);
    if (end == rest_.npos) return false;
    rest_.remove_prefix(end + mark.size());
    return true;
  }

  bool skipBlanksAndComments() {
    for (;;) {
      rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t\r\n"), rest_.size()));
      if (!rest_.starts_with('/')) return true;
      rest_.remove_prefix(1);
      if (!skipComment()) return false;
    }
  }

  std::string_view rest_;
  std::array<char, kMaxNesting> expected_{};  // the closing brackets, innermost last
  std::size_t nesting_ = 0;
};

}  // namespace

int getBinPart(std::string& picture, const char* body, int length,
               [[maybe_unused]] const std::string& jsonText) {
  picture.clear();
  if (body == nullptr || length <= 0) return 0;
  JsonEnd end({body, static_cast<std::size_t>(length)});
  if (!end.find()) return 0;
  // The JSON part may end in a line break of its own; no picture format begins with a blank.
  const std::string_view rest = end.rest();
  picture = rest.substr(std::min(rest.find_first_not_of(" \t\r\n"), rest.size()));
  return static_cast<int>(picture.size());
}
