// The codes of a JSON reply, read from its text in one pass without building a value: devices send
// megabytes that only go through. Called by device_reply. Any thread.
#pragma once

#include <optional>
#include <string_view>

namespace QNKAVROProtocol {

// Absent: no such member of the root, or no integer.
struct DeviceCodes {
  std::optional<int> errorCode;
  std::optional<int> statusCode;
};

// The codes of an object or array in the notation that every JSON writer uses. Nothing for any
// other text, which a full reader may still accept: comments, exponents, surrogate escapes, deep
// nesting. What is accepted here, the full reader accepts, with the same codes.
std::optional<DeviceCodes> codesOfPlainJson(std::string_view text);

}  // namespace QNKAVROProtocol
