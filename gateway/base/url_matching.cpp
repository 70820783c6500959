// QNBase::CRESTfulProtocol: what a request's URL says. Called several times for every request, so
// nothing here allocates.
#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>

#include "platform/rest_protocol.h"

namespace QNBase {
namespace {

constexpr std::string_view kPlaceholder = "%d";

std::string_view pathOf(std::string_view url) { return url.substr(0, url.find('?')); }

// Whether a parameter of the query satisfies `test`, which gets "name=value" or a lone name.
template <typename Test>
bool anyParameter(std::string_view url, Test test) {
  const std::size_t mark = url.find('?');
  if (mark == url.npos) return false;
  std::string_view rest = url.substr(mark + 1);
  for (;;) {
    const std::size_t end = rest.find('&');
    if (test(rest.substr(0, end))) return true;
    if (end == rest.npos) return false;
    rest.remove_prefix(end + 1);
  }
}

bool hasParameter(std::string_view url, std::string_view parameter) {
  return anyParameter(url, [&](std::string_view each) { return each == parameter; });
}

// Removes the digits at the start of text; false when they are not a number that %d may stand for.
bool skipNumber(std::string_view& text) {
  constexpr std::size_t kMaxDigits = 10;
  const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
  if (digits == 0 || digits > kMaxDigits) return false;
  std::uint64_t value = 0;
  for (char digit : text.substr(0, digits)) {
    value = value * 10 + static_cast<unsigned>(digit - '0');
  }
  text.remove_prefix(digits);
  return value <= static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max());
}

}  // namespace

bool CRESTfulProtocol::IsJsonURL(const std::string& url) {
  return hasParameter(url, "format=json");
}

bool CRESTfulProtocol::isLanguageCNURL(const std::string& url) {
  return hasParameter(url, "language=cn");
}

bool CRESTfulProtocol::isDeviceURL(const std::string& url) {
  return anyParameter(
      url, [](std::string_view each) { return each.substr(0, each.find('=')) == "devIndex"; });
}

const char* CRESTfulProtocol::GetMethod(unsigned char method) {
  // In the order of the codes of CHttpExchange::getMethod().
  constexpr std::array kNames = {"GET", "PUT", "POST", "DELETE", "HEAD", "OPTIONS", "PATCH"};
  return method < kNames.size() ? kNames[method] : "";
}

bool CRESTfulProtocol::cmpURL(std::string_view url, std::string_view path) {
  return pathOf(url) == path;
}

bool CRESTfulProtocol::cmpURLWithInt(std::string_view url, std::string_view pattern, int count) {
  std::string_view path = pathOf(url);
  int placeholders = 0;
  for (;;) {
    const std::size_t next = pattern.find(kPlaceholder);
    const std::string_view literal = pattern.substr(0, next);
    if (!path.starts_with(literal)) return false;
    path.remove_prefix(literal.size());
    if (next == pattern.npos) return path.empty() && placeholders == count;
    pattern.remove_prefix(next + kPlaceholder.size());
    if (!skipNumber(path)) return false;
    ++placeholders;
  }
}

}  // namespace QNBase
