// What the control resource ordered a device to do wrong: one order at a time, for a number of
// requests or until it is taken back.
#pragma once

#include <json/json.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "subdevice/message.h"

namespace subdevice {

enum class FaultKind {
  None,     // answer properly (perhaps late)
  Refuse,   // close without an answer
  Hang,     // say nothing and keep the connection
  Cut,      // close in the middle of the answer
  Garbage,  // bytes that are not HTTP
  Empty,    // 200 without a body
  Reply,    // the given status, content type and body
  Large,    // a body of the given number of bytes
};

struct OrderedFault {
  static constexpr std::size_t kLargestBody = 64 * 1024 * 1024;

  FaultKind kind = FaultKind::None;
  std::chrono::milliseconds delay{0};  // before any kind, the proper answer included
  Reply reply;                         // of the kind Reply
  std::size_t bytes = 0;               // of the kind Large
};

// By the names that orders give them.
std::vector<std::string_view> faultKinds();

class Faults {
 public:
  // An order that has been checked (orders.h). Without "count": until the next order. Only requests
  // whose URL contains "url" are hit; without one all but the alert stream.
  void order(const Json::Value& order);
  void clear();

  // What to do with this request; uses up one of the count.
  OrderedFault take(const Request& request);

  uint64_t remaining() const { return remaining_; }

 private:
  static constexpr uint64_t kForever = UINT64_MAX;

  bool hits(const Request& request) const;

  OrderedFault fault_;
  std::string url_;
  uint64_t remaining_ = 0;
};

}  // namespace subdevice
