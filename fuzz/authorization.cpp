// Any text: as an Authorization value it never logs in and its parameters lie within it; as a
// challenge, what is answered can be read again.
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz/require.h"
#include "gateway/config/configuration.h"
#include "gateway/devices/device_login.h"
#include "gateway/login/login.h"

namespace {

bool Publish() {
  const auto configuration = std::make_shared<qn::Configuration>();
  const auto ha1 = qn::hexDigest(qn::DigestAlgorithm::MD5, {"admin", "KAVRO", "password"});
  configuration->users.push_back({"admin", std::string(ha1.text()), "1", {}});
  configuration->buildIndexes();
  qn::publishConfiguration(configuration);
  return true;
}

bool Within(std::string_view part, std::string_view whole) {
  return part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size();
}

void AsCredentials(std::string_view text) {
  qn::DigestCredentials given;
  if (qn::parseDigestCredentials(text, given)) {
    Require(!given.uri.data() || (Within(given.uri, text) && qn::digestUriIs(text, given.uri)));
    Require(!given.username.data() || Within(given.username, text));
  }
  static qn::Login login;
  tagDIGEST_REQUEST request{};
  tagDIGEST_RESULT result;
  std::memcpy(request.authorization, text.data(),
              std::min(text.size(), std::size_t(DIGEST_AUTHORIZATION_MAX)));
  const int code = login.check(result, "GET", request, DIGEST_MODE_OWN_DEVICE);
  Require(code == DIGEST_NO_CREDENTIALS || code == DIGEST_REFUSED);
  Require(result.devIndex[0] == '\0');
}

void AsChallenge(std::string_view text) {
  qn::ClientLogin login("na\"me", "password");
  if (!login.takeChallenge(text)) return;
  const std::string value = login.authorization("GET", "/a?b=c");
  qn::DigestCredentials made;
  Require(value.starts_with("Basic ") ||
          (qn::parseDigestCredentials(value, made) && qn::digestUriIs(value, "/a?b=c")));
}

}  // namespace

void fuzz(std::string_view text) {
  static const bool published = Publish();
  Require(published);
  AsCredentials(text);
  AsChallenge(text);
}
