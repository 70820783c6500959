// See findings.h.
#include "gateway/config/findings.h"

#include <algorithm>
#include <array>
#include <tuple>
#include <utility>

#include "text/ascii.h"

namespace qn {
namespace {

constexpr std::size_t kLongestName = 64;  // that is compared
constexpr std::size_t kMostSlips = 2;

// Letters missing, added, replaced or swapped with their neighbour, whatever their case.
std::size_t slipsBetween(std::string_view a, std::string_view b) {
  using Row = std::array<std::size_t, kLongestName + 1>;
  Row beforeLast{};
  Row last{};
  Row current{};
  for (std::size_t j = 0; j <= b.size(); ++j) current[j] = j;
  const auto same = [&](std::size_t i, std::size_t j) {
    return text::lower(a[i]) == text::lower(b[j]);
  };
  for (std::size_t i = 0; i < a.size(); ++i) {
    beforeLast = std::exchange(last, current);
    current[0] = i + 1;
    for (std::size_t j = 0; j < b.size(); ++j) {
      current[j + 1] = std::min({last[j] + (same(i, j) ? 0 : 1), last[j + 1] + 1, current[j] + 1});
      const bool swapped = i > 0 && j > 0 && same(i, j - 1) && same(i - 1, j);
      if (swapped) current[j + 1] = std::min(current[j + 1], beforeLast[j - 1] + 1);
    }
  }
  return current[b.size()];
}

// One goes on where the other ends.
bool beginsOther(std::string_view a, std::string_view b) {
  constexpr std::size_t kShortest = 3;
  const auto [shorter, longer] = a.size() < b.size() ? std::pair(a, b) : std::pair(b, a);
  return shorter.size() >= kShortest && text::startsWithNoCase(longer, shorter);
}

// Short names are all like each other.
std::size_t allowedSlips(std::string_view name) {
  return std::min<std::size_t>(kMostSlips, name.size() / 3);
}

}  // namespace

void Findings::error(const Place& place, std::string what) {
  if (errors_.size() >= kMost) {
    ++notKept_;
    return;
  }
  errors_.push_back({place, std::move(what)});
}

void Findings::absence(const Place& place, std::string what) {
  if (complete_) error(place, std::move(what));
}

void Findings::warning(const Place& place, std::string what) {
  if (warnings_.size() < kMost) warnings_.push_back({place, std::move(what)});
}

bool Findings::hasErrorAt(const Place& place) const {
  return std::ranges::any_of(errors_, [&](const Finding& finding) {
    return finding.place.line == place.line && finding.place.key == place.key &&
           finding.place.includedFile() == place.includedFile();
  });
}

std::vector<std::string> Findings::errors() const {
  std::vector<std::string> result = lines(errors_);
  if (notKept_ > 0) {
    result.push_back(file_ + ": " + std::to_string(notKept_) + " more errors are not shown");
  }
  return result;
}

std::vector<std::string> Findings::lines(std::vector<Finding> findings) const {
  std::ranges::stable_sort(findings, {}, [](const Finding& finding) {
    return std::tuple(finding.place.includedFile(), finding.place.line, finding.place.column);
  });
  std::vector<std::string> result;
  for (const auto& [place, what] : findings) {
    std::string line = place.file ? *place.file : file_;
    for (const uint32_t number : {place.line, place.column}) {
      if (number != 0) line.append(":").append(std::to_string(number));
    }
    if (!place.key.empty()) line.append(": ").append(place.key);
    line.append(": ").append(what);
    result.push_back(std::move(line));
  }
  return result;
}

std::string didYouMean(std::string_view text, std::span<const std::string_view> names) {
  std::string_view nearest;
  std::size_t fewest = kMostSlips + 1;
  for (const std::string_view name : names) {
    if (std::max(name.size(), text.size()) > kLongestName) continue;
    const std::size_t slips = slipsBetween(text, name);
    if (slips < fewest && slips <= allowedSlips(name)) {
      nearest = name;
      fewest = slips;
    }
  }
  if (nearest.empty()) {
    const auto begun =
        std::ranges::find_if(names, [&](auto name) { return beginsOther(text, name); });
    if (begun != names.end()) nearest = *begun;
  }
  return nearest.empty() ? std::string() : "; did you mean \"" + std::string(nearest) + "\"?";
}

}  // namespace qn
