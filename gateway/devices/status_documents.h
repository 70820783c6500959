// The buses' own answers: the JSON status documents of what can go wrong with a device, built once.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/error_codes.h"

namespace qn {

// Constant after construction.
class StatusDocuments {
 public:
  StatusDocuments();

  // `errorCode`: one of those that devices and buses give.
  std::string_view of(unsigned int errorCode) const;

 private:
  std::unordered_map<unsigned int, std::string> texts_;
};

// What a device meant by an HTTP status of 400 or more without a document of its own.
unsigned int errorOfHttpStatus(int status);

}  // namespace qn
