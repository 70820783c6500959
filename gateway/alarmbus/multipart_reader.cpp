#include "gateway/alarmbus/multipart_reader.h"

#include <algorithm>
#include <utility>

#include "text/ascii.h"
#include "text/number.h"

namespace qn {
namespace {

constexpr std::size_t kHeaderLimit = 8 * 1024;

// Without the line break that belongs to the boundary after it.
std::string_view withoutLineBreak(std::string_view body) {
  if (body.ends_with('\n')) body.remove_suffix(1);
  if (body.ends_with('\r')) body.remove_suffix(1);
  return body;
}

}  // namespace

MultipartReader::MultipartReader(std::string_view boundary, std::size_t partLimit, PartSink sink)
    : delimiter_("--" + std::string(boundary)), partLimit_(partLimit), sink_(std::move(sink)) {}

bool MultipartReader::feed(std::string_view bytes) {
  const bool kept = !rest_.empty();
  if (kept) bytes = rest_.append(bytes);
  for (;;) {
    const Step done = step(bytes);
    if (done.result == Step::Failed) return false;
    bytes.remove_prefix(done.consumed);
    if (done.result == Step::NeedMore) break;
  }
  if (kept) {
    rest_.erase(0, rest_.size() - bytes.size());
    if (rest_.empty()) rest_ = {};  // an idle stream holds no memory
  } else {
    rest_.assign(bytes);
  }
  return true;
}

MultipartReader::Step MultipartReader::step(std::string_view bytes) {
  switch (state_) {
    case State::Boundary:
      return findBoundary(bytes);
    case State::BoundaryLine:
    case State::Header:
      return readLine(bytes);
    case State::BodyOfLength:
      return readBodyOfLength(bytes);
    case State::BodyStart:
      return beginBody(bytes);
    case State::JsonBody:
      return readJsonBody(bytes);
    case State::BodyToBoundary:
      return readBodyToBoundary(bytes);
  }
  return {Step::Failed};
}

// Behind the line that the bytes begin with; 0 when its end has not come. Looks at each byte once.
std::size_t MultipartReader::lineEnd(std::string_view bytes) {
  const auto end = bytes.find('\n', scanned_);
  scanned_ = end == std::string_view::npos ? bytes.size() : 0;
  return end + 1;
}

MultipartReader::Step MultipartReader::findBoundary(std::string_view bytes) {
  const auto at = bytes.find(delimiter_);
  if (at == std::string_view::npos) {
    const auto keep = std::min(bytes.size(), delimiter_.size() - 1);
    return {Step::NeedMore, bytes.size() - keep};
  }
  state_ = State::BoundaryLine;
  contentType_.clear();
  hasLength_ = false;
  scanned_ = 0;
  return {Step::Advanced, at + delimiter_.size()};
}

MultipartReader::Step MultipartReader::readLine(std::string_view bytes) {
  const auto end = lineEnd(bytes);
  if (end == 0) return {bytes.size() > kHeaderLimit ? Step::Failed : Step::NeedMore};
  const auto line = withoutLineBreak(bytes.substr(0, end));
  if (std::exchange(state_, State::Header) == State::BoundaryLine) return {Step::Advanced, end};
  if (line.empty()) {
    state_ = hasLength_ ? State::BodyOfLength : State::BodyStart;
  } else if (!takeHeaderLine(line)) {
    return {Step::Failed};
  }
  return {Step::Advanced, end};
}

bool MultipartReader::takeHeaderLine(std::string_view line) {
  const auto colon = line.find(':');
  if (colon == std::string_view::npos) return false;
  const auto name = text::trim(line.substr(0, colon));
  const auto value = text::trim(line.substr(colon + 1));
  if (text::equalNoCase(name, "Content-Type")) contentType_ = value;
  if (!text::equalNoCase(name, "Content-Length")) return true;
  const auto length = text::wholeNumber<std::size_t>(value);
  hasLength_ = true;
  length_ = length.value_or(0);
  return length && length_ <= partLimit_;
}

MultipartReader::Step MultipartReader::readBodyOfLength(std::string_view bytes) {
  if (bytes.size() < length_) return {Step::NeedMore};
  return finishBody(bytes.substr(0, length_), length_);
}

// Blanks before a body without a length do not belong to it.
MultipartReader::Step MultipartReader::beginBody(std::string_view bytes) {
  const auto first = bytes.find_first_not_of(text::kBlanks);
  if (first == std::string_view::npos) return {Step::NeedMore, bytes.size()};
  state_ = bytes[first] == '{' ? State::JsonBody : State::BodyToBoundary;
  jsonEnd_ = {};
  scanned_ = 0;
  return {Step::Advanced, first};
}

MultipartReader::Step MultipartReader::readJsonBody(std::string_view bytes) {
  switch (jsonEnd_.feed(bytes.substr(scanned_))) {
    case JsonEnd::Found::End:
      bytes = bytes.substr(0, jsonEnd_.size());  // with blanks behind it
      return finishBody(bytes.substr(0, bytes.rfind('}') + 1), bytes.size());
    case JsonEnd::Found::NoJson:  // ends like any other text
      state_ = State::BodyToBoundary;
      scanned_ = 0;
      return {Step::Advanced, 0};
    case JsonEnd::Found::Nothing:
      break;
  }
  scanned_ = bytes.size();
  return {bytes.size() > partLimit_ ? Step::Failed : Step::NeedMore};
}

MultipartReader::Step MultipartReader::readBodyToBoundary(std::string_view bytes) {
  const auto at = bytes.find(delimiter_, scanned_);
  if (at != std::string_view::npos) return finishBody(withoutLineBreak(bytes.substr(0, at)), at);
  scanned_ = bytes.size() - std::min(bytes.size(), delimiter_.size() - 1);
  return {bytes.size() > partLimit_ ? Step::Failed : Step::NeedMore};
}

MultipartReader::Step MultipartReader::finishBody(std::string_view body, std::size_t consumed) {
  sink_(contentType_, body);
  state_ = State::Boundary;
  return {Step::Advanced, consumed};
}

}  // namespace qn
