// What was said between a gateway and a device, as a text that a person can read and edit. Written
// by the recorder, played by replay.h.
//
//   > PUT /KAVRO/System/time?format=json
//   type application/json
//   | {"Time":{"timeMode":"NTP"}}
//   < 200 after 12 ms
//   type application/json
//   | {"statusCode":1}
//
// "< closed after 5 ms" and "< silent": the device ended the connection, or said nothing. "bytes
// 99": a body that is no text, of which only the length is kept. A stream has parts, each behind a
// line
// "+ 1500 ms" (since its begin), and perhaps "end 63000 ms". "#" begins a remark.
#pragma once

#include <chrono>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace subdevice {

struct RecordedBody {
  std::string type;  // Content-Type
  std::string text;
  std::size_t bytes = 0;  // instead of the text
};

RecordedBody bodyOf(std::string type, std::string_view content);
// What is sent for it: a body that was no text becomes as many "x".
std::string contentOf(const RecordedBody& body);

struct RecordedPart {
  std::chrono::milliseconds at{0};  // since the stream's begin
  RecordedBody body;
};

struct RecordedExchange {
  enum class End { Answered, Closed, Silent };
  static constexpr std::chrono::milliseconds kOpen{-1};

  std::string method, target;
  RecordedBody request;
  End end = End::Answered;
  unsigned status = 200;
  std::chrono::milliseconds after{0};
  RecordedBody reply;
  std::vector<RecordedPart> parts;          // of a stream
  std::chrono::milliseconds ended = kOpen;  // of a stream
  std::string remark;

  bool isStream() const { return reply.type.starts_with("multipart/"); }
};

using Conversation = std::vector<RecordedExchange>;

constexpr std::size_t kConversationBytes = 64 * 1024 * 1024;  // of a file

void writeConversation(std::ostream& file, const Conversation& conversation);
// Throws std::runtime_error that names file and line of the first thing that cannot be read.
Conversation readConversation(std::istream& file, const std::string& name);

}  // namespace subdevice
