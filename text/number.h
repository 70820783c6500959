// Numbers to text and back, without locale and without allocation.
#pragma once

#include <charconv>
#include <concepts>
#include <optional>
#include <string>
#include <string_view>

namespace qn::text {

// The decimal digits of an integer, held in place.
class Decimal {
 public:
  explicit Decimal(std::integral auto number)
      : end_(std::to_chars(digits_, digits_ + sizeof digits_, number).ptr) {}
  Decimal(const Decimal&) = delete;
  Decimal& operator=(const Decimal&) = delete;

  std::string_view view() const { return {digits_, static_cast<std::size_t>(end_ - digits_)}; }

 private:
  char digits_[20];  // a 64-bit number with its sign
  const char* end_;
};

inline void appendDecimal(std::string& out, std::integral auto number) {
  out += Decimal(number).view();
}

// The number that the whole text is: digits, behind a minus for signed types; nothing for an empty
// text, any other character, or a number that does not fit.
template <std::integral Number>
std::optional<Number> wholeNumber(std::string_view text, int base = 10) {
  Number number{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, base);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

}  // namespace qn::text
