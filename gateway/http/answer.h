// The texts around an answer's body: status line, Date, the service's own error documents.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qn {

void appendStatusLine(std::string& out, int status);
// Renewed once per second on each thread.
void appendDate(std::string& out);
void appendContentLength(std::string& out, std::size_t length);

// The service answers these itself, with a JSON status document.
enum class OwnAnswer {
  Malformed,
  RequestTimeout,
  BodyTooLarge,
  HeadTooLarge,
  InternalError,
  NotFound,
  NotImplemented,
  Overloaded,
  GatewayTimeout,
};
struct OwnDocument {
  int status;
  std::string body;
};
const OwnDocument& ownDocument(OwnAnswer answer);
// A whole message that ends the connection.
std::string ownMessage(OwnAnswer answer);

inline constexpr char kRetryAfterSeconds[] = "2";

}  // namespace qn
