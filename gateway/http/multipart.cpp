// See multipart.h.
#include "gateway/http/multipart.h"

#include <algorithm>
#include <vector>

#include "text/ascii.h"

namespace qn {
namespace {

constexpr std::size_t kMaxParts = 16;     // a description and a picture; more is nonsense
constexpr std::size_t kMaxBoundary = 70;  // RFC 2046

struct Part {
  std::string_view contentType;  // empty when it has none
  std::string_view bytes;
};

// The media type without its parameters.
std::string_view mediaType(std::string_view contentType) {
  return text::trim(contentType.substr(0, contentType.find(';')));
}

// The next parameter of a content type, with its leading ';'; a ';' inside quotes does not end it.
std::string_view takeParameter(std::string_view& rest) {
  bool quoted = false;
  std::size_t end = 1;
  for (; end < rest.size() && (quoted || rest[end] != ';'); ++end) {
    if (rest[end] == '"') quoted = !quoted;
  }
  const std::string_view parameter = rest.substr(1, end - 1);
  rest.remove_prefix(end);
  return text::trim(parameter);
}

std::string_view boundaryOf(std::string_view contentType) {
  std::string_view rest = contentType.substr(std::min(contentType.find(';'), contentType.size()));
  while (!rest.empty()) {
    const std::string_view parameter = takeParameter(rest);
    if (!text::startsWithNoCase(parameter, "boundary=")) continue;
    std::string_view value = parameter.substr(std::string_view("boundary=").size());
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
      value = value.substr(1, value.size() - 2);
    }
    return value.size() <= kMaxBoundary ? value : std::string_view();
  }
  return {};
}

// One part from between two boundaries: header lines, an empty line, the bytes.
std::optional<Part> readPart(std::string_view text) {
  Part part;
  for (;;) {
    const std::size_t end = text.find("\r\n");
    if (end == std::string_view::npos) return std::nullopt;
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 2);
    if (line.empty()) break;
    if (text::startsWithNoCase(line, "content-type:")) {
      part.contentType = text::trim(line.substr(std::string_view("content-type:").size()));
    }
  }
  part.bytes = text;
  return part;
}

enum class LineEnd { Part, Closing, None };

// What follows a boundary at the start of `rest`, which is taken off: "--" closes, blanks and CRLF
// start a part, anything else means that it was no boundary.
LineEnd takeLineEnd(std::string_view& rest) {
  if (rest.starts_with("--")) return LineEnd::Closing;
  const std::size_t blanks = std::min(rest.find_first_not_of(" \t"), rest.size());
  if (rest.substr(blanks, 2) != "\r\n") return LineEnd::None;
  rest.remove_prefix(blanks + 2);
  return LineEnd::Part;
}

// Where the next boundary line stands in `text`, at or after its start; `after` becomes what
// follows the delimiter.
struct Boundary {
  std::size_t position;
  std::string_view rest;
  LineEnd end;
};
std::optional<Boundary> findBoundary(std::string_view text, std::string_view delimiter) {
  for (std::size_t at = text.find(delimiter); at != std::string_view::npos;
       at = text.find(delimiter, at + 1)) {
    std::string_view rest = text.substr(at + delimiter.size());
    const LineEnd end = takeLineEnd(rest);
    if (end != LineEnd::None) return Boundary{at, rest, end};
  }
  return std::nullopt;
}

std::optional<std::vector<Part>> readParts(std::string_view body, std::string_view boundary) {
  const std::string delimiter = "\r\n--" + std::string(boundary);
  // The first boundary may stand at the very start, without a CRLF of its own.
  std::optional<Boundary> found;
  if (body.starts_with(std::string_view(delimiter).substr(2))) {
    std::string_view rest = body.substr(delimiter.size() - 2);
    const LineEnd end = takeLineEnd(rest);
    if (end != LineEnd::None) found = Boundary{0, rest, end};
  }
  if (!found) found = findBoundary(body, delimiter);  // after a preamble
  std::vector<Part> parts;
  while (found && found->end == LineEnd::Part) {
    const std::string_view text = found->rest;
    found = findBoundary(text, delimiter);
    if (!found || parts.size() == kMaxParts) return std::nullopt;
    const std::optional<Part> part = readPart(text.substr(0, found->position));
    if (!part) return std::nullopt;
    parts.push_back(*part);
  }
  if (!found || parts.empty()) return std::nullopt;
  return parts;
}

bool saysJson(const Part& part) {
  return text::startsWithNoCase(mediaType(part.contentType), "application/json");
}

bool mayBeJson(const Part& part) {
  const std::string_view type = mediaType(part.contentType);
  return type.empty() || text::startsWithNoCase(type, "text/");
}

}  // namespace

bool isMultipart(std::string_view contentType) {
  return text::startsWithNoCase(text::trim(contentType), "multipart/");
}

std::optional<FaceBody> readFaceBody(std::string_view contentType, std::string_view body) {
  const std::string_view boundary = boundaryOf(contentType);
  if (boundary.empty()) return std::nullopt;
  const auto parts = readParts(body, boundary);
  if (!parts) return std::nullopt;
  auto json = std::find_if(parts->begin(), parts->end(), saysJson);
  if (json == parts->end()) json = std::find_if(parts->begin(), parts->end(), mayBeJson);
  if (json == parts->end()) return std::nullopt;
  FaceBody face;
  face.bytes = json->bytes;
  const auto picture =
      std::find_if(parts->begin(), parts->end(), [&](const Part& p) { return &p != &*json; });
  if (picture != parts->end()) {
    face.bytes += picture->bytes;
    face.mimeType = mediaType(picture->contentType);
    face.hasMimeType = !face.mimeType.empty();
  }
  return face;
}

}  // namespace qn
