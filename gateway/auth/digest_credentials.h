// The server's side of an Authorization value: the parameters of the Digest scheme. Used by the
// login and by the HTTP service.
#pragma once

#include <string>
#include <string_view>

namespace qn {

// The parameters as they stand in the value, escapes included; one that is missing has null data.
struct DigestCredentials {
  std::string_view username;
  std::string_view usernameExtended;  // "username*"
  std::string_view realm;
  std::string_view nonce;
  std::string_view uri;
  std::string_view response;
  std::string_view algorithm;
  std::string_view qop;
  std::string_view nc;
  std::string_view cnonce;
  std::string_view userhash;
};

// False for another scheme, a malformed value, and a parameter that appears twice. Parameters of
// other names are passed over. The views point into `authorization`.
bool parseDigestCredentials(std::string_view authorization, DigestCredentials& credentials);

// The user name, decoded, from whichever of the two parameters there is; false when there are none
// or both, or the extended one is not encoded as UTF-8 or is to be a hash. With "userhash" the name
// is the hash.
bool usernameOf(const DigestCredentials& credentials, std::string& name);

// Whether Digest credentials are for this request target (path and query); an absolute digest uri
// is compared from its path on. Looks no further than the first "uri": what is malformed behind it
// no login accepts.
bool digestUriIs(std::string_view authorization, std::string_view target);

}  // namespace qn
