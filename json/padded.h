// A text with the readable bytes behind it that simdjson asks for. Inside this room only.
#pragma once

#include <simdjson.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

namespace qn::json {

// Nesting that simdjson reads; deeper texts are left to jsoncpp, which takes a thousand levels.
inline constexpr std::size_t kMaxDepth = 512;

// Grows with the texts; whoever keeps one for the next text asks isSmall() first.
class Padded {
 public:
  // Valid until the next call.
  simdjson::padded_string_view hold(std::string_view text) {
    if (bytes_ == nullptr || text.size() > capacity_) {
      capacity_ = std::max<std::size_t>(text.size(), 4096);
      bytes_ = std::make_unique_for_overwrite<char[]>(capacity_ + simdjson::SIMDJSON_PADDING);
    }
    std::memcpy(bytes_.get(), text.data(), text.size());
    std::memset(bytes_.get() + text.size(), ' ', simdjson::SIMDJSON_PADDING);
    return simdjson::padded_string_view(bytes_.get(), text.size(),
                                        capacity_ + simdjson::SIMDJSON_PADDING);
  }
  std::size_t capacity() const { return capacity_; }
  bool isSmall() const { return capacity_ <= 256 * 1024; }

 private:
  std::unique_ptr<char[]> bytes_;
  std::size_t capacity_ = 0;
};

// A strict reading: what it takes, jsoncpp takes with the same structure.
class StrictParser {
 public:
  // The root is valid until the next call. False without memory, too.
  bool read(std::string_view text, simdjson::dom::element& root) {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (text.starts_with(kByteOrderMark)) return false;
    held_ = padded_.hold(text);
    if (parser_.capacity() < padded_.capacity() &&
        parser_.allocate(padded_.capacity(), kMaxDepth) != simdjson::SUCCESS) {
      return false;
    }
    return parser_.parse(held_.data(), held_.size(), false).get(root) == simdjson::SUCCESS;
  }
  simdjson::padded_string_view held() const { return held_; }
  bool isSmall() const { return padded_.isSmall(); }

 private:
  Padded padded_;
  simdjson::padded_string_view held_;
  simdjson::dom::parser parser_;
};

}  // namespace qn::json
