// Reads an endless multipart stream that comes in pieces cut anywhere. Used by the alarm bus on a
// device's alert stream.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "gateway/alarmbus/alarm_text.h"

namespace qn {

// A part ends after its Content-Length. One without a length ends where its JSON object ends, or
// else at the next boundary. What stands between parts is passed over.
class MultipartReader {
 public:
  // The body is valid during the call.
  using PartSink = std::function<void(std::string_view contentType, std::string_view body)>;

  MultipartReader(std::string_view boundary, std::size_t partLimit, PartSink sink);

  // False when the stream cannot be read on: a part over the limit, or an unusable part header.
  bool feed(std::string_view bytes);

 private:
  enum class State {
    Boundary,
    BoundaryLine,
    Header,
    BodyOfLength,
    BodyStart,
    JsonBody,
    BodyToBoundary
  };
  // What one step made of the bytes at hand.
  struct Step {
    enum { Advanced, NeedMore, Failed } result;
    std::size_t consumed = 0;
  };

  Step step(std::string_view bytes);
  Step findBoundary(std::string_view bytes);
  std::size_t lineEnd(std::string_view bytes);
  Step readLine(std::string_view bytes);
  bool takeHeaderLine(std::string_view line);
  Step readBodyOfLength(std::string_view bytes);
  Step beginBody(std::string_view bytes);
  Step readJsonBody(std::string_view bytes);
  Step readBodyToBoundary(std::string_view bytes);
  Step finishBody(std::string_view body, std::size_t consumed);

  const std::string delimiter_;
  const std::size_t partLimit_;
  const PartSink sink_;
  std::string rest_;  // bytes that no step could use yet
  State state_ = State::Boundary;
  std::string contentType_;
  std::size_t length_ = 0;
  bool hasLength_ = false;
  JsonEnd jsonEnd_;          // of a body without a length
  std::size_t scanned_ = 0;  // how far in rest_
};

}  // namespace qn
