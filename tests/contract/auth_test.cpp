// Reading and computing HTTP authentication values, on both sides.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "gateway/auth/auth_reader.h"
#include "gateway/auth/digest.h"
#include "gateway/auth/digest_credentials.h"
#include "gateway/devices/device_login.h"

namespace qn {
namespace {

TEST(Digest, ComputesThePublishedExamples) {
  const struct {
    DigestAlgorithm algorithm;
    const char *realm, *password, *nonce, *clientNonce, *response;
  } cases[] = {
      // RFC 2617, 3.5
      {DigestAlgorithm::MD5, "testrealm@host.com", "Circle Of Life",
       "dcd98b7102dd2f0e8b11d0f600bfb0c093", "0a4f113b", "6629fae49393a05397450978507c4ef1"},
      // RFC 7616, 3.9.1
      {DigestAlgorithm::MD5, "http-auth@example.org", "Circle of Life",
       "7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v",
       "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ", "8ca523f5e9506fed4657c9700eebdbec"},
      {DigestAlgorithm::SHA256, "http-auth@example.org", "Circle of Life",
       "7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v",
       "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ",
       "753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c1"},
  };
  for (const auto& c : cases) {
    const HexDigest ha1 = hexDigest(c.algorithm, {"Mufasa", c.realm, c.password});
    const DigestResponses responses(c.algorithm, ha1.text(), {c.nonce, "00000001", c.clientNonce});
    const HexDigest response = responses.of("GET", "/dir/index.html");
    EXPECT_EQ(response.text(), c.response);
  }
}

TEST(Digest, DoesNotDependOnHowTheTextIsCut) {
  const std::string text(5000, 'x');
  for (const std::size_t at : {1U, 511U, 512U, 513U, 4999U}) {
    const std::string a = text.substr(0, at), b = text.substr(at);
    EXPECT_EQ(hexDigest(DigestAlgorithm::MD5, {a, b}).text(),
              hexDigest(DigestAlgorithm::MD5, {a + ":" + b}).text());
  }
  for (const std::size_t size : {0U, 1U, 127U, 128U, 255U, 256U, 257U, 5000U}) {
    const std::string_view piece = std::string_view(text).substr(0, size);
    Hash together(DigestAlgorithm::MD5), apart(DigestAlgorithm::MD5);
    apart.add("a").add(piece).add(piece).add("b");
    EXPECT_EQ(together.addAll({"a", piece, piece, "b"}).finish().text(), apart.finish().text());
  }
}

// What is remembered of a request serves no other URL, method or algorithm.
TEST(Digest, EveryRequestHasItsOwnResponse) {
  using enum DigestAlgorithm;
  const auto check = [](DigestAlgorithm algorithm, const char* method, const std::string& uri) {
    const DigestResponses responses(algorithm, "ha1", {"nonce", "00000001", "c"});
    const HexDigest request = hexDigest(algorithm, {method, uri});
    const HexDigest expected =
        hexDigest(algorithm, {"ha1", "nonce", "00000001", "c", "auth", request.text()});
    EXPECT_EQ(responses.of(method, uri).text(), expected.text()) << method << uri;
  };
  for (int n = 0; n < 600; ++n) {
    check(MD5, "GET", '/' + std::string(n % 3 * 128, 'x') + std::to_string(n / 2));
  }
  for (const DigestAlgorithm algorithm : {MD5, SHA256, MD5}) {
    for (const char* method : {"GET", "PUT", ""}) check(algorithm, method, "/x");
  }
}

TEST(DigestCredentials, ReadsWhatClientsWrite) {
  DigestCredentials c;
  ASSERT_TRUE(parseDigestCredentials(
      "dIGEST  username = \"a \\\"b\\\", c\",realm=r,,nonce=\"\" ,URI=\"/x?a=1,2\", nc=00000001,"
      "other=\"uri=\\\"/y\\\"\",",
      c));
  EXPECT_EQ(c.username, "a \\\"b\\\", c");
  EXPECT_EQ(unescapeQuoted(c.username), "a \"b\", c");
  EXPECT_EQ(c.realm, "r");
  EXPECT_EQ(c.nonce, "");
  EXPECT_NE(c.nonce.data(), nullptr);
  EXPECT_EQ(c.uri, "/x?a=1,2");
  EXPECT_EQ(c.nc, "00000001");
  EXPECT_EQ(c.response.data(), nullptr);
}

TEST(DigestCredentials, AreReadFromTheTextThatIsAskedAbout) {
  const std::string bad = "Digest nonce=\"n\", nonce=\"n\"", padding(1024, 'x');
  for (const std::string& more : {std::string(), ", opaque=\"" + padding + '"'}) {
    for (const std::string& name : {std::string("a"), std::string("b"), padding}) {
      const std::string text = "Digest username=\"" + name + "\", nonce=\"\"" + more;
      const std::string copy = text;  // equal, at another place
      DigestCredentials c;
      for (const std::string& value : {std::cref(text), std::cref(text), std::cref(copy)}) {
        ASSERT_TRUE(parseDigestCredentials(value, c));
        EXPECT_EQ(c.username, name);
        EXPECT_EQ(c.username.data(), value.data() + std::string("Digest username=\"").size());
        EXPECT_NE(c.nonce.data(), nullptr);
        EXPECT_EQ(c.uri.data(), nullptr);
      }
      EXPECT_FALSE(parseDigestCredentials(bad, c));
      EXPECT_FALSE(parseDigestCredentials(bad, c));
    }
  }
}

TEST(DigestCredentials, RefusesWhatCannotBeToldApart) {
  const std::string good =
      "Digest username=\"u\", realm=\"r\", nonce=\"n\", uri=\"/x\", response=\"00\"";
  DigestCredentials c;
  ASSERT_TRUE(parseDigestCredentials(good, c));
  for (const char* value : {"", " ", "Basic dTpw", "Digestusername=\"u\"", "username=\"u\""}) {
    EXPECT_FALSE(parseDigestCredentials(value, c)) << value;
  }
  for (const char* more :
       {", uri=\"/y\"", ", URI=/y", ", opaque=\"open", ", opaque=\"open\\\"", ", opaque=\"open\\",
        ", opaque=", ", opaque", ", =x", ", Basic dTpw", ", opaque=\"a\nb\"", ", opaque=\"a\\\nb\"",
        ", opaque=\"a\"\"", "; x=y"}) {
    EXPECT_FALSE(parseDigestCredentials(good + more, c)) << more;
  }
  EXPECT_FALSE(parseDigestCredentials(good + std::string(", opaque=\"a\0\"", 13), c));
}

TEST(DigestCredentials, AreBoundToTheRequestTarget) {
  const auto with = [](const std::string& uri) { return "Digest uri=\"" + uri + "\", nonce=a"; };
  EXPECT_TRUE(digestUriIs(with("/a?b=1"), "/a?b=1"));
  EXPECT_TRUE(digestUriIs(with("http://h:80/a?b=1"), "/a?b=1"));
  EXPECT_TRUE(digestUriIs(with("http://h"), "/"));
  EXPECT_TRUE(digestUriIs(with("*"), "*"));
  EXPECT_FALSE(digestUriIs(with("/a"), "/a?b=1"));
  EXPECT_FALSE(digestUriIs(with("/A?b=1"), "/a?b=1"));
  EXPECT_FALSE(digestUriIs(with("/x?y=http://h/a"), "/a"));
  EXPECT_FALSE(digestUriIs("Digest nonce=a", "/a"));
  EXPECT_FALSE(digestUriIs("Basic dTpw", "/a"));
  EXPECT_FALSE(digestUriIs("", ""));
}

TEST(ClientLogin, TakesTheStrongestChallengeThatItUnderstands) {
  // What the answer begins with ("": there is none) and what it has.
  const std::tuple<const char*, std::string, const char*> cases[] = {
      {"Basic realm=\"x\"", "Basic dXNlcjpwYXNz", ""},
      {"Digest realm=\"x\", nonce=\"a\", qop=\"auth\"", "Digest ", "algorithm=MD5"},
      {"Basic realm=\"x\", Digest realm=\"x\", nonce=\"a\", qop=\"auth,auth-int\"", "Digest ",
       "qop=auth,"},
      {"Digest realm=\"x\", nonce=\"a\", qop=\"auth\", Digest realm=\"x\", nonce=\"b\", "
       "qop=\"auth\", algorithm=SHA-256",
       "Digest ", "nonce=\"b\""},
      {"Negotiate YWI/Yw==, Digest realm=\"x\", nonce=\"a\", opaque=\"\", qop=auth", "Digest ",
       "opaque=\"\""},
      {"Digest realm=\"x\", nonce=\"a\", algorithm=SHA-512, Basic realm=\"x\"", "Basic ", ""},
      {"Digest realm=\"x\", nonce=\"a\", qop=\"auth-int\"", "", ""},
      {"Digest realm=\"x\"", "", ""},
      {"", "", ""},
  };
  for (const auto& [challenge, begins, has] : cases) {
    ClientLogin login("user", "pass");
    EXPECT_NE(login.takeChallenge(challenge), begins.empty()) << challenge;
    const std::string value = login.authorization("GET", "/");
    EXPECT_TRUE(value.starts_with(begins) && value.empty() == begins.empty()) << challenge;
    EXPECT_NE(value.find(has), value.npos) << value;
  }
}

TEST(ClientLogin, AnswersServersWithoutQop) {
  ClientLogin login("Mufasa", "CircleOfLife");
  ASSERT_TRUE(login.takeChallenge(
      "Digest realm=\"testrealm@host.com\", nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\""));
  const std::string value = login.authorization("GET", "/dir/index.html");
  // RFC 2069, 2.4, with the response of its errata.
  EXPECT_NE(value.find("response=\"1949323746fe6a43ef61f9606e7febea\""), value.npos) << value;
  EXPECT_EQ(value.find("cnonce"), value.npos);
}

}  // namespace
}  // namespace qn
