// The buses' own answers: the JSON status documents of what can go wrong with a device, built once.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/error_codes.h"

namespace qn {

// The protocol's codes beside those of platform/error_codes.h.
inline constexpr unsigned int kSuccess = 1;
inline constexpr unsigned int kNotFound = 0x40000006;
inline constexpr unsigned int kNotAllowed = 0x40000009;

// Constant after construction.
class StatusDocuments {
 public:
  StatusDocuments();

  // `errorCode`: one of these, or of those that platform/error_codes.h has for devices.
  std::string_view of(unsigned int errorCode) const;

 private:
  std::unordered_map<unsigned int, std::string> texts_;
};

// What a device meant by an HTTP status of 400 or more without a document of its own.
unsigned int errorOfHttpStatus(int status);

}  // namespace qn
