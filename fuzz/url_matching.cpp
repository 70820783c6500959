// Any URL against patterns, and a URL written from a pattern: the first must not crash, the second
// must match it and nothing else.
#include <string>

#include "fuzz/require.h"
#include "platform/rest_protocol.h"

namespace {

class Handler final : public QNBase::CRESTfulProtocol {};

// The URL's path is `prefix`, digits, `suffix`, as std::string sees it.
bool MatchesSlowly(std::string path, const std::string& prefix, const std::string& suffix) {
  path = path.substr(0, path.find('?'));
  if (path.size() <= prefix.size() + suffix.size()) return false;
  if (!path.starts_with(prefix) || !path.ends_with(suffix)) return false;
  const std::string number =
      path.substr(prefix.size(), path.size() - prefix.size() - suffix.size());
  return number.size() <= 10 && number.find_first_not_of("0123456789") == number.npos &&
         std::strtoll(number.c_str(), nullptr, 10) <= 2147483647;
}

}  // namespace

void fuzz(std::string_view input) {
  const std::string bytes(input);
  Handler handler;
  handler.IsJsonURL(bytes);
  handler.isLanguageCNURL(bytes);
  handler.isDeviceURL(bytes);

  const std::string path = bytes.substr(0, bytes.find('?'));
  Require(Handler::cmpURL(bytes, path));
  Require(Handler::cmpURL(path + "?" + bytes, path));
  Require(Handler::cmpURLWithInt(bytes, "/c/%d", 1) == MatchesSlowly(bytes, "/c/", ""));
  Require(Handler::cmpURLWithInt(bytes, "/c/%d/p", 1) == MatchesSlowly(bytes, "/c/", "/p"));
  Require(!Handler::cmpURLWithInt(bytes, "/c/%d", 0));
  Handler::cmpURLWithInt("/KAVRO/PTZCtrl/channels/1/presets/2", bytes, 2);
}
