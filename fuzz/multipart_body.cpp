// Any multipart body of a face-library request. The first line is the content type, the rest the
// body. What is read are pieces of the body, the description first; and a form that is put around
// the same bytes gives them back.
#include <algorithm>
#include <string>

#include "fuzz/require.h"
#include "gateway/http/multipart.h"
#include "platform/base_library.h"

namespace {

std::string PictureOf(std::string_view body) {
  std::string picture;
  const int length = getBinPart(picture, body.data(), static_cast<int>(body.size()), "");
  Require(static_cast<std::size_t>(length) == picture.size());
  return picture;
}

void ReadAny(std::string_view contentType, std::string_view body) {
  const auto face = qn::readFaceBody(contentType, body);
  if (!face) return;
  Require(face->bytes.size() <= body.size());
  Require(face->hasMimeType == !face->mimeType.empty());
  Require(face->mimeType.empty() || body.find(face->mimeType) != body.npos);
  Require(face->bytes.ends_with(PictureOf(face->bytes)));
}

// A body that begins with JSON keeps its picture.
void ReadPictures(std::string_view body) {
  Require(body.ends_with(PictureOf(body)));
  const std::string picture = "\xFF" + std::string(body);
  Require(PictureOf("{\"a\":[\"}\\\"\"]}" + picture) == picture);
}

// No boundary of the form can be among bytes that have no such text.
void ReadFramed(std::string_view picture) {
  constexpr std::string_view kDescription = "{\"FPID\":\"1\"}";
  if (picture.find("--boundary") != picture.npos) return;
  const std::string delimiter = "\r\n--boundary";
  const std::string one = "\r\nContent-Type: application/json\r\n\r\n" + std::string(kDescription);
  const std::string two = "\r\nContent-Type: image/png\r\n\r\n" + std::string(picture);
  const std::string expected = std::string(kDescription) + std::string(picture);
  for (const std::string& parts : {one + delimiter + two, two + delimiter + one}) {
    const auto face = qn::readFaceBody("multipart/form-data; boundary=boundary",
                                       delimiter + parts + delimiter + "--\r\n");
    Require(face && face->bytes == expected && face->mimeType == "image/png");
  }
}

}  // namespace

void fuzz(std::string_view input) {
  const std::size_t line = std::min(input.find('\n'), input.size());
  const std::string_view body = input.substr(std::min(line + 1, input.size()));
  ReadAny(input.substr(0, line), body);
  ReadPictures(body);
  ReadFramed(body);
}
