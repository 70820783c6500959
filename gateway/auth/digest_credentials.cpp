#include "gateway/auth/digest_credentials.h"

#include "gateway/auth/auth_reader.h"
#include "text/ascii.h"

namespace qn {
namespace {

struct Parameter {
  std::string_view name;
  std::string_view DigestCredentials::*member;
};

constexpr Parameter kParameters[] = {
    {"username", &DigestCredentials::username}, {"realm", &DigestCredentials::realm},
    {"nonce", &DigestCredentials::nonce},       {"uri", &DigestCredentials::uri},
    {"response", &DigestCredentials::response}, {"algorithm", &DigestCredentials::algorithm},
    {"qop", &DigestCredentials::qop},           {"nc", &DigestCredentials::nc},
    {"cnonce", &DigestCredentials::cnonce},     {"userhash", &DigestCredentials::userhash},
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

std::string_view withoutAuthority(std::string_view uri) {
  const std::size_t scheme = uri.find("://");
  if (uri.starts_with('/') || scheme == uri.npos) return uri;
  const std::size_t path = uri.find('/', scheme + 3);
  return path == uri.npos ? "/" : uri.substr(path);
}

}  // namespace

bool parseDigestCredentials(std::string_view authorization, DigestCredentials& credentials) {
  using Item = AuthReader::Item;
  credentials = {};
  AuthReader reader(authorization);
  if (reader.next() != Item::Scheme || !text::equalNoCase(reader.name(), "Digest")) return false;
  Item item = reader.next();
  while (item == Item::Parameter && store(reader, credentials)) item = reader.next();
  return item == Item::End;
}

bool digestUriIs(std::string_view authorization, std::string_view target) {
  DigestCredentials credentials;
  return parseDigestCredentials(authorization, credentials) &&
         (credentials.uri == target || withoutAuthority(credentials.uri) == target);
}

}  // namespace qn
