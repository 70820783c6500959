// The access log: a line for each request that was answered. Written by the HTTP service.
#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>

namespace qn {

enum class AccessLog { None, Errors, All };

void setAccessLog(AccessLog access);

// Errors: statuses from 400 on.
bool isAccessLogged(int status);

struct AnsweredRequest {
  std::string_view id;
  std::string_view client;
  std::string_view user;    // empty: nobody has logged in
  std::string_view device;  // empty: none was asked
  std::string_view method;
  std::string_view url;  // the values of its query are left out
  int status;
  uint64_t bytes;  // of the answer; 0: a stream begins
  std::chrono::microseconds took;
  std::chrono::microseconds waited;  // of that, for the device
};

// Any thread. Never throws: without memory the line is lost.
void logAccess(const AnsweredRequest& request) noexcept;

}  // namespace qn
