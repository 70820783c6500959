// The multipart bodies of face-library requests.
#include "gateway/http/multipart.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace qn {
namespace {

TEST(Multipart, Table) {
  const std::string json = "Content-Type: application/json\r\n\r\n{\"a\":1}";
  const std::string png = "content-type:image/png; x=y\r\nX: y\r\n\r\nPNG";
  const std::string form = "multipart/form-data; boundary=B";
  // What, its content type and body, and its bytes, "/" and mime type (null: it is refused).
  const std::tuple<const char*, std::string, std::string, const char*> cases[] = {
      {"plain", form, "--B\r\n" + json + "\r\n--B\r\n" + png + "\r\n--B--\r\n",
       "{\"a\":1}PNG/image/png"},
      {"picture first, no final CRLF", form, "--B\r\n" + png + "\r\n--B\r\n" + json + "\r\n--B--",
       "{\"a\":1}PNG/image/png"},
      {"preamble, epilogue", form, "p --B\r\nq\r\n--B\r\n" + json + "\r\n--B--\r\nend",
       "{\"a\":1}/"},
      {"quoted boundary", "Multipart/Mixed; a=\"x;boundary=C\"; BOUNDARY=\"B 1\"",
       "--B 1\r\n" + json + "\r\n--B 1--", "{\"a\":1}/"},
      {"untyped parts", form, "--B\r\n\r\n{}\r\n--B\r\n\r\nraw\r\n--B--", "{}raw/"},
      {"blanks after the boundary", form, "--B \t\r\n\r\n{}\r\n--B--", "{}/"},
      {"boundary text and CRLF inside a picture", form,
       "--B\r\n\r\n{}\r\n--B\r\n\r\na\r\n--Bx\r\nb\r\n\r\n--B--", "{}a\r\n--Bx\r\nb\r\n/"},
      {"empty parts", form, "--B\r\n\r\n\r\n--B\r\n\r\n\r\n--B--", "/"},
      {"no final boundary", form, "--B\r\n" + json + "\r\n--B\r\n" + png, nullptr},
      {"cut after the description", form, "--B\r\n" + json + "\r\n", nullptr},
      {"no boundary parameter", "multipart/form-data", "--B\r\n" + json + "\r\n--B--", nullptr},
      {"empty boundary", "multipart/form-data; boundary=", "--\r\n" + json + "\r\n----", nullptr},
      {"empty quoted boundary", "multipart/form-data; boundary=\"\"",
       "--\"\"\r\n" + json + "\r\n--\"\"--", nullptr},
      {"long boundary", "multipart/form-data; boundary=" + std::string(71, 'B'), "", nullptr},
      {"another boundary", form, "--C\r\n" + json + "\r\n--C--", nullptr},
      {"part without end of head", form, "--B\r\nContent-Type: x\r\n--B--", nullptr},
      {"pictures only", form, "--B\r\n" + png + "\r\n--B--", nullptr},
      {"nothing", form, "", nullptr},
      {"closed at once", form, "--B--", nullptr},
  };
  for (const auto& [what, contentType, body, expected] : cases) {
    const auto face = readFaceBody(contentType, body);
    ASSERT_EQ(face.has_value(), expected != nullptr) << what;
    if (!face) continue;
    EXPECT_EQ(face->bytes + "/" + face->mimeType, expected) << what;
    EXPECT_EQ(face->hasMimeType, !face->mimeType.empty()) << what;
  }
}

TEST(Multipart, RefusesMoreThanAFewParts) {
  std::string body;
  for (int i = 0; i < 17; ++i) body += "--B\r\n\r\n{}\r\n";
  EXPECT_FALSE(readFaceBody("multipart/form-data; boundary=B", body + "--B--"));
}

}  // namespace
}  // namespace qn
