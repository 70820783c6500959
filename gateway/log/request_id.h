// The request that the calling thread works for: its id stands on every line that is logged
// meanwhile. Set by the HTTP service around the module, and by the device-configuration bus around
// the callback.
#pragma once

#include <string_view>
#include <utility>

namespace qn {

// On the thread that makes it, until it is destroyed; `id` outlives it.
class RequestIdScope {
 public:
  explicit RequestIdScope(std::string_view id) : former_(std::exchange(current_, id)) {}
  ~RequestIdScope() { current_ = former_; }
  RequestIdScope(const RequestIdScope&) = delete;
  RequestIdScope& operator=(const RequestIdScope&) = delete;

  // Empty outside of any scope.
  static std::string_view current() { return current_; }

 private:
  inline static thread_local std::string_view current_;
  const std::string_view former_;
};

}  // namespace qn
