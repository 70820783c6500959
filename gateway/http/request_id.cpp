// See request_id.h.
#include "gateway/http/request_id.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>

#include "gateway/auth/digest.h"
#include "gateway/http/header_lines.h"
#include "text/ascii.h"
#include "text/hex.h"

namespace qn {
namespace {

constexpr std::string_view kOfClient = "X-Request-Id";
constexpr std::string_view kOfTrace = "traceparent";

// No longer than what a string holds without an allocation: what tells gateways and their starts
// apart, and a counter.
constexpr std::size_t kStartDigits = 6;

bool isId(std::string_view text) {
  const auto fits = [](char c) {
    const char l = text::lower(c);
    return (l >= 'a' && l <= 'z') || text::isDigit(c) || c == '-' || c == '.' || c == '_';
  };
  return !text.empty() && text.size() <= kRequestIdMax && std::ranges::all_of(text, fits);
}

// Of "version-trace-parent-flags", lower-case hexadecimal of 2, 32, 16 and 2 digits; empty when it
// is something else, or the trace id is zero.
std::string_view traceOf(std::string_view traceparent) {
  constexpr std::size_t kTrace = 3, kParent = 36, kFlags = 53, kEnd = 55;
  if (traceparent.size() < kEnd || traceparent.starts_with("ff")) return {};
  const auto isLowerHex = [](char c) { return text::isHexDigit(c) && c == text::lower(c); };
  for (std::size_t i = 0; i < kEnd; ++i) {
    const bool dash = i == kTrace - 1 || i == kParent - 1 || i == kFlags - 1;
    if (dash ? traceparent[i] != '-' : !isLowerHex(traceparent[i])) return {};
  }
  const std::string_view trace = traceparent.substr(kTrace, 32);
  return trace.find_first_not_of('0') == trace.npos ? std::string_view() : trace;
}

std::string startOfOwn() {
  std::array<uint8_t, kStartDigits / 2> bytes{};
  fillRandom(bytes.data(), bytes.size());  // without it they are all zero, and ids still differ
  return text::hexOf(bytes);
}

std::string ownId() {
  static const std::string start = startOfOwn();
  static std::atomic<uint32_t> next{0};
  const uint32_t number = next.fetch_add(1, std::memory_order_relaxed);
  std::string id(start);
  for (int shift = 28; shift >= 0; shift -= 4) id += text::kHexDigits[number >> shift & 15];
  return id;
}

}  // namespace

bool namesRequest(std::string_view name) {
  return text::equalNoCase(name, kOfClient) || text::equalNoCase(name, kOfTrace);
}

std::string requestIdOf(std::string_view fields) {
  const std::string_view given = findHeader(fields, kOfClient).value;
  if (isId(given)) return std::string(given);
  const std::string_view trace = traceOf(findHeader(fields, kOfTrace).value);
  return trace.empty() ? ownId() : std::string(trace);
}

}  // namespace qn
