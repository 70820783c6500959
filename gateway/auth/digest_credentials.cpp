#include "gateway/auth/digest_credentials.h"

#include "gateway/auth/auth_reader.h"
#include "text/ascii.h"
#include "text/hex.h"
#include "text/number.h"

namespace qn {
namespace {

struct Parameter {
  std::string_view name;
  std::string_view DigestCredentials::*member;
};

constexpr Parameter kParameters[] = {
    {"username", &DigestCredentials::username},
    {"realm", &DigestCredentials::realm},
    {"nonce", &DigestCredentials::nonce},
    {"uri", &DigestCredentials::uri},
    {"response", &DigestCredentials::response},
    {"algorithm", &DigestCredentials::algorithm},
    {"qop", &DigestCredentials::qop},
    {"nc", &DigestCredentials::nc},
    {"cnonce", &DigestCredentials::cnonce},
    {"userhash", &DigestCredentials::userhash},
    {"username*", &DigestCredentials::usernameExtended},
};

// False when the parameter was there before.
bool store(const AuthReader& reader, DigestCredentials& credentials) {
  for (const Parameter& parameter : kParameters) {
    if (!text::equalNoCase(parameter.name, reader.name())) continue;
    std::string_view& member = credentials.*parameter.member;
    if (member.data()) return false;
    member = reader.value();
    return true;
  }
  return true;
}

bool readParameters(std::string_view authorization, DigestCredentials& credentials) {
  using Item = AuthReader::Item;
  credentials = {};
  AuthReader reader(authorization);
  if (reader.next() != Item::Scheme || !text::equalNoCase(reader.name(), "Digest")) return false;
  Item item = reader.next();
  while (item == Item::Parameter && store(reader, credentials)) item = reader.next();
  return item == Item::End;
}

// What was read last. Of each request first the service looks at the credentials, then the login.
class LastRead {
 public:
  static constexpr std::size_t kLongest = 1024;  // that is remembered

  bool read(std::string_view authorization, DigestCredentials& credentials) {
    if (authorization != text_) {
      good_ = false;
      text_ = authorization;
      good_ = readParameters(text_, given_);
    }
    credentials = {};
    if (!good_) return false;
    for (const Parameter& parameter : kParameters) {
      const std::string_view value = given_.*parameter.member;
      if (!value.data()) continue;
      credentials.*parameter.member =
          authorization.substr(std::size_t(value.data() - text_.data()), value.size());
    }
    return true;
  }

 private:
  std::string text_;
  DigestCredentials given_;  // views into it
  bool good_ = false;
};

std::string_view withoutAuthority(std::string_view uri) {
  const std::size_t scheme = uri.find("://");
  if (uri.starts_with('/') || scheme == uri.npos) return uri;
  const std::size_t path = uri.find('/', scheme + 3);
  return path == uri.npos ? "/" : uri.substr(path);
}

bool decodePercent(std::string_view text, std::string& decoded) {
  decoded.clear();
  while (!text.empty()) {
    const bool escaped = text[0] == '%';
    if (escaped && (text.size() < 3 || !text::isHexDigit(text[1]))) return false;
    const auto byte =
        escaped ? text::wholeNumber<uint8_t>(text.substr(1, 2), 16) : uint8_t(text[0]);
    if (!byte) return false;
    decoded += char(*byte);
    text.remove_prefix(escaped ? 3 : 1);
  }
  return true;
}

}  // namespace

bool usernameOf(const DigestCredentials& credentials, std::string& name) {
  const std::string_view extended = credentials.usernameExtended;
  if (bool(credentials.username.data()) == bool(extended.data())) return false;
  if (credentials.username.data()) {
    name = unescapeQuoted(credentials.username);
    return true;
  }
  constexpr std::string_view kCharset = "UTF-8'";
  const std::size_t language = extended.find('\'', kCharset.size());
  return text::startsWithNoCase(extended, kCharset) && language != extended.npos &&
         !text::equalNoCase(credentials.userhash, "true") &&
         decodePercent(extended.substr(language + 1), name) && !name.empty();
}

bool parseDigestCredentials(std::string_view authorization, DigestCredentials& credentials) {
  thread_local LastRead last;
  if (authorization.size() > LastRead::kLongest) return readParameters(authorization, credentials);
  return last.read(authorization, credentials);
}

bool digestUriIs(std::string_view authorization, std::string_view target) {
  const auto isTarget = [target](std::string_view uri) {
    return uri == target || withoutAuthority(uri) == target;
  };
  DigestCredentials given;
  if (parseDigestCredentials(authorization, given)) return given.uri.data() && isTarget(given.uri);
  AuthReader reader(authorization);
  if (reader.next() != AuthReader::Item::Scheme || !text::equalNoCase(reader.name(), "Digest")) {
    return false;
  }
  while (reader.next() == AuthReader::Item::Parameter) {
    if (!text::equalNoCase(reader.name(), "uri")) continue;
    return isTarget(reader.value());
  }
  return false;
}

}  // namespace qn
