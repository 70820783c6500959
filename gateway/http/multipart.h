// Takes a multipart body apart into the JSON description and the picture of a face-library request.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qn {

struct FaceBody {
  std::string bytes;         // the JSON part, followed by the picture part
  bool hasMimeType = false;  // the picture part names its type
  std::string mimeType;
};

// True for the content type of a multipart body.
bool isMultipart(std::string_view contentType);

// The parts may stand in either order; the JSON part is the one that says so, or else the first
// that does not claim to be something else. Nothing when the content type has no boundary, a part
// is malformed, there is no JSON part, or the closing boundary is missing.
std::optional<FaceBody> readFaceBody(std::string_view contentType, std::string_view body);

}  // namespace qn
